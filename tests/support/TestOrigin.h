#pragma once

#include "support/LoopbackServer.h"

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ovalto::test {

// An HLS origin on 127.0.0.1 that serves fixed bodies by path and can be told to misbehave per
// path: a sequence of replies (503, 503, 503, 200 …; the last one repeats), each with a delay,
// a dropped connection or a truncated body. It counts and records the requests of every path.
class TestOrigin {
public:
    enum class Fault {
        none,
        drop,     // the connection is closed without any answer
        truncate, // headers announce the whole body, half of it is sent, then the connection closes
    };
    struct Reply {
        int status = 200;
        std::chrono::milliseconds delay{0};
        Fault fault = Fault::none;
    };
    struct Request {
        std::string path;
        std::string query;
        // As received, names as the client wrote them (httplib lists them sorted by name).
        std::vector<std::pair<std::string, std::string>> headers;

        // Every value of `name` (case-insensitive), one entry per header line.
        std::vector<std::string> values(std::string_view name) const;
    };

    TestOrigin();
    // Delayed replies are cut short, so that tear-down never waits for them.
    ~TestOrigin();
    TestOrigin(const TestOrigin&) = delete;
    TestOrigin& operator=(const TestOrigin&) = delete;

    // "http://127.0.0.1:<port><path>"
    std::string url(std::string_view path) const { return server_.url(path); }

    // Serves `body` at `path` (the path without a query). Unknown paths get 404.
    void serve(const std::string& path, std::string body,
               std::string contentType = "application/vnd.apple.mpegurl");
    // Replies for the next requests of `path`, in order; the last one repeats. Clears earlier ones.
    void script(const std::string& path, std::vector<Reply> replies);

    int requestCount(const std::string& path) const;
    std::vector<Request> requests(const std::string& path) const;

private:
    struct Route {
        std::string body;
        std::string contentType;
        std::vector<Reply> replies;
        std::size_t served = 0;
        std::vector<Request> requests;
    };
    void handle(const httplib::Request& request, httplib::Response& response);

    mutable std::mutex mutex_;
    std::condition_variable stopping_;
    bool stopped_ = false;
    std::map<std::string, Route, std::less<>> routes_;
    LoopbackServer server_; // last: stops before the routes go
};

} // namespace ovalto::test
