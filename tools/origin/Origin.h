#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ovalto::tool {

// An HLS origin on loopback, for `ovalto serve` and for the tests. It serves a presentation
// directory and bodies given in memory (fixed, or made on request below a prefix) with the
// content types players expect; byte-range requests get 206. In live mode every media playlist
// of the directory becomes a sliding window that advances in real time over its VOD segments
// (looping, with a discontinuity at each wrap); the window follows the wall clock from a fixed
// epoch, so that an origin restarted after an outage goes on with the same stream, as a real
// live origin does.
//
// It misbehaves on demand: a script of replies per path (statuses, delays, dropped connections,
// truncated bodies, raw bytes that no HTTP server library would send), slow answers, and outages
// during which every connection is dropped. Every request is logged with its headers and what it
// was answered.
class Origin {
public:
    enum class Fault {
        none,
        drop,     // the connection is closed without any answer
        truncate, // headers announce the whole body, half of it is sent, then the connection closes
        raw,      // `raw` is sent as the whole answer (HTTP or not), then the connection closes
        reset,    // `raw` is sent, then the connection is reset instead of closed
    };
    struct Reply {
        int status = 200;
        std::chrono::milliseconds delay{0};
        Fault fault = Fault::none;
        std::string raw = {};
    };
    // One request and how it was answered.
    struct Exchange {
        std::string path;
        std::string query;
        // As received, names as the client wrote them (sorted by name).
        std::vector<std::pair<std::string, std::string>> headers;
        std::optional<std::string> range;  // the Range header
        std::optional<std::string> cookie; // the Cookie header
        int status = 0;                    // 0: the connection was dropped
        std::size_t bytes = 0;             // body bytes of the answer
        std::chrono::steady_clock::time_point at;

        // Every value of `name` (case-insensitive), one entry per header line.
        std::vector<std::string> values(std::string_view name) const;
    };
    struct Options {
        std::string directory; // empty: in-memory bodies only
        std::string host = "127.0.0.1";
        int port = 0; // 0: any free port
        bool live = false;
        int liveWindow = 3; // segments per live playlist
        // Where the live timeline starts: media sequence 0 was published then.
        std::chrono::system_clock::time_point liveEpoch{};
        // Each answer closes its connection, so that stopping never waits for idle clients.
        bool closeConnections = false;
        // Called for every request served: method, path, status, body bytes.
        std::function<void(const std::string&, const std::string&, int, std::size_t)> onRequest;
    };

    explicit Origin(Options options);
    // Delayed and slow answers are cut short, so that stopping never waits for them.
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
    // "http://127.0.0.1:<port><path>"
    std::string url(std::string_view path) const;

    // Serves `body` at `path` (without a query); an empty `contentType` goes by the extension.
    void serve(const std::string& path, std::string body, std::string contentType = {});
    // Paths below `prefix` get what `make` returns for the rest of the path; none: 404.
    void serveBelow(const std::string& prefix,
                    std::function<std::optional<std::string>(const std::string& rest)> make);
    // A body that changes with time (a live playlist).
    void serveMade(const std::string& path, std::function<std::string()> make);
    // `path` answers 404 from now on.
    void remove(const std::string& path);
    // The body `path` would be answered with now.
    std::optional<std::string> body(const std::string& path) const;

    // Replies for the next requests of `path`, in order; the last one repeats. Clears earlier ones
    // for the same `method`; with a method, only its requests take them (e.g. a GET that fails
    // while HEAD succeeds), and its script comes before one for any method.
    void script(const std::string& path, std::vector<Reply> replies, const std::string& method = {});
    // The answer to `path` takes about `duration` to send.
    void throttle(const std::string& path, std::chrono::milliseconds duration);
    // While down, every connection is dropped without an answer (and still logged).
    void setDown(bool down);

    std::vector<Exchange> requests() const;
    std::vector<Exchange> requests(const std::string& path) const;
    int requestCount(const std::string& path) const;

    // The live window of a VOD media playlist `vod` at `elapsed` time since the live epoch.
    static std::optional<std::string> liveWindow(const std::string& vod, std::chrono::milliseconds elapsed,
                                                 int windowSegments);
    static std::string contentType(const std::string& path);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace ovalto::tool
