// `ovalto serve` and `ovalto soak` as a user runs them: bad arguments get exit status 2 and a
// reason, and a scripted outage takes the origin away and brings it back.
#include "Command.h"
#include "Origin.h"
#include "support/CapturedStreams.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <sstream>
#include <thread>

using namespace ovalto::tool;
using ovalto::test::CapturedStreams;
using namespace std::chrono_literals;

namespace {

int freePort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), length);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

} // namespace

TEST(ToolArgumentsTest, BadUsageExitsWithTwoAndSaysWhy) {
    const struct {
        const char* command;
        std::vector<std::string> args;
        const char* reason;
    } cases[] = {
        {"serve", {"--outage"}, "--outage takes AT+LENGTH"},
        {"serve", {"--outage", "20"}, "--outage takes AT+LENGTH"},
        {"serve", {"--outage", "20+0"}, "--outage takes AT+LENGTH"},
        {"serve", {"--outage", "-1+2"}, "--outage takes AT+LENGTH"},
        {"serve", {"--outage", "20+1.2s"}, "--outage takes AT+LENGTH"},
        {"serve", {"--port", "70000"}, "--port takes a number"},
        {"serve", {"--window", "0"}, "--window takes a number"},
        {"serve", {"--bogus"}, "unknown option --bogus"},
        {"soak", {}, "a stream URL is needed"},
        {"soak", {"http://127.0.0.1:1/m.m3u8", "--duration"}, "--duration takes a time"},
        {"soak", {"http://127.0.0.1:1/m.m3u8", "--duration", "10d"}, "--duration takes a time"},
        {"soak", {"http://127.0.0.1:1/m.m3u8", "--interval", "0"}, "--interval takes a time"},
        {"soak", {"http://127.0.0.1:1/m.m3u8", "--duration", "-5m"}, "--duration takes a time"},
        {"soak", {"http://127.0.0.1:1/m.m3u8", "extra"}, "unexpected argument extra"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.command) + " " + (c.args.empty() ? "" : c.args.back()));
        const Command* command = findCommand(c.command);
        ASSERT_NE(command, nullptr);
        CapturedStreams streams;
        const int status = command->run(c.args);
        const std::string err = streams.err();
        EXPECT_EQ(status, 2);
        EXPECT_NE(err.find(c.reason), std::string::npos) << err;
    }
}

TEST(ServeCommandTest, ScriptedOutageDropsTheOriginAndBringsItBack) {
    const int port = freePort();
    int status = -1;
    CapturedStreams streams;
    pthread_t serving{};
    std::atomic<bool> started{false};
    std::thread server([&] {
        serving = pthread_self();
        started = true;
        status =
            findCommand("serve")->run({"--port", std::to_string(port), "--quiet", "--outage", "0.2+1.5"});
    });
    while (!started)
        std::this_thread::yield();

    // Down (a connection accepted and dropped, not refused as before the start), then up again:
    // seen in that order, whatever the machine's pace.
    httplib::Client client("127.0.0.1", port);
    client.set_connection_timeout(1s);
    client.set_read_timeout(1s);
    bool sawDown = false, backUp = false;
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (!backUp && std::chrono::steady_clock::now() < deadline) {
        auto answer = client.Get("/master.m3u8");
        const bool up = answer && answer->status == 200;
        if (!answer && answer.error() != httplib::Error::Connection) sawDown = true;
        backUp = sawDown && up;
        std::this_thread::sleep_for(20ms);
    }
    pthread_kill(serving, SIGTERM);
    server.join();
    EXPECT_TRUE(sawDown);
    EXPECT_TRUE(backUp);
    EXPECT_EQ(status, 0);
    const std::string err = streams.err();
    EXPECT_NE(err.find("outage for 1.5 s"), std::string::npos) << err;
    EXPECT_LT(err.find("outage for"), err.find("outage over")) << err;
}

TEST(ServeCommandTest, ATakenPortIsRefusedNotShared) {
    const int port = freePort();
    ovalto::tool::Origin::Options options;
    options.port = port;
    ovalto::tool::Origin first(options);
    ASSERT_TRUE(first.start());
    int status = -1;
    CapturedStreams streams;
    // On a thread of its own: serve blocks the stop signals of the thread it runs on.
    std::thread([&] {
        status = findCommand("serve")->run({"--port", std::to_string(port), "--quiet"});
    }).join();
    EXPECT_EQ(status, 1);
    EXPECT_NE(streams.err().find("cannot listen on 127.0.0.1:" + std::to_string(port)), std::string::npos)
        << streams.err();
}
