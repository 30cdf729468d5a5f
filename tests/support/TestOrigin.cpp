#include "support/TestOrigin.h"

#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>

#include <filesystem>
#include <string>

namespace ovalto::test {

namespace {

int portOf(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET) return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
    if (address.ss_family == AF_INET6) return ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
    return -1;
}

// cpp-httplib cannot abandon a request without answering it, so the connection's socket is found
// by its two ports and shut down; the reply httplib then writes goes nowhere.
void dropConnection(const httplib::Request& request) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
        const int fd = std::stoi(entry.path().filename().string());
        sockaddr_storage local{}, peer{};
        socklen_t localLength = sizeof(local), peerLength = sizeof(peer);
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLength) != 0 ||
            ::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0)
            continue;
        if (portOf(local) == request.local_port && portOf(peer) == request.remote_port) {
            ::shutdown(fd, SHUT_RDWR);
            return;
        }
    }
}

} // namespace

std::vector<std::string> TestOrigin::Request::values(std::string_view name) const {
    std::vector<std::string> found;
    for (const auto& [field, value] : headers) {
        if (field.size() == name.size() && ::strncasecmp(field.data(), name.data(), name.size()) == 0)
            found.push_back(value);
    }
    return found;
}

TestOrigin::TestOrigin()
    : server_([this](httplib::Server& server) {
        // httplib writes headers and body apart; Nagle and delayed ACKs would stall each answer.
        server.set_tcp_nodelay(true);
        server.Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
            handle(request, response);
        });
    }) {}

TestOrigin::~TestOrigin() {
    {
        std::lock_guard lock(mutex_);
        stopped_ = true;
    }
    stopping_.notify_all();
}

void TestOrigin::serve(const std::string& path, std::string body, std::string contentType) {
    std::lock_guard lock(mutex_);
    auto& route = routes_[path];
    route.body = std::move(body);
    route.contentType = std::move(contentType);
}

void TestOrigin::script(const std::string& path, std::vector<Reply> replies) {
    std::lock_guard lock(mutex_);
    auto& route = routes_[path];
    route.replies = std::move(replies);
    route.served = 0;
}

int TestOrigin::requestCount(const std::string& path) const {
    std::lock_guard lock(mutex_);
    auto it = routes_.find(path);
    return it == routes_.end() ? 0 : static_cast<int>(it->second.requests.size());
}

std::vector<TestOrigin::Request> TestOrigin::requests(const std::string& path) const {
    std::lock_guard lock(mutex_);
    auto it = routes_.find(path);
    return it == routes_.end() ? std::vector<Request>{} : it->second.requests;
}

void TestOrigin::handle(const httplib::Request& request, httplib::Response& response) {
    Reply reply;
    std::string body, contentType;
    {
        std::unique_lock lock(mutex_);
        auto& route = routes_[request.path];
        Request record{request.path, {}, {request.headers.begin(), request.headers.end()}};
        if (auto question = request.target.find('?'); question != std::string::npos)
            record.query = request.target.substr(question + 1);
        route.requests.push_back(std::move(record));
        if (!route.replies.empty()) {
            reply = route.replies[std::min(route.served, route.replies.size() - 1)];
            ++route.served;
        }
        if (route.contentType.empty()) reply.status = reply.status == 200 ? 404 : reply.status;
        body = route.body;
        contentType = route.contentType;
        if (reply.delay.count() > 0) stopping_.wait_for(lock, reply.delay, [this] { return stopped_; });
    }

    switch (reply.fault) {
    case Fault::drop:
        dropConnection(request);
        response.status = 500;
        return;
    case Fault::truncate:
        response.status = reply.status;
        response.set_content_provider(body.size(), contentType,
                                      [body](std::size_t, std::size_t, httplib::DataSink& sink) {
                                          sink.write(body.data(), body.size() / 2);
                                          return false;
                                      });
        return;
    case Fault::none:
        response.status = reply.status;
        if (reply.status >= 200 && reply.status < 300) response.set_content(body, contentType.c_str());
        return;
    }
}

} // namespace ovalto::test
