#include "RewriteCommand.h"

#include "Command.h"
#include "PlayList/MasterPlayList.h"
#include "PlayList/MediaPlayList.h"
#include "PlayList/PlayListText.h"
#include "PlayList/Presentation.h"
#include "Resources/PlayListResource.h"
#include "ThroughLoader.h"
#include "Utils/URLExtension.h"
#include "ovalto/Ovalto.h"
#include "platform/SystemLog.h"
#include "platform/UrlSession.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>

namespace ovalto::tool {

namespace {

const char* rewriteUsage =
    R"(usage: ovalto rewrite FILE|URL [--base-url URL] [--stream S] [--bitrate B] [--verbose]
       ovalto rewrite --through-loader URL [--verbose]

Reads an HLS playlist from a file or an http(s) URL, parses it as the library does and prints
the playlist the player would receive from the library.

A master playlist comes out with every media playlist at "<stream>/<bitrate>/media.m3u8" and the
synthetic video renditions the library adds. A media playlist comes out with every segment at
"rdtp://local/<stream>/<bitrate>/<index>.ts"; tags the library does not keep are gone.

  --base-url URL  the URL the playlist came from, against which its relative URIs resolve
                  (default: the URL given, or the file's own file:// URL)
  --stream S      media playlist: the stream index in its rewritten URLs (default 0)
  --bitrate B     media playlist: the representation key in its rewritten URLs (default 1500000)
  --verbose       also show the library's debug log (the playlist as received, and as written)

  --through-loader URL
                  with URL as the content URL, ask the library's resource loader for the master
                  playlist, every media playlist and the initialisation section and first three
                  segments of each, and print each request with the answer the player gets (the
                  data, the redirect with its 302 header fields, or the error); exit status 1
                  when the master playlist fails

Warnings of the library go to standard error. The exit status is 1 when the input cannot be read,
is not a playlist, or the library refuses to write it, and 2 for bad arguments.
)";

// Collects what the library logs while it lives, instead of letting it reach standard error
// with the system log's stamps.
class LogCollector {
public:
    LogCollector()
        : savedEcho_(platform::SystemLog::echoesToStandardError()) {
        platform::SystemLog::setEchoToStandardError(false);
        token_ = platform::SystemLog::addSink([this](const std::string& line) {
            std::lock_guard lock(mutex_);
            lines_.push_back(line);
        });
    }
    ~LogCollector() {
        platform::SystemLog::removeSink(token_);
        platform::SystemLog::setEchoToStandardError(savedEcho_);
    }
    LogCollector(const LogCollector&) = delete;
    LogCollector& operator=(const LogCollector&) = delete;

    std::vector<std::string> lines() {
        std::lock_guard lock(mutex_);
        return lines_;
    }

private:
    bool savedEcho_;
    int token_ = 0;
    std::mutex mutex_;
    std::vector<std::string> lines_;
};

// "[Warning MediaPlayList|generatePlayList(container:)|133] text" -> "text"
std::string messageOf(const std::string& line) {
    if (line.starts_with('[')) {
        if (auto end = line.find("] "); end != std::string::npos) return line.substr(end + 2);
    }
    return line;
}

bool isWarning(const std::string& line) {
    return line.starts_with("[Warning ") || line.starts_with("[Error ");
}

struct Input {
    std::optional<std::string> text;
    std::optional<platform::Url> url; // where it came from
    std::string error;
};

Input download(const platform::Url& url) {
    Input input;
    input.url = url;
    platform::UrlRequest request(url, platform::CachePolicy::reloadIgnoringLocalCacheData, 30);
    request.deadlineInterval = PlayListResource::deadlineFactor * request.timeoutInterval;
    const auto result = sendSynchronous(*platform::UrlSession::create(), request);
    if (result.error) {
        const auto& error = *result.error;
        input.error = "cannot download " + url.absoluteString() + ": ";
        // A status outside 2xx comes back as the error domain "<status> error".
        if (error.domain.ends_with(" error") &&
            playlisttext::parseInteger<int>(error.domain.substr(0, error.domain.size() - 6)))
            input.error +=
                "the server answered HTTP status " + error.domain.substr(0, error.domain.size() - 6);
        else
            input.error += error.localizedDescription.empty() ? error.domain : error.localizedDescription;
    } else if (!result.value || !result.value->first) {
        input.error = "no playlist came back from " + url.absoluteString();
    } else {
        input.text = *result.value->first;
    }
    return input;
}

Input readInputFile(const std::string& path) {
    Input input;
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        input.error = "cannot read " + path + ": " + std::strerror(errno);
        return input;
    }
    // Straight into a string of the file's size: a stream buffer would hold the text twice or
    // three times over while it grows, and a rewrite's peak memory is mostly this text.
    std::string text;
    std::error_code sizeError;
    const auto size = std::filesystem::file_size(path, sizeError);
    if (!sizeError) text.resize(size);
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(file.gcount()));
    // A file that grew since, or one without a size (a pipe), is read on to its end.
    char chunk[65536];
    while (file.read(chunk, sizeof chunk) || file.gcount() > 0)
        text.append(chunk, static_cast<std::size_t>(file.gcount()));
    if (file.bad()) {
        input.error = "cannot read " + path + ": " + std::strerror(errno);
        return input;
    }
    input.text = std::move(text);
    input.url = platform::Url::fileUrl(path);
    return input;
}

bool isRemote(std::string_view input) {
    return input.starts_with("http://") || input.starts_with("https://");
}

template <class T> std::optional<T> integerArgument(const std::string& text) {
    return playlisttext::parseInteger<T>(text);
}

} // namespace

Rewritten rewritePlayList(std::string_view text, const platform::Url& baseUrl, long stream,
                          std::int32_t bitrate) {
    Rewritten result;
    if (!playlisttext::isValidUtf8(text)) {
        result.error = "this is not UTF-8 text, so not an HLS playlist";
        return result;
    }
    if (!text.starts_with("#EXT")) {
        result.error = "this is not an HLS playlist: it does not begin with #EXT";
        return result;
    }
    LogCollector log;
    result.isMaster = PlayList::isMaster(text);
    if (result.isMaster) {
        Presentation presentation;
        MasterPlayList master;
        if (master.parsePlayList(text, baseUrl, presentation))
            result.playList = master.generatePlayList(presentation);
    } else {
        Representation representation;
        representation.streamIndex.set(stream);
        representation.bitrate.set(bitrate);
        MediaPlayList media;
        if (media.parsePlayList(text, baseUrl, representation))
            result.playList = media.generatePlayList(representation);
    }
    result.log = log.lines();
    for (const auto& line : result.log) {
        if (isWarning(line)) result.warnings.push_back(messageOf(line));
    }
    if (!result.playList) {
        result.error = std::string("the library refuses to write this ") +
                       (result.isMaster ? "master" : "media") + " playlist";
        if (!result.warnings.empty()) result.error += ": " + result.warnings.back();
    }
    return result;
}

int rewriteCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    std::optional<std::string> source;
    std::optional<std::string> baseUrlText;
    long stream = 0;
    std::int32_t bitrate = MasterPlayList::defaultBitrate;
    bool verbose = false;
    std::optional<std::string> throughLoaderUrl; // see ThroughLoader.h
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "--help" || arg == "-h") {
            out << rewriteUsage;
            return 0;
        }
        if (arg == "--verbose") {
            verbose = true;
            continue;
        }
        if (arg == "--through-loader") {
            if (i + 1 >= args.size()) {
                err << "ovalto rewrite: " << arg << " needs a value\n";
                return 2;
            }
            throughLoaderUrl = args[++i];
            continue;
        }
        if (arg == "--base-url" || arg == "--stream" || arg == "--bitrate") {
            if (i + 1 >= args.size()) {
                err << "ovalto rewrite: " << arg << " needs a value\n";
                return 2;
            }
            const std::string& value = args[++i];
            if (arg == "--base-url") {
                baseUrlText = value;
            } else if (arg == "--stream") {
                const auto number = integerArgument<long>(value);
                if (!number || *number < 0) {
                    err << "ovalto rewrite: --stream takes a stream index (0 or more), not '" << value
                        << "'\n";
                    return 2;
                }
                stream = *number;
            } else {
                const auto number = integerArgument<std::int32_t>(value);
                if (!number) {
                    err << "ovalto rewrite: --bitrate takes a 32-bit integer, not '" << value << "'\n";
                    return 2;
                }
                bitrate = *number;
            }
            continue;
        }
        if (arg.starts_with("-") && arg != "-") {
            err << "ovalto rewrite: unknown option " << arg << "\n\n" << rewriteUsage;
            return 2;
        }
        if (source) {
            err << "ovalto rewrite: one playlist at a time (got '" << *source << "' and '" << arg << "')\n";
            return 2;
        }
        source = arg;
    }
    if (throughLoaderUrl) {
        if (source) {
            err << "ovalto rewrite: --through-loader takes its URL alone (got '" << *source << "' too)\n";
            return 2;
        }
        return throughLoader(*throughLoaderUrl, verbose, out, err);
    }
    if (!source) {
        err << "ovalto rewrite: which playlist? Give a FILE or an http(s) URL.\n\n" << rewriteUsage;
        return 2;
    }

    std::optional<platform::Url> baseUrl;
    if (baseUrlText) {
        baseUrl = platform::Url::parse(*baseUrlText);
        if (!baseUrl || !baseUrl->scheme()) {
            err << "ovalto rewrite: --base-url needs an absolute URL, not '" << *baseUrlText << "'\n";
            return 2;
        }
    }
    Input input;
    if (isRemote(*source)) {
        const auto url = platform::Url::parse(*source);
        if (!url) {
            err << "ovalto rewrite: '" << *source << "' is not a valid URL\n";
            return 2;
        }
        input = download(*url);
    } else {
        input = readInputFile(*source);
    }
    if (!input.text) {
        err << "ovalto rewrite: " << input.error << "\n";
        return 1;
    }

    // The debug log holds the whole playlist twice; only --verbose wants it.
    const OVALogLevel savedLevel = Ovalto::logLevel.load();
    Ovalto::logLevel = verbose ? OVALogLevel::debug : OVALogLevel::warning;
    const Rewritten result = rewritePlayList(*input.text, baseUrl ? *baseUrl : *input.url, stream, bitrate);
    Ovalto::logLevel = savedLevel;
    if (verbose) {
        for (const auto& line : result.log)
            err << line << "\n";
    } else {
        // A refusal's own warning is told once, in the error below.
        const std::size_t told =
            result.playList ? result.warnings.size()
                            : result.warnings.size() - std::min<std::size_t>(result.warnings.size(), 1);
        for (std::size_t i = 0; i < told; ++i)
            err << "ovalto rewrite: warning: " << result.warnings[i] << "\n";
    }
    if (!result.playList) {
        err << "ovalto rewrite: " << *source << ": " << result.error << "\n";
        return 1;
    }
    out << *result.playList << "\n";
    return 0;
}

namespace {

CommandRegistrar registrar(
    {"rewrite", "print the playlist the player would receive for an HLS playlist (file or URL)",
     [](const std::vector<std::string>& args) { return rewriteCommand(args, std::cout, std::cerr); }});

} // namespace

} // namespace ovalto::tool
