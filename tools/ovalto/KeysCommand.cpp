#include "Command.h"
#include "ProtectedPlay.h"
#include "ovalto/OVAKeyLoaderDelegate.h"
#include "ovalto/Ovalto.h"
#include "platform/AssetResourceLoader.h"
#include "platform/ContentKey.h"
#include "platform/Device.h"
#include "platform/DispatchQueue.h"
#include "platform/HlsReader.h"
#include "platform/KeyValueStore.h"
#include "platform/LoadingRequest.h"
#include "platform/UrlSession.h"

#include <atomic>
#include <ctime>
#include <iostream>
#include <set>
#include <thread>

namespace ovalto::tool {

namespace {

const char* keysUsage = R"(usage: ovalto keys list
       ovalto keys delete ASSET
       ovalto keys fetch URL --license-server URL --cert FILE|URL [--license-header N:V] [--os-version V]

The persistable content keys stored on this device (in the user's key store, see README).

  list     every stored key: asset, size, expiry
  delete   removes the key of ASSET
  fetch    reads the HLS presentation at URL, and for each "skd" key it names obtains a
           persistable key from the licence server and stores it; a later `ovalto play` of the
           presentation then makes no licence request for it. --os-version picks the
           key-system path (below 11: the key request itself; 11 and later: a content-key
           session), --license-header adds a header to the licence requests.
)";

int fail(const std::string& message) {
    std::cerr << "ovalto keys: " << message << "\n";
    return 2;
}

std::string expiryText(std::int64_t expiry) {
    if (expiry == 0) return "never";
    const std::time_t time = static_cast<std::time_t>(expiry);
    std::tm utc{};
    gmtime_r(&time, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

int list() {
    auto& store = platform::KeyValueStore::standard();
    int count = 0;
    for (const auto& asset : store.dataKeys()) {
        auto value = store.data(asset);
        auto description = value ? platform::ContentKey::describe(*value) : std::nullopt;
        if (!description) continue; // another kind of entry
        std::cout << asset << "  " << value->size() << " bytes  expires " << expiryText(description->expiry)
                  << (description->assetId != asset ? "  (sealed for " + description->assetId + ")" : "")
                  << "\n";
        ++count;
    }
    std::cout << count << " stored key" << (count == 1 ? "" : "s") << " in "
              << platform::KeyValueStore::standardPath() << "\n";
    return 0;
}

// The whole body at `url`, or no value.
std::optional<std::string> fetchText(const platform::Url& url) {
    platform::DispatchSemaphore done(0);
    std::optional<std::string> body;
    auto session = platform::UrlSession::create();
    auto task =
        session->dataTask(platform::UrlRequest(url), [&](std::optional<platform::Data> data,
                                                         std::optional<platform::UrlResponse> response,
                                                         std::optional<platform::Error> error) {
            if (!error && data && (!response || !response->isHttp || response->statusCode / 100 == 2))
                body = data;
            done.signal();
        });
    task->resume();
    done.wait();
    session->finishTasksAndInvalidate();
    return body;
}

// The "skd" key URIs of the presentation at `url` (its media playlists, or itself).
std::optional<std::set<std::string>> skdKeys(const platform::Url& url, std::string& error) {
    auto text = fetchText(url);
    auto playlist = text ? platform::HlsReader::read(*text, url) : std::nullopt;
    if (!playlist) {
        error = "cannot read an HLS playlist at " + url.absoluteString();
        return std::nullopt;
    }
    std::vector<platform::HlsMediaPlaylist> media;
    if (auto* master = std::get_if<platform::HlsMasterPlaylist>(&*playlist)) {
        std::set<std::string> seen;
        std::vector<platform::Url> urls;
        for (const auto& variant : master->variants)
            urls.push_back(variant.uri);
        for (const auto& rendition : master->renditions) {
            if (rendition.uri) urls.push_back(*rendition.uri);
        }
        for (const auto& playlistUrl : urls) {
            if (!seen.insert(playlistUrl.absoluteString()).second) continue;
            auto body = fetchText(playlistUrl);
            auto read = body ? platform::HlsReader::read(*body, playlistUrl) : std::nullopt;
            if (read && std::holds_alternative<platform::HlsMediaPlaylist>(*read))
                media.push_back(std::get<platform::HlsMediaPlaylist>(*read));
        }
    } else {
        media.push_back(std::get<platform::HlsMediaPlaylist>(*playlist));
    }
    std::set<std::string> keys;
    for (const auto& each : media) {
        for (const auto& segment : each.segments) {
            if (segment.key && segment.key->uri && segment.key->uri->scheme() == "skd")
                keys.insert(segment.key->uri->absoluteString());
        }
    }
    return keys;
}

int fetch(const std::vector<std::string>& args) {
    std::optional<std::string> url, server, certificate;
    Headers headers;
    for (std::size_t i = 1; i < args.size(); ++i) {
        const auto& arg = args[i];
        if (arg.rfind("--", 0) != 0) {
            if (url) return fail("more than one URL given");
            url = arg;
            continue;
        }
        if (i + 1 >= args.size()) return fail(arg + " needs a value");
        const auto& value = args[++i];
        if (arg == "--license-server") {
            server = value;
        } else if (arg == "--cert") {
            certificate = value;
        } else if (arg == "--os-version") {
            platform::Device::setSystemVersion(value);
        } else if (arg == "--license-header") {
            const auto colon = value.find(':');
            if (colon == std::string::npos || colon == 0) return fail("--license-header takes NAME:VALUE");
            headers[value.substr(0, colon)] = value.substr(colon + 1);
        } else {
            return fail("unknown option " + arg);
        }
    }
    if (!url || !server || !certificate) return fail("fetch needs URL, --license-server and --cert");
    auto delegate = OVAKeyLoaderDelegate::create();
    std::string error;
    if (!ProtectedPlay::licenseConfiguration(*server, *certificate, headers, delegate->configurations, error))
        return fail(error);
    auto parsed = platform::Url::parse(*url);
    if (!parsed) return fail("'" + *url + "' is not a URL");
    auto keys = skdKeys(*parsed, error);
    if (!keys) return std::cerr << "ovalto keys: " << error << "\n", 1;
    if (keys->empty()) {
        std::cout << "no \"skd\" keys in " << *url << "\n";
        return 0;
    }

    std::atomic<int> failures{0};
    delegate->onError = [&](const platform::Error& failure) {
        ++failures;
        std::cerr << "ovalto keys: " << failure.localizedDescription << "\n";
    };
    auto& store = platform::KeyValueStore::standard();
    auto loader = platform::AssetResourceLoader::create();
    // Keys are fetched afresh: the delegate stores what the licence server gives now.
    for (const auto& key : *keys) {
        auto keyUrl = *platform::Url::parse(key);
        Ovalto::deleteLicense(keyUrl.host().value_or(""));
        platform::LoadingRequest::Parts parts;
        parts.contentInformationRequest = true;
        auto request = platform::LoadingRequest::create(platform::UrlRequest(keyUrl), parts, nullptr);
        delegate->shouldWaitForLoadingOfRequestedResource(*loader, request);
    }
    // From version 11 on the keys arrive through content-key sessions, after the calls above.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(65);
    const auto allStored = [&] {
        for (const auto& key : *keys) {
            if (!store.data(platform::Url::parse(key)->host().value_or(""))) return false;
        }
        return true;
    };
    while (!allStored() && failures.load() == 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));

    int missing = 0;
    for (const auto& key : *keys) {
        const auto asset = platform::Url::parse(key)->host().value_or("");
        auto value = store.data(asset);
        auto description = value ? platform::ContentKey::describe(*value) : std::nullopt;
        if (description) {
            std::cout << "stored " << asset << "  " << value->size() << " bytes  expires "
                      << expiryText(description->expiry) << "\n";
        } else {
            std::cout << "not stored " << asset << "\n";
            ++missing;
        }
    }
    return missing == 0 ? 0 : 1;
}

int keys(const std::vector<std::string>& args) {
    Ovalto::logLevel = OVALogLevel::warning;
    if (args.empty() || args[0] == "--help" || args[0] == "-h") {
        std::cout << keysUsage;
        return args.empty() ? 2 : 0;
    }
    if (args[0] == "list" && args.size() == 1) return list();
    if (args[0] == "delete" && args.size() == 2) {
        const bool stored = platform::KeyValueStore::standard().data(args[1]).has_value();
        Ovalto::deleteLicense(args[1]);
        std::cout << (stored ? "deleted " : "no stored key for ") << args[1] << "\n";
        return 0;
    }
    if (args[0] == "fetch") return fetch(args);
    return fail("unknown use; run `ovalto keys --help`");
}

CommandRegistrar registrar({"keys", "list, delete or fetch the persistable content keys of this device",
                            keys});

} // namespace

} // namespace ovalto::tool
