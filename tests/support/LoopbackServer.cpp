#include "support/LoopbackServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

namespace ovalto::test {

LoopbackServer::LoopbackServer(const Routes& routes) {
    server_.set_pre_routing_handler([this](const httplib::Request& request, httplib::Response&) {
        std::lock_guard lock(mutex_);
        connections_.emplace(request.remote_addr, request.remote_port);
        return httplib::Server::HandlerResponse::Unhandled;
    });
    // Idle keep-alive connections hold the server's stop() for this long.
    server_.set_keep_alive_timeout(1);
    // Headers and body go out in separate writes; without this each answer waits out the
    // client's delayed acknowledgement.
    server_.set_tcp_nodelay(true);
    server_.set_payload_max_length(64 << 20);
    if (routes) routes(server_);
    port_ = server_.bind_to_any_port("127.0.0.1");
    if (port_ <= 0) throw std::runtime_error("cannot bind a loopback port");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    // Connections queue on the bound socket anyway; waiting keeps stop() from racing the start.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!server_.is_running() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

LoopbackServer::~LoopbackServer() {
    server_.stop();
    thread_.join();
}

SilentListener::SilentListener() {
    socket_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (socket_ < 0 || ::bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(socket_, 16) != 0 ||
        ::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        if (socket_ >= 0) ::close(socket_);
        throw std::runtime_error("cannot listen on a loopback port");
    }
    port_ = ntohs(address.sin_port);
}

SilentListener::~SilentListener() {
    ::close(socket_);
}

} // namespace ovalto::test
