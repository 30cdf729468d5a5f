#pragma once

#include <httplib.h>

#include <cstddef>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

namespace ovalto::test {

// A real HTTP server on 127.0.0.1 at an ephemeral port, serving from a background thread for as
// long as the object lives. Routes are installed before it starts, so handlers never change
// while requests are served.
class LoopbackServer {
public:
    using Routes = std::function<void(httplib::Server&)>;

    explicit LoopbackServer(const Routes& routes);
    ~LoopbackServer();

    int port() const { return port_; }
    // "http://127.0.0.1:<port>"
    std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_); }
    // The base URL followed by `path` (which starts with "/").
    std::string url(std::string_view path) const { return baseUrl() + std::string(path); }
    // How many distinct client connections have sent requests so far.
    std::size_t connectionCount() const {
        std::lock_guard lock(mutex_);
        return connections_.size();
    }

private:
    httplib::Server server_;
    int port_ = -1;
    std::thread thread_;
    mutable std::mutex mutex_;
    std::set<std::pair<std::string, int>> connections_;
};

// A socket on 127.0.0.1 that listens but never accepts: connections complete in the kernel and
// then nothing is ever answered, the way a hung server looks to a client.
class SilentListener {
public:
    SilentListener();
    ~SilentListener();
    SilentListener(const SilentListener&) = delete;
    SilentListener& operator=(const SilentListener&) = delete;

    int port() const { return port_; }
    std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_); }

private:
    int socket_ = -1;
    int port_ = -1;
};

} // namespace ovalto::test
