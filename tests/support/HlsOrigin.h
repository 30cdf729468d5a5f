#pragma once

#include "support/LoopbackServer.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ovalto::test {

// An HLS origin on 127.0.0.1 for player tests. Presentations are built in memory in the shapes
// real streams have (variants, audio renditions, #EXT-X-MAP, byte ranges, keys, a live window
// that advances with time); single paths can be slowed down or removed; every request is
// recorded with the bytes it was answered with. Range requests are answered with 206.
class HlsOrigin {
public:
    struct Served {
        std::string path;
        std::optional<std::string> range;  // the Range header
        std::optional<std::string> cookie; // the Cookie header
        int status = 0;
        std::size_t bytes = 0; // body bytes of the answer
        std::chrono::steady_clock::time_point at;
    };

    // A VOD presentation published under /<name>/ with its master at /<name>/master.m3u8:
    // video/<bandwidth>/media.m3u8 with init.mp4 and seg<i>.m4s (the last variant takes its
    // segments as byte ranges of one main.mp4 when `byteRanges`), audio/<i>/media.m3u8 likewise.
    struct Vod {
        std::vector<std::int64_t> bandwidths = {800000, 2000000};
        int segments = 4;
        double segmentDuration = 1.0;
        std::vector<std::string> audio = {"English"}; // rendition NAMEs; the first is DEFAULT=YES
        bool byteRanges = false;
        std::size_t segmentBytes = 1000; // of the first variant; later ones are larger
        // Key URIs; the video segments are split evenly between them, in order.
        std::vector<std::string> keyUris;
    };

    HlsOrigin();
    ~HlsOrigin();
    HlsOrigin(const HlsOrigin&) = delete;
    HlsOrigin& operator=(const HlsOrigin&) = delete;

    // "http://127.0.0.1:<port><path>"
    std::string url(std::string_view path) const { return server_.url(path); }

    void serve(const std::string& path, std::string body);
    void publish(const std::string& name, const Vod& vod);
    // A single media playlist at /<name>/live.m3u8 whose window of `window` segments advances by
    // one segment every `segmentDuration` seconds of real time; segments /<name>/seg<n>.ts.
    void publishLive(const std::string& name, double segmentDuration, int window, std::size_t segmentBytes);
    // A media playlist at /<name>/media.m3u8 of `segments` segments, without renditions.
    void publishMedia(const std::string& name, int segments, double segmentDuration,
                      std::size_t segmentBytes);
    // The answer to `path` takes about `duration` to send.
    void throttle(const std::string& path, std::chrono::milliseconds duration);
    // `path` answers 404 from now on.
    void remove(const std::string& path);

    // The body of a published path (what a test delegate serves from memory).
    std::optional<std::string> body(const std::string& path) const;
    std::vector<Served> served() const;
    // Segments and initialisation sections (not playlists or keys).
    static bool isMedia(std::string_view path);

private:
    struct Route {
        std::string body;
        std::function<std::string()> generate; // bodies that change with time
        std::chrono::milliseconds throttle{0};
    };
    void handle(const httplib::Request& request, httplib::Response& response);
    std::optional<Route> route(const std::string& path) const;

    const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
    mutable std::mutex mutex_;
    std::condition_variable stopping_;
    bool stopped_ = false;
    std::map<std::string, Route, std::less<>> routes_;
    // Paths below a prefix made on request: prefix -> body for the rest of the path.
    std::map<std::string, std::function<std::optional<std::string>(const std::string&)>, std::less<>>
        generated_;
    std::vector<Served> served_;
    LoopbackServer server_; // last: stops before the routes go
};

} // namespace ovalto::test
