#include "Origin.h"

#include "Bridge/ExclusivePort.h"

#include <httplib.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

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

// The body bytes an answer to `range` carries ("bytes=a-b" or "bytes=a-").
std::size_t rangeLength(const std::string& range, std::size_t size) {
    unsigned long long first = 0;
    unsigned long long last = 0;
    const int fields = std::sscanf(range.c_str(), "bytes=%llu-%llu", &first, &last);
    if (fields < 1 || first >= size) return 0;
    if (fields < 2 || last >= size) last = size - 1;
    return last >= first ? static_cast<std::size_t>(last - first + 1) : 0;
}

int portOf(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET) return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
    if (address.ss_family == AF_INET6) return ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
    return -1;
}

// cpp-httplib cannot abandon a request without answering it, so the connection's socket is found
// by its two ports, sent `raw` and closed (reset when asked) by putting an unconnected socket in
// its place: httplib's own reply then goes nowhere, and its close closes the stand-in.
void endConnection(const httplib::Request& request, const std::string& raw, bool reset) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
        const int fd = std::atoi(entry.path().filename().c_str());
        sockaddr_storage local{}, peer{};
        socklen_t localLength = sizeof(local), peerLength = sizeof(peer);
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLength) != 0 ||
            ::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0 ||
            portOf(local) != request.local_port || portOf(peer) != request.remote_port)
            continue;
        for (std::size_t sent = 0; sent < raw.size();) {
            const auto put = ::send(fd, raw.data() + sent, raw.size() - sent, MSG_NOSIGNAL);
            if (put <= 0) break;
            sent += static_cast<std::size_t>(put);
        }
        if (reset) {
            const linger abort{1, 0};
            ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
        }
        const int standIn = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (standIn < 0 || ::dup2(standIn, fd) < 0) ::shutdown(fd, SHUT_RDWR);
        if (standIn >= 0) ::close(standIn);
        return;
    }
}

} // namespace

std::vector<std::string> Origin::Exchange::values(std::string_view name) const {
    std::vector<std::string> found;
    for (const auto& [field, value] : headers) {
        if (field.size() == name.size() && ::strncasecmp(field.data(), name.data(), name.size()) == 0)
            found.push_back(value);
    }
    return found;
}

struct Origin::Impl {
    struct Route {
        std::optional<std::string> body; // none: only scripted replies
        std::function<std::string()> make;
        std::string contentType;
        struct Script {
            std::vector<Reply> replies;
            std::size_t answered = 0; // requests that took a reply of it
        };
        std::map<std::string, Script> scripts; // by method; "" for any
        std::chrono::milliseconds throttle{0};
    };

    Options options;
    httplib::Server server;
    ExclusivePort exclusive{server};
    std::thread thread;
    std::atomic<int> port{0};

    mutable std::mutex mutex;
    std::condition_variable stopping;
    bool stopped = false;
    bool down = false;
    std::map<std::string, Route, std::less<>> routes;
    std::map<std::string, std::function<std::optional<std::string>(const std::string&)>, std::less<>> below;
    std::vector<Exchange> log;

    bool bind(std::string* error) {
        // httplib writes the headers and the body of an answer apart. With Nagle's algorithm on,
        // the body of every answer after the first on a kept-alive connection waits for the
        // client's delayed acknowledgement of the headers, some 40 ms.
        server.set_tcp_nodelay(true);
        // Idle keep-alive connections hold stop() for this long.
        server.set_keep_alive_timeout(1);
        // A player keeps a connection open per rendition it reads, and an idle kept-alive
        // connection holds a thread until it times out: httplib's 8 threads stall ffmpeg for 5 s.
        server.new_task_queue = [] { return std::make_unique<httplib::ThreadPool>(32).release(); };
        if (!options.directory.empty() && !std::filesystem::is_directory(options.directory)) {
            if (error) *error = "cannot serve " + options.directory + ": not a readable directory";
            return false;
        }
        server.set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
            handle(request, response);
            return httplib::Server::HandlerResponse::Handled;
        });
        int bound = options.port == 0 ? server.bind_to_any_port(options.host)
                                      : (server.bind_to_port(options.host, options.port) ? options.port : -1);
        if (bound <= 0) {
            if (error) *error = "cannot listen on " + options.host + ":" + std::to_string(options.port);
            return false;
        }
        exclusive.deepen();
        port = bound;
        return true;
    }

    // What the directory holds at `path`, live-windowed in live mode.
    std::optional<std::string> fromDirectory(const std::string& path) const {
        if (options.directory.empty() || path.find("..") != std::string::npos) return std::nullopt;
        std::ifstream file(options.directory + path, std::ios::binary);
        if (!file || std::filesystem::is_directory(options.directory + path)) return std::nullopt;
        std::string body((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        if (!options.live || !endsWith(path, ".m3u8")) return body;
        const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::system_clock::now() - options.liveEpoch);
        return liveWindow(body, elapsed, options.liveWindow).value_or(body); // a master as it is
    }

    // Under the lock: the body of `path` and its type, if it has one.
    std::optional<std::pair<std::string, std::string>> find(const std::string& path) const {
        if (auto found = routes.find(path); found != routes.end()) {
            const Route& route = found->second;
            std::string type = route.contentType.empty() ? contentType(path) : route.contentType;
            if (route.make) return std::pair{route.make(), type};
            if (route.body) return std::pair{*route.body, type};
            return std::nullopt;
        }
        for (const auto& [prefix, make] : below) {
            if (!startsWith(path, prefix)) continue;
            if (auto body = make(path.substr(prefix.size())))
                return std::pair{std::move(*body), contentType(path)};
        }
        if (auto body = fromDirectory(path)) return std::pair{std::move(*body), contentType(path)};
        return std::nullopt;
    }

    void handle(const httplib::Request& request, httplib::Response& response) {
        Exchange exchange{request.path,
                          {},
                          {request.headers.begin(), request.headers.end()},
                          {},
                          {},
                          404,
                          0,
                          std::chrono::steady_clock::now()};
        if (auto question = request.target.find('?'); question != std::string::npos)
            exchange.query = request.target.substr(question + 1);
        if (request.has_header("Range")) exchange.range = request.get_header_value("Range");
        if (request.has_header("Cookie")) exchange.cookie = request.get_header_value("Cookie");

        Reply reply;
        std::optional<std::pair<std::string, std::string>> content;
        std::chrono::milliseconds throttle{0};
        bool ends = false; // the connection ends without an HTTP answer of ours
        {
            std::unique_lock lock(mutex);
            if (down) reply.fault = Fault::drop;
            auto route = routes.find(request.path);
            if (!down && route != routes.end()) {
                auto& scripts = route->second.scripts;
                auto script = scripts.find(request.method);
                if (script == scripts.end()) script = scripts.find("");
                if (script != scripts.end() && !script->second.replies.empty()) {
                    const auto& replies = script->second.replies;
                    reply = replies[std::min(script->second.answered++, replies.size() - 1)];
                }
            }
            if (route != routes.end()) throttle = route->second.throttle;
            ends = reply.fault == Fault::drop || reply.fault == Fault::raw || reply.fault == Fault::reset;
            if (!ends && request.method != "POST") content = find(request.path);
            if (!content && reply.status >= 200 && reply.status < 300) reply.status = 404;
            exchange.status = ends ? 0 : reply.status;
            if (reply.status >= 200 && reply.status < 300 && content) {
                exchange.bytes = content->first.size();
                if (exchange.range) {
                    exchange.status = 206;
                    exchange.bytes = rangeLength(*exchange.range, content->first.size());
                }
                if (reply.fault == Fault::truncate) exchange.bytes /= 2;
            }
            log.push_back(exchange);
            if (reply.delay.count() > 0) stopping.wait_for(lock, reply.delay, [this] { return stopped; });
        }
        if (options.onRequest)
            options.onRequest(request.method, request.path, exchange.status, exchange.bytes);
        if (options.closeConnections) response.set_header("Connection", "close");

        if (ends) {
            endConnection(request, reply.raw, reply.fault == Fault::reset);
            response.status = 500;
            return;
        }
        response.status = reply.status;
        if (!content || reply.status < 200 || reply.status > 299) return;
        if (live(request.path)) response.set_header("Cache-Control", "no-cache");
        // Named variables, not a structured binding: the lambdas below capture them.
        std::string body = std::move(content->first);
        const std::string type = std::move(content->second);
        if (reply.fault == Fault::truncate) {
            response.set_content_provider(body.size(), type,
                                          [body](std::size_t, std::size_t, httplib::DataSink& sink) {
                                              sink.write(body.data(), body.size() / 2);
                                              return false;
                                          });
            return;
        }
        if (throttle.count() == 0) {
            response.set_content(body, type.c_str());
            return;
        }
        // Sent in pieces spread over the throttle time; cpp-httplib applies the range to the offsets.
        const auto size = body.size();
        response.set_content_provider(
            size, type,
            [this, body = std::move(body), throttle](std::size_t offset, std::size_t length,
                                                     httplib::DataSink& sink) {
                constexpr int pieces = 10;
                const std::size_t piece = std::max<std::size_t>(1, (length + pieces - 1) / pieces);
                for (std::size_t sent = 0; sent < length; sent += piece) {
                    {
                        std::unique_lock lock(mutex);
                        if (stopping.wait_for(lock, throttle / pieces, [this] { return stopped; }))
                            return false;
                    }
                    if (!sink.write(body.data() + offset + sent, std::min(piece, length - sent)))
                        return false;
                }
                return true;
            });
    }

    bool live(const std::string& path) const { return options.live && endsWith(path, ".m3u8"); }
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
    // The socket already listens, so clients may connect before the accept loop runs; waiting
    // for it keeps a quick stop() from racing the start (httplib ignores a stop before it runs).
    impl_->thread = std::thread([this] { impl_->server.listen_after_bind(); });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!impl_->server.is_running() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return true;
}

bool Origin::listen(std::string* error) {
    if (!impl_->bind(error)) return false;
    return impl_->server.listen_after_bind();
}

void Origin::stop() {
    {
        std::lock_guard lock(impl_->mutex);
        impl_->stopped = true;
    }
    impl_->stopping.notify_all();
    impl_->server.stop();
    if (impl_->thread.joinable()) impl_->thread.join();
}

int Origin::port() const {
    return impl_->port;
}

std::string Origin::baseUrl() const {
    return "http://" + impl_->options.host + ":" + std::to_string(port()) + "/";
}

std::string Origin::url(std::string_view path) const {
    return "http://" + impl_->options.host + ":" + std::to_string(port()) + std::string(path);
}

void Origin::serve(const std::string& path, std::string body, std::string contentType) {
    std::lock_guard lock(impl_->mutex);
    auto& route = impl_->routes[path];
    route.body = std::move(body);
    route.make = nullptr;
    route.contentType = std::move(contentType);
}

void Origin::serveBelow(const std::string& prefix,
                        std::function<std::optional<std::string>(const std::string& rest)> make) {
    std::lock_guard lock(impl_->mutex);
    impl_->below[prefix] = std::move(make);
}

void Origin::serveMade(const std::string& path, std::function<std::string()> make) {
    std::lock_guard lock(impl_->mutex);
    impl_->routes[path].make = std::move(make);
}

void Origin::remove(const std::string& path) {
    std::lock_guard lock(impl_->mutex);
    auto& route = impl_->routes[path];
    route.body.reset();
    route.make = nullptr;
}

std::optional<std::string> Origin::body(const std::string& path) const {
    std::lock_guard lock(impl_->mutex);
    auto found = impl_->find(path);
    if (!found) return std::nullopt;
    return std::move(found->first);
}

void Origin::script(const std::string& path, std::vector<Reply> replies, const std::string& method) {
    std::lock_guard lock(impl_->mutex);
    impl_->routes[path].scripts[method] = {std::move(replies), 0};
}

void Origin::throttle(const std::string& path, std::chrono::milliseconds duration) {
    std::lock_guard lock(impl_->mutex);
    impl_->routes[path].throttle = duration;
}

void Origin::setDown(bool down) {
    std::lock_guard lock(impl_->mutex);
    impl_->down = down;
}

std::vector<Origin::Exchange> Origin::requests() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->log;
}

std::vector<Origin::Exchange> Origin::requests(const std::string& path) const {
    std::lock_guard lock(impl_->mutex);
    std::vector<Exchange> found;
    for (const auto& exchange : impl_->log)
        if (exchange.path == path) found.push_back(exchange);
    return found;
}

int Origin::requestCount(const std::string& path) const {
    std::lock_guard lock(impl_->mutex);
    return static_cast<int>(std::count_if(impl_->log.begin(), impl_->log.end(),
                                          [&](const Exchange& exchange) { return exchange.path == path; }));
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
