#include "RawOrigin.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <stdexcept>

namespace ovalto::test {

RawOrigin::RawOrigin() {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_, 64) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        throw std::runtime_error("cannot listen on 127.0.0.1");
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { acceptLoop(); });
}

RawOrigin::~RawOrigin() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    ::shutdown(listener_, SHUT_RDWR); // wakes accept()
    acceptor_.join();
    ::close(listener_);
    for (auto& connection : connections_)
        connection.join();
}

std::string RawOrigin::url(std::string_view path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
}

void RawOrigin::answer(const std::string& method, const std::string& path, Answer answer) {
    std::lock_guard lock(mutex_);
    answers_[{method, path}] = std::move(answer);
}

std::string RawOrigin::http(int status, std::string_view body, std::string_view headers) {
    return "HTTP/1.1 " + std::to_string(status) +
           " Scripted\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + std::string(headers) +
           "\r\n" + std::string(body);
}

void RawOrigin::acceptLoop() {
    for (;;) {
        const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        std::lock_guard lock(mutex_);
        if (stopping_) {
            if (connection >= 0) ::close(connection);
            return;
        }
        if (connection < 0) continue;
        connections_.emplace_back([this, connection] { serve(connection); });
    }
}

void RawOrigin::serve(int connection) {
    // A client that never finishes its request must not keep the origin from closing.
    timeval wait{5, 0};
    ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    std::string request;
    char buffer[4096];
    while (request.find("\r\n\r\n") == std::string::npos) {
        const auto got = ::recv(connection, buffer, sizeof buffer, 0);
        if (got <= 0) break;
        request.append(buffer, static_cast<std::size_t>(got));
    }
    const auto methodEnd = request.find(' ');
    const auto pathEnd = request.find_first_of(" ?", methodEnd + 1);
    Answer answer{http(404, "")};
    if (methodEnd != std::string::npos && pathEnd != std::string::npos) {
        const std::string method = request.substr(0, methodEnd);
        const std::string path = request.substr(methodEnd + 1, pathEnd - methodEnd - 1);
        std::lock_guard lock(mutex_);
        if (auto it = answers_.find({method, path}); it != answers_.end())
            answer = it->second;
        else if (method == "HEAD")
            answer = {http(200, "", "Content-Type: application/vnd.apple.mpegurl\r\n")};
        if (method == "HEAD" && answer.bytes.find("\r\n\r\n") != std::string::npos)
            answer.bytes.erase(answer.bytes.find("\r\n\r\n") + 4); // a HEAD answer has no body
    }
    for (std::size_t sent = 0; sent < answer.bytes.size();) {
        const auto put =
            ::send(connection, answer.bytes.data() + sent, answer.bytes.size() - sent, MSG_NOSIGNAL);
        if (put <= 0) break;
        sent += static_cast<std::size_t>(put);
    }
    if (answer.reset) {
        linger abort{1, 0};
        ::setsockopt(connection, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    }
    ::close(connection);
}

} // namespace ovalto::test
