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
#include <fcntl.h>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

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

// A file's bytes mapped read-only: no copy, and the kernel maps the cached pages in one pass
// instead of a fault per page, which on a long playlist costs more than parsing it.
class FileMapping {
public:
    FileMapping() = default;
    FileMapping(const FileMapping&) = delete;
    FileMapping& operator=(const FileMapping&) = delete;
    ~FileMapping() {
        if (address_ != MAP_FAILED) ::munmap(address_, size_);
    }

    // False (errno set) when `descriptor` cannot be mapped: an empty file, a pipe.
    bool map(int descriptor, std::size_t size) {
        if (size == 0) return false;
        void* address = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, descriptor, 0);
        if (address == MAP_FAILED) return false;
        address_ = address;
        size_ = size;
        return true;
    }
    std::string_view text() const {
        return address_ == MAP_FAILED ? std::string_view()
                                      : std::string_view(static_cast<const char*>(address_), size_);
    }

private:
    void* address_ = MAP_FAILED;
    std::size_t size_ = 0;
};

// The playlist's bytes, in `copy` or `mapping`.
struct Input {
    std::optional<std::string> copy;
    std::unique_ptr<FileMapping> mapping;
    std::optional<platform::Url> url; // where it came from
    std::string error;

    bool hasText() const { return copy || mapping; }
    std::string_view text() const { return mapping ? mapping->text() : std::string_view(*copy); }
    void keep(std::string bytes) { copy = std::move(bytes); }
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
        input.keep(*result.value->first);
    }
    return input;
}

Input readInputFile(const std::string& path) {
    Input input;
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        input.error = "cannot read " + path + ": " + std::strerror(errno);
        return input;
    }
    struct stat status {};
    auto mapping = std::make_unique<FileMapping>();
    if (::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) &&
        mapping->map(descriptor, static_cast<std::size_t>(status.st_size))) {
        ::close(descriptor);
        input.mapping = std::move(mapping);
        input.url = platform::Url::fileUrl(path);
        return input;
    }
    // Anything else (an empty file, a pipe) is read to its end.
    std::string text;
    char chunk[65536];
    for (;;) {
        const ssize_t count = ::read(descriptor, chunk, sizeof chunk);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) {
            input.error = "cannot read " + path + ": " + std::strerror(errno);
            ::close(descriptor);
            return input;
        }
        if (count == 0) break;
        text.append(chunk, static_cast<std::size_t>(count));
    }
    ::close(descriptor);
    input.keep(std::move(text));
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
                          std::int32_t bitrate, const std::function<void(std::string_view)>* sink) {
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
        result.written = result.playList.has_value();
        if (sink != nullptr && result.playList) (*sink)(*std::exchange(result.playList, std::nullopt));
    } else {
        Representation representation;
        representation.streamIndex.set(stream);
        representation.bitrate.set(bitrate);
        MediaPlayList media;
        if (media.parsePlayList(text, baseUrl, representation)) {
            // Unless the debug log is to show it, a long playlist goes out as it is written.
            if (sink != nullptr && OVALogThreshold.load() > OVALogLevel::debug) {
                result.written = media.writePlayList(representation, *sink);
            } else {
                result.playList = media.generatePlayList(representation);
                result.written = result.playList.has_value();
                if (sink != nullptr && result.playList)
                    (*sink)(*std::exchange(result.playList, std::nullopt));
            }
        }
    }
    result.log = log.lines();
    for (const auto& line : result.log) {
        if (isWarning(line)) result.warnings.push_back(messageOf(line));
    }
    if (!result.written) {
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
    if (!input.hasText()) {
        err << "ovalto rewrite: " << input.error << "\n";
        return 1;
    }

    // The debug log holds the whole playlist twice; only --verbose wants it.
    const OVALogLevel savedLevel = Ovalto::logLevel.load();
    Ovalto::logLevel = verbose ? OVALogLevel::debug : OVALogLevel::warning;
    // The playlist is printed as it is written; nothing is when the library refuses it.
    const std::function<void(std::string_view)> print = [&out](std::string_view piece) {
        out.write(piece.data(), static_cast<std::streamsize>(piece.size()));
    };
    const Rewritten result =
        rewritePlayList(input.text(), baseUrl ? *baseUrl : *input.url, stream, bitrate, &print);
    Ovalto::logLevel = savedLevel;
    if (result.written) out << "\n";
    if (verbose) {
        for (const auto& line : result.log)
            err << line << "\n";
    } else {
        // A refusal's own warning is told once, in the error below.
        const std::size_t told =
            result.written ? result.warnings.size()
                           : result.warnings.size() - std::min<std::size_t>(result.warnings.size(), 1);
        for (std::size_t i = 0; i < told; ++i)
            err << "ovalto rewrite: warning: " << result.warnings[i] << "\n";
    }
    if (!result.written) {
        err << "ovalto rewrite: " << *source << ": " << result.error << "\n";
        return 1;
    }
    return 0;
}

namespace {

CommandRegistrar registrar(
    {"rewrite", "print the playlist the player would receive for an HLS playlist (file or URL)",
     [](const std::vector<std::string>& args) { return rewriteCommand(args, std::cout, std::cerr); }});

} // namespace

} // namespace ovalto::tool
