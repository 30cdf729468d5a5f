#pragma once

#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace ovalto::test {

// An origin on 127.0.0.1 that answers each request with scripted raw bytes, for the faults an
// HTTP server library would never commit: garbage instead of HTTP, a broken chunked body, a
// connection reset in the middle of a body. One request per connection; the connection is then
// closed, or reset when the answer says so. A HEAD request without an answer of its own gets an
// empty 200 with an HLS content type, so that a probe of any URL finds a playlist.
class RawOrigin {
public:
    struct Answer {
        std::string bytes;
        bool reset = false; // end with a reset instead of an orderly close
    };

    RawOrigin();
    ~RawOrigin();
    RawOrigin(const RawOrigin&) = delete;
    RawOrigin& operator=(const RawOrigin&) = delete;

    // "http://127.0.0.1:<port><path>"
    std::string url(std::string_view path) const;
    // The answer to `method` requests of `path` (without a query). Unknown paths get 404.
    void answer(const std::string& method, const std::string& path, Answer answer);

    // A whole HTTP/1.1 answer with a Content-Length; `headers` are extra lines, each ending "\r\n".
    static std::string http(int status, std::string_view body, std::string_view headers = {});

private:
    void acceptLoop();
    void serve(int connection);

    int listener_ = -1;
    int port_ = 0;
    std::mutex mutex_;
    bool stopping_ = false;
    std::map<std::pair<std::string, std::string>, Answer> answers_;
    std::vector<std::thread> connections_;
    std::thread acceptor_;
};

} // namespace ovalto::test
