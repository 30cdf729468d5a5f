#include "Origin.h"

#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

namespace ovalto::tool {

namespace {

bool endsWith(const std::string& text, std::string_view suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool startsWith(const std::string& text, std::string_view prefix) {
    return text.rfind(prefix, 0) == 0;
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        result.push_back(line);
    }
    return result;
}

struct MimeEntry {
    const char* extension;
    const char* type;
};
constexpr MimeEntry mimeTypes[] = {
    {"m3u8", "application/vnd.apple.mpegurl"},
    {"m4s", "video/iso.segment"},
    {"mp4", "video/mp4"},
    {"m4a", "audio/mp4"},
    {"ts", "video/mp2t"},
    {"aac", "audio/aac"},
    {"vtt", "text/vtt"},
    {"webvtt", "text/vtt"},
    {"srt", "application/x-subrip"},
    {"ttml", "application/ttml+xml"},
    {"key", "application/octet-stream"},
};

} // namespace

struct Origin::Impl {
    Options options;
    httplib::Server server;
    std::thread thread;
    std::atomic<int> port{0};
    std::chrono::steady_clock::time_point startedAt = std::chrono::steady_clock::now();

    bool bind(std::string* error) {
        // httplib writes the headers and the body of an answer apart. With Nagle's algorithm on,
        // the body of every answer after the first on a kept-alive connection waits for the
        // client's delayed acknowledgement of the headers, some 40 ms.
        server.set_tcp_nodelay(true);
        // A player keeps a connection open per rendition it reads, and an idle kept-alive
        // connection holds a thread until it times out: httplib's 8 threads stall ffmpeg for 5 s.
        server.new_task_queue = [] { return std::make_unique<httplib::ThreadPool>(32).release(); };
        // Stopping waits for idle kept-alive connections (the library's own among them) to time out.
        server.set_keep_alive_timeout(1);
        for (const auto& entry : mimeTypes)
            server.set_file_extension_and_mimetype_mapping(entry.extension, entry.type);
        if (!server.set_mount_point("/", options.directory)) {
            if (error) *error = "cannot serve " + options.directory + ": not a readable directory";
            return false;
        }
        if (options.live) {
            server.set_pre_routing_handler(
                [this](const httplib::Request& request, httplib::Response& response) {
                    return serveLivePlaylist(request, response);
                });
        }
        if (options.onRequest) {
            server.set_logger([this](const httplib::Request& request, const httplib::Response& response) {
                options.onRequest(request.method, request.path, response.status, response.body.size());
            });
        }
        int bound = options.port == 0 ? server.bind_to_any_port(options.host)
                                      : (server.bind_to_port(options.host, options.port) ? options.port : -1);
        if (bound <= 0) {
            if (error) *error = "cannot listen on " + options.host + ":" + std::to_string(options.port);
            return false;
        }
        port = bound;
        startedAt = std::chrono::steady_clock::now();
        return true;
    }

    httplib::Server::HandlerResponse serveLivePlaylist(const httplib::Request& request,
                                                       httplib::Response& response) {
        if (request.method != "GET" || !endsWith(request.path, ".m3u8") ||
            request.path.find("..") != std::string::npos)
            return httplib::Server::HandlerResponse::Unhandled;
        std::ifstream file(options.directory + request.path, std::ios::binary);
        if (!file) return httplib::Server::HandlerResponse::Unhandled;
        std::string vod((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - startedAt);
        auto window = liveWindow(vod, elapsed, options.liveWindow);
        if (!window) return httplib::Server::HandlerResponse::Unhandled; // a master: served as it is
        response.set_header("Cache-Control", "no-cache");
        response.set_content(*window, contentType(request.path).c_str());
        return httplib::Server::HandlerResponse::Handled;
    }
};

Origin::Origin(Options options)
    : impl_(std::make_unique<Impl>()) {
    impl_->options = std::move(options);
}

Origin::~Origin() {
    stop();
}

bool Origin::start(std::string* error) {
    if (!impl_->bind(error)) return false;
    // The socket already listens, so clients may connect before the accept loop runs.
    impl_->thread = std::thread([this] { impl_->server.listen_after_bind(); });
    return true;
}

bool Origin::listen(std::string* error) {
    if (!impl_->bind(error)) return false;
    return impl_->server.listen_after_bind();
}

void Origin::stop() {
    impl_->server.stop();
    if (impl_->thread.joinable()) impl_->thread.join();
}

int Origin::port() const {
    return impl_->port;
}

std::string Origin::baseUrl() const {
    return "http://" + impl_->options.host + ":" + std::to_string(port()) + "/";
}

std::string Origin::contentType(const std::string& path) {
    auto dot = path.rfind('.');
    if (dot != std::string::npos) {
        auto extension = path.substr(dot + 1);
        for (const auto& entry : mimeTypes)
            if (extension == entry.extension) return entry.type;
    }
    return "application/octet-stream";
}

std::optional<std::string> Origin::liveWindow(const std::string& vod, std::chrono::milliseconds elapsed,
                                              int windowSegments) {
    // Split into the header (tags before the first segment) and segments (their tags and URI).
    std::vector<std::string> header;
    std::vector<std::vector<std::string>> segments;
    std::vector<std::string> pending;
    bool seenSegment = false;
    long targetDuration = 6;
    for (const auto& line : lines(vod)) {
        if (line.empty() || line == "#EXTM3U" || line == "#EXT-X-ENDLIST" ||
            startsWith(line, "#EXT-X-PLAYLIST-TYPE") || startsWith(line, "#EXT-X-MEDIA-SEQUENCE") ||
            startsWith(line, "#EXT-X-DISCONTINUITY-SEQUENCE"))
            continue;
        if (startsWith(line, "#EXT-X-TARGETDURATION:"))
            targetDuration = std::max(1L, std::atol(line.c_str() + 22));
        if (startsWith(line, "#EXTINF")) seenSegment = true;
        if (!seenSegment) {
            header.push_back(line);
            continue;
        }
        pending.push_back(line);
        if (line[0] != '#') {
            segments.push_back(std::move(pending));
            pending.clear();
        }
    }
    if (segments.empty()) return std::nullopt;

    // A segment is published once the wall clock has passed its end on the looping timeline, so
    // renditions whose segments differ in length still advance at the pace of their media.
    std::vector<double> ends;
    double loop = 0;
    for (const auto& segment : segments) {
        double duration = 0;
        for (const auto& line : segment)
            if (startsWith(line, "#EXTINF:")) duration = std::atof(line.c_str() + 8);
        loop += duration > 0 ? duration : static_cast<double>(targetDuration);
        ends.push_back(loop);
    }
    const long count = static_cast<long>(segments.size());
    const long window = std::clamp<long>(windowSegments, 1, count);
    const double seconds = static_cast<double>(elapsed.count()) / 1000.0;
    const auto loops = static_cast<long>(seconds / loop);
    const double intoLoop = seconds - static_cast<double>(loops) * loop;
    const long done =
        static_cast<long>(std::upper_bound(ends.begin(), ends.end(), intoLoop + 1e-9) - ends.begin());
    const long edge = loops * count + done + window;
    const long first = edge - window;

    std::string out = "#EXTM3U\n";
    for (const auto& line : header)
        out += line + "\n";
    out += "#EXT-X-MEDIA-SEQUENCE:" + std::to_string(first) + "\n";
    out += "#EXT-X-DISCONTINUITY-SEQUENCE:" + std::to_string(first > 0 ? (first - 1) / count : 0) + "\n";
    for (long k = first; k < edge; ++k) {
        // Looping back to the first segment restarts the timestamps.
        if (k > 0 && k % count == 0) out += "#EXT-X-DISCONTINUITY\n";
        for (const auto& line : segments[static_cast<std::size_t>(k % count)])
            out += line + "\n";
    }
    return out;
}

} // namespace ovalto::tool
