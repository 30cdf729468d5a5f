#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace ovalto::tool {

// An HLS origin on loopback: serves a presentation directory over HTTP with the right content
// types. In live mode every media playlist becomes a sliding window that advances in real time
// over its VOD segments (looping, with a discontinuity at each wrap), so a VOD directory can
// stand in for a live stream. The window follows the wall clock from a fixed epoch, so that an
// origin restarted after an outage goes on with the same stream, as a real live origin does.
class Origin {
public:
    struct Options {
        std::string directory;
        std::string host = "127.0.0.1";
        int port = 0; // 0: any free port
        bool live = false;
        int liveWindow = 3; // segments per live playlist
        // Where the live timeline starts: media sequence 0 was published then.
        std::chrono::system_clock::time_point liveEpoch{};
        // Called for every request served: method, path, status, body bytes.
        std::function<void(const std::string&, const std::string&, int, std::size_t)> onRequest;
    };

    explicit Origin(Options options);
    ~Origin();
    Origin(const Origin&) = delete;
    Origin& operator=(const Origin&) = delete;

    // Binds and serves on a background thread; false (with `error` set) when it cannot bind.
    bool start(std::string* error = nullptr);
    // Serves on the calling thread until stop() (from another thread or a signal handler).
    bool listen(std::string* error = nullptr);
    void stop();
    int port() const;
    std::string baseUrl() const; // "http://127.0.0.1:<port>/"

    // The live window of a VOD media playlist `vod` at `elapsed` time since the live epoch.
    static std::optional<std::string> liveWindow(const std::string& vod, std::chrono::milliseconds elapsed,
                                                 int windowSegments);
    static std::string contentType(const std::string& path);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace ovalto::tool
