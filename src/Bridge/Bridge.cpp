#include "ovalto/Bridge.h"

#include "API/OvaltoAccess.h"
#include "Bridge/BridgeUrl.h"
#include "Bridge/ExclusivePort.h"
#include "Resources/ResourceType.h"
#include "ovalto/OVALog.h"
#include "ovalto/Ovalto.h"
#include "ovalto/OvaltoError.h"
#include "platform/Asset.h"
#include "platform/AssetResourceLoader.h"
#include "platform/LoadingRequest.h"

#include <httplib.h>
#include <strings.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <list>
#include <map>
#include <mutex>
#include <thread>

namespace ovalto {

namespace {

constexpr const char* answerFunction = "answer(request:response:)";
constexpr const char* playlistContentType = "application/vnd.apple.mpegurl";

std::string describeCode(std::int64_t code) {
    char text[48];
    std::snprintf(text, sizeof text, "0x%llX (%lld)", static_cast<unsigned long long>(code),
                  static_cast<long long>(code));
    return text;
}

// The HTTP status a failed loading request is answered with. Statuses the library passes on
// (a playlist server's 503) stay; its own families say whose fault it is.
int statusFor(const platform::Error& error) {
    if (auto typed = OvaltoError::from(error)) {
        const int code = typed->code();
        if (code >= 400 && code < 600) return code;
        if (code >= 100 && code < 400) return 502; // the origin answered, but not with a body
        switch (code >> 8) {
        case 0x83: // the request names nothing the presentation has
        case 0x85:
            return 404;
        case 0x84: // the playlist could not be fetched
            return 502;
        case 0x86: // the licence was refused
            return 403;
        default:
            return 500;
        }
    }
    if (error.domain == platform::Error::urlDomain)
        return error.code == platform::urlErrorTimedOut ? 504 : 502;
    if (error.domain == platform::Error::loaderDomain)
        return error.code == platform::loaderErrorCancelled ? 504 : 503;
    return 500;
}

// "0x8501 (34049): Stream or Representation is not created."
std::string describe(const platform::Error& error) {
    if (auto typed = OvaltoError::from(error)) return describeCode(typed->code()) + ": " + typed->message();
    return error.domain + " " + std::to_string(error.code) + ": " + error.localizedDescription;
}

bool isPlaylist(const platform::LoadingOutcome& outcome) {
    if (outcome.data.starts_with("#EXTM3U")) return true;
    auto type = outcome.contentType;
    return type && (type->find("mpegurl") != std::string::npos);
}

// True for a playlist that can no longer change: one that has ended (#EXT-X-ENDLIST, which a VOD
// playlist carries from the start). A live playlist changes under the same URL.
bool isFinal(std::string_view playlist) {
    for (std::size_t at = playlist.find("#EXT-X-ENDLIST"); at != std::string_view::npos;
         at = playlist.find("#EXT-X-ENDLIST", at + 1)) {
        const auto end = at + std::string_view("#EXT-X-ENDLIST").size();
        const bool lineStart = at == 0 || playlist[at - 1] == '\n';
        const bool lineEnd = end == playlist.size() || playlist[end] == '\n' || playlist[end] == '\r';
        if (lineStart && lineEnd) return true;
    }
    return false;
}

} // namespace

struct Bridge::Impl {
    std::weak_ptr<Ovalto> ovalto;
    Options options;
    httplib::Server server;
    ExclusivePort exclusive{server}; // a taken port fails, not shared
    std::thread thread;
    std::atomic<bool> listening{false}; // until the server's thread has left its accept loop
    int port = 0;
    Observer observer;

    // One answer waiting for its loading request, woken alone when that request ends, or by
    // stop(). Its own lock and condition, so that one request's end does not wake every waiting
    // answer of a busy bridge.
    struct Wait {
        std::mutex mutex;
        std::condition_variable changed;
        std::optional<platform::LoadingOutcome> outcome;
        bool stopping = false;
    };
    mutable std::mutex mutex; // guards the fields below
    bool stopping = false;
    Counts counts;
    std::list<std::shared_ptr<Wait>> waits;

    // Playlists answered without a loading request: the master of the presentation once fetched
    // (fetching it again rebuilds the presentation's streams, and would pull them from under the
    // clients already playing them), and media playlists that can no longer change (a VOD
    // presentation's, which a client fetches once per rendition it plays, and a busy bridge
    // would otherwise download and rewrite again for every client). Kept for the asset they
    // were made for: a facade that prepares again starts with none.
    std::mutex masterMutex; // held while the master is fetched, so that it is fetched once
    std::mutex keptMutex;
    std::weak_ptr<platform::Asset> keptFor;
    std::map<std::string, std::shared_ptr<const platform::LoadingOutcome>> kept;

    struct Loader {
        std::shared_ptr<platform::Asset> asset;
        std::shared_ptr<platform::AssetResourceLoader> resourceLoader;
    };
    Loader assetLoader() const {
        auto facade = ovalto.lock();
        if (!facade) return {};
        auto engine = OvaltoAccess::engine(*facade);
        auto asset = engine ? engine->asset.get() : nullptr;
        if (!asset) return {};
        auto resourceLoader = asset->resourceLoader();
        return {std::move(asset), std::move(resourceLoader)};
    }

    // The player's side of one request: hand it to the asset's loader and wait for its end.
    platform::LoadingOutcome load(platform::AssetResourceLoader& loader, const platform::Url& url) {
        auto wait = std::make_shared<Wait>();
        platform::LoadingRequest::Parts parts;
        parts.contentInformationRequest = true;
        auto request = platform::LoadingRequest::create(
            platform::UrlRequest(url), parts, [this, wait](const platform::LoadingOutcome& outcome) {
                // Counted before the answer is handed over: once it is, the answer may return
                // and the bridge go.
                {
                    std::lock_guard lock(mutex);
                    ++counts.finished;
                }
                {
                    std::lock_guard lock(wait->mutex);
                    wait->outcome = outcome;
                }
                // The wait is this completion's own too, so it outlives the notification.
                wait->changed.notify_one();
            });
        std::list<std::shared_ptr<Wait>>::iterator registered;
        {
            std::lock_guard lock(mutex);
            ++counts.started;
            wait->stopping = stopping;
            registered = waits.insert(waits.end(), wait);
        }
        loader.load(request);
        {
            std::unique_lock lock(wait->mutex);
            const auto deadline = std::chrono::steady_clock::now() + options.loadingTimeout;
            wait->changed.wait_until(lock, deadline, [&] { return wait->outcome || wait->stopping; });
            if (!wait->outcome) {
                // Given up (too slow, or the bridge stops): the request ends here, and a late
                // answer from the resource is dropped by the request itself.
                lock.unlock();
                loader.cancel(request);
                lock.lock();
                wait->changed.wait(lock, [&] { return wait->outcome.has_value(); });
            }
        }
        {
            std::lock_guard lock(mutex);
            waits.erase(registered);
        }
        return *wait->outcome;
    }

    // What was kept for `url` of `asset`; forgets what was kept for another asset.
    std::shared_ptr<const platform::LoadingOutcome> keptOutcome(const std::shared_ptr<platform::Asset>& asset,
                                                                const std::string& url) {
        std::lock_guard lock(keptMutex);
        if (keptFor.owner_before(asset) || asset.owner_before(keptFor)) {
            kept.clear();
            keptFor = asset;
        }
        auto found = kept.find(url);
        return found != kept.end() ? found->second : nullptr;
    }

    void keep(const std::shared_ptr<platform::Asset>& asset, const std::string& url,
              std::shared_ptr<const platform::LoadingOutcome> outcome) {
        std::lock_guard lock(keptMutex);
        if (!keptFor.owner_before(asset) && !asset.owner_before(keptFor))
            kept.emplace(url, std::move(outcome));
    }

    static bool isMaster(const platform::Url& url) { return url.path().ends_with("master.m3u8"); }
    static bool isPlaylistUrl(const platform::Url& url) {
        const auto scheme = url.scheme();
        return scheme && ResourceType::fromRawValue(*scheme) == ResourceType::playlist;
    }

    std::shared_ptr<const platform::LoadingOutcome> loadPlaylist(const Loader& loader,
                                                                 const platform::Url& url) {
        const auto& key = url.absoluteString();
        if (auto found = keptOutcome(loader.asset, key)) return found;
        std::unique_lock masterLock(masterMutex, std::defer_lock);
        if (isMaster(url)) {
            masterLock.lock();
            if (auto found = keptOutcome(loader.asset, key)) return found;
        }
        auto outcome = std::make_shared<const platform::LoadingOutcome>(load(*loader.resourceLoader, url));
        if (outcome->kind == platform::LoadingOutcome::Kind::data &&
            (isMaster(url) || (isPlaylist(*outcome) && isFinal(outcome->data))))
            keep(loader.asset, key, outcome);
        return outcome;
    }

    void answer(const httplib::Request& req, httplib::Response& res) {
        Exchange exchange{req.method, req.target, 0, 0, std::nullopt, std::nullopt};
        auto fail = [&](int status, const std::string& text) {
            res.status = status;
            res.set_content(text + "\n", "text/plain");
            exchange.error = text;
        };
        auto url = BridgeUrl::resource(req.target);
        auto loader = url ? assetLoader() : Loader{};
        if (!url) {
            fail(404, req.target + " is not a bridge path.");
        } else if (!loader.resourceLoader) {
            fail(503, "No presentation is prepared.");
        } else {
            const auto answered =
                isPlaylistUrl(*url)
                    ? loadPlaylist(loader, *url)
                    : std::make_shared<const platform::LoadingOutcome>(load(*loader.resourceLoader, *url));
            const auto& outcome = *answered;
            using Kind = platform::LoadingOutcome::Kind;
            switch (outcome.kind) {
            case Kind::data:
                if (isPlaylist(outcome)) {
                    const auto host = req.get_header_value("Host");
                    const auto origin = host.empty() ? baseUrl() : "http://" + host;
                    res.set_content(BridgeUrl::mapPlaylist(outcome.data, origin), playlistContentType);
                    // Live playlists change under the same URL.
                    res.set_header("Cache-Control", "no-cache");
                } else {
                    res.set_content(outcome.data, outcome.contentType.value_or("application/octet-stream"));
                }
                // Left unset, the status becomes 200, or 206 with the ranges the client asked for.
                break;
            case Kind::redirect: {
                exchange.location = outcome.redirect ? outcome.redirect->url.absoluteString() : "";
                if (outcome.response) {
                    for (const auto& [name, value] : outcome.response->headers.all()) {
                        if (strcasecmp(name.c_str(), "Location") != 0) res.set_header(name, value);
                    }
                }
                res.set_redirect(*exchange.location, 302);
                break;
            }
            case Kind::error:
            case Kind::cancelled: {
                const auto error =
                    outcome.error.value_or(platform::Error{platform::Error::loaderDomain,
                                                           platform::loaderErrorCancelled,
                                                           "The loading request was cancelled.",
                                                           {}});
                fail(statusFor(error), describe(error));
                res.set_header(
                    "X-Ovalto-Error",
                    std::to_string(OvaltoError::from(error) ? OvaltoError::from(error)->code() : error.code));
                break;
            }
            }
        }
        exchange.status = res.status != -1 ? res.status : req.ranges.empty() ? 200 : 206;
        exchange.bytes = res.body.size();
        if (exchange.error) {
            OVALog(OVALogLevel::warning,
                   req.method + " " + req.target + " " + std::to_string(res.status) + " " + *exchange.error,
                   answerFunction, __FILE__, __LINE__);
        }
        if (observer) observer(exchange);
    }

    std::string baseUrl() const { return "http://" + options.host + ":" + std::to_string(port); }
};

Bridge::Bridge(std::weak_ptr<Ovalto> ovalto)
    : Bridge(std::move(ovalto), Options{}) {}

Bridge::Bridge(std::weak_ptr<Ovalto> ovalto, Options options)
    : impl_(std::make_unique<Impl>()) {
    impl_->ovalto = std::move(ovalto);
    impl_->options = std::move(options);
}

Bridge::~Bridge() {
    stop();
}

void Bridge::setObserver(Observer observer) {
    impl_->observer = std::move(observer);
}

std::optional<platform::Error> Bridge::start() {
    auto& impl = *impl_;
    if (impl.thread.joinable()) return std::nullopt;
    auto& server = impl.server;
    const auto threads = static_cast<std::size_t>(std::max(1, impl.options.threads));
    // The server takes ownership of the queue it is handed.
    server.new_task_queue = [threads] { return std::make_unique<httplib::ThreadPool>(threads).release(); };
    server.set_keep_alive_max_count(1000);
    server.set_tcp_nodelay(true);
    // A client that stops reading frees its thread after this long.
    server.set_write_timeout(5, 0);
    Impl* self = impl_.get();
    server.Get(".*", [self](const httplib::Request& req, httplib::Response& res) { self->answer(req, res); });
    const int port =
        impl.options.port > 0
            ? (server.bind_to_port(impl.options.host.c_str(), impl.options.port) ? impl.options.port : -1)
            : server.bind_to_any_port(impl.options.host.c_str());
    if (port <= 0) {
        return platform::Error{platform::Error::urlDomain,
                               platform::urlErrorCannotConnectToHost,
                               "The bridge cannot listen on " + impl.options.host + ":" +
                                   std::to_string(impl.options.port) + ".",
                               {}};
    }
    impl.port = port;
    impl.exclusive.deepen();
    {
        std::lock_guard lock(impl.mutex);
        impl.stopping = false;
    }
    impl.listening = true;
    impl.thread = std::thread([self] {
        self->server.listen_after_bind();
        self->listening = false;
    });
    return std::nullopt;
}

void Bridge::stop() {
    auto& impl = *impl_;
    if (!impl.thread.joinable()) return;
    {
        std::lock_guard lock(impl.mutex);
        impl.stopping = true;
        for (const auto& wait : impl.waits) {
            std::lock_guard waitLock(wait->mutex);
            wait->stopping = true;
            wait->changed.notify_one();
        }
    }
    // httplib's stop() does nothing until the listening thread has begun to accept: a bridge
    // stopped right after start() would otherwise wait in accept() for ever.
    while (impl.listening) {
        impl.server.stop();
        if (impl.listening) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    impl.thread.join();
}

int Bridge::port() const {
    return impl_->port;
}

std::string Bridge::baseUrl() const {
    return impl_->baseUrl();
}

std::optional<std::string> Bridge::masterUrl() const {
    auto facade = impl_->ovalto.lock();
    if (!facade || !facade->playerItem()) return std::nullopt;
    auto engine = OvaltoAccess::engine(*facade);
    auto asset = engine ? engine->asset.get() : nullptr;
    return asset ? urlFor(asset->url().absoluteString()) : std::nullopt;
}

std::optional<std::string> Bridge::urlFor(const std::string& resourceUrl) const {
    auto target = BridgeUrl::target(resourceUrl);
    if (!target || impl_->port <= 0) return std::nullopt;
    return baseUrl() + *target;
}

Bridge::Counts Bridge::counts() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->counts;
}

} // namespace ovalto
