// The bridge in front of a facade prepared against a loopback origin, asked by plain HTTP
// clients the way ffmpeg or mpv would ask.
#include "ovalto/Bridge.h"
#include "ovalto/Notifications.h"
#include "ovalto/Ovalto.h"
#include "platform/NotificationCenter.h"
#include "platform/RunLoop.h"
#include "support/HlsOrigin.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sstream>
#include <thread>

namespace ovalto::test {
namespace {

using namespace std::chrono_literals;

bool runUntil(const std::function<bool()>& done, std::chrono::seconds limit = 20s) {
    auto tick = platform::Timer::scheduledTimer(10ms, true, [](platform::Timer&) {});
    bool result = platform::RunLoop::main().runUntil(done, std::chrono::steady_clock::now() + limit);
    tick->invalidate();
    return result;
}

// The first line of `playlist` that is neither a tag nor blank.
std::string firstUri(const std::string& playlist) {
    std::istringstream lines(playlist);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!line.empty() && line[0] != '#') return line;
    }
    return {};
}

// A VOD presentation on an origin, its segments also on an edge, prepared through a facade with
// the edge in its list, and a bridge in front of it.
class BridgeTest : public ::testing::Test {
protected:
    void SetUp() override {
        HlsOrigin::Vod vod;
        vod.keyUris = {"ckey://k1"};
        origin.publish("vod", vod);
        edge.publish("vod", vod);
        facade = Ovalto::create();
        ASSERT_TRUE(prepare("/vod/master.m3u8"));
        facade->setEdgeList({{1, edge.url("/vod")}});
        startBridge({});
    }

    // Prepares the facade with the origin's `path` and waits for the notification.
    bool prepare(const std::string& path) {
        bool prepared = false;
        auto token = platform::NotificationCenter::defaultCenter().addObserver(
            OvaltoPreparationNotification, facade, [&](const platform::Notification&) { prepared = true; });
        facade->prepare(*platform::Url::parse(origin.url(path)));
        const bool done = runUntil([&] { return prepared; });
        platform::NotificationCenter::defaultCenter().removeObserver(token);
        return done;
    }

    void startBridge(Bridge::Options options) {
        bridge = std::make_unique<Bridge>(facade, options);
        ASSERT_FALSE(bridge->start());
        ASSERT_TRUE(bridge->masterUrl());
    }

    // The bridge path of the first media playlist and of its first segment.
    std::pair<std::string, std::string> mediaAndSegment(httplib::Client& client) {
        auto master = client.Get("/cplp/local/master.m3u8");
        EXPECT_TRUE(master && master->status == 200);
        if (!master) return {};
        const std::string media = "/cplp/local/" + firstUri(master->body);
        auto playlist = client.Get(media.c_str());
        EXPECT_TRUE(playlist && playlist->status == 200) << media;
        if (!playlist) return {};
        return {media, firstUri(playlist->body).substr(bridge->baseUrl().size())};
    }

    // Every loading request the bridge made has been finished.
    void expectAllFinished() {
        EXPECT_TRUE(runUntil([&] {
            auto counts = bridge->counts();
            return counts.started == counts.finished;
        }));
    }

    HlsOrigin origin, edge;
    std::shared_ptr<Ovalto> facade;
    std::unique_ptr<Bridge> bridge;
};

struct AnswerRow {
    const char* what;
    const char* method;
    std::string target;
    std::string range;
    int status;
    std::string contains; // in the body, or in Location for a redirect
};

// One table for every kind of answer: data, ranges, HEAD, redirect to the chosen edge, and the
// library's failures with their codes.
TEST_F(BridgeTest, AnswersEachKindOfRequest) {
    httplib::Client client(bridge->baseUrl());
    auto [media, segment] = mediaAndSegment(client);
    ASSERT_FALSE(segment.empty());
    const std::string base = bridge->baseUrl();
    const std::string representation = media.substr(0, media.rfind('/'));
    const std::string rdtp = "/rdtp/local" + representation.substr(std::string("/cplp/local").size());
    origin.remove("/vod/video/2000000/media.m3u8");

    const AnswerRow rows[] = {
        {"master", "GET", "/cplp/local/master.m3u8", "", 200, "/media.m3u8"},
        {"media playlist names segments on the bridge", "GET", media, "", 200, base + "/rdtp/local/"},
        {"key URIs mapped too", "GET", media, "", 200, "URI=\"" + base + "/ckey/k1\""},
        {"range of a playlist", "GET", media, "bytes=0-6", 206, "#EXTM3U"},
        {"head", "HEAD", "/cplp/local/master.m3u8", "", 200, ""},
        {"segment redirected to the edge", "GET", segment, "", 302, edge.url("/vod/video/")},
        {"init section from the origin", "GET", rdtp + "/-1.ts", "", 302, origin.url("/vod/video/")},
        {"segment the presentation lacks", "GET", rdtp + "/99.ts", "", 404,
         "0x8500 (34048): Fragment is not created."},
        {"unknown representation", "GET", "/rdtp/local/0/7/0.ts", "", 404, "0x8501 (34049)"},
        {"malformed resource path", "GET", "/cplp/local/9/media.m3u8", "", 404,
         "0x8301 (33537): Resource URL is not valid."},
        {"origin failure passed on", "GET", "/cplp/local/1/2000000/media.m3u8", "", 404,
         "0x194 (404): PlayList response is not valid."},
        {"not a bridge path", "GET", "/favicon.ico", "", 404, "is not a bridge path"},
    };
    for (const auto& row : rows) {
        httplib::Headers headers;
        if (!row.range.empty()) headers.emplace("Range", row.range);
        auto res = std::string(row.method) == "HEAD" ? client.Head(row.target.c_str(), headers)
                                                     : client.Get(row.target.c_str(), headers);
        ASSERT_TRUE(res) << row.what;
        EXPECT_EQ(res->status, row.status) << row.what << ": " << res->body;
        const std::string seen = res->status == 302 ? res->get_header_value("Location") : res->body;
        EXPECT_NE(seen.find(row.contains), std::string::npos) << row.what << ": " << seen;
        if (std::string(row.method) == "HEAD") {
            EXPECT_TRUE(res->body.empty());
            EXPECT_GT(std::stoul(res->get_header_value("Content-Length")), 0u);
            EXPECT_EQ(res->get_header_value("Content-Type"), "application/vnd.apple.mpegurl");
        }
        if (row.status == 206) {
            EXPECT_EQ(res->body, "#EXTM3U") << row.what;
        }
    }
    expectAllFinished();
}

// A playlist that can no longer change is downloaded and rewritten once, however many clients
// ask for it; a live one is fetched again for every request, so that its new segments show.
TEST_F(BridgeTest, KeepsEndedPlaylistsAndFetchesLiveOnesAgain) {
    const std::string livePath = "/vod/video/2000000/media.m3u8";
    auto live = *origin.body(livePath);
    for (const std::string tag : {"#EXT-X-ENDLIST\n", "#EXT-X-PLAYLIST-TYPE:VOD\n"})
        live.erase(live.find(tag), tag.size());
    origin.serve(livePath, live, "application/vnd.apple.mpegurl");

    struct Row {
        const char* what;
        std::string target;
        std::string originPath;
        std::size_t fetches; // by three clients, one after the other
    };
    const Row rows[] = {
        {"VOD media playlist", "/cplp/local/1/800000/media.m3u8", "/vod/video/800000/media.m3u8", 1},
        {"live media playlist", "/cplp/local/1/2000000/media.m3u8", livePath, 3},
        {"master", "/cplp/local/master.m3u8", "/vod/master.m3u8", 1},
    };
    for (const auto& row : rows) {
        const auto before = origin.requests(row.originPath).size();
        std::string first;
        for (int client = 0; client < 3; ++client) {
            httplib::Client fresh(bridge->baseUrl());
            auto res = fresh.Get(row.target.c_str());
            ASSERT_TRUE(res && res->status == 200) << row.what;
            if (client == 0) first = res->body;
            EXPECT_EQ(res->body, first) << row.what;
        }
        EXPECT_EQ(origin.requests(row.originPath).size() - before, row.fetches) << row.what;
    }

    // A new segment of the live playlist reaches the next client.
    origin.serve(livePath, live + "#EXTINF:1.0,\nseg4.m4s\n", "application/vnd.apple.mpegurl");
    httplib::Client client(bridge->baseUrl());
    auto res = client.Get("/cplp/local/1/2000000/media.m3u8");
    ASSERT_TRUE(res && res->status == 200);
    EXPECT_NE(res->body.find("/rdtp/local/1/2000000/4."), std::string::npos) << res->body;
    expectAllFinished();
}

// What the bridge kept of one presentation is not served for the next one the facade prepares.
TEST_F(BridgeTest, ServesTheNewPresentationAfterPreparingAgain) {
    httplib::Client client(bridge->baseUrl());
    auto first = client.Get("/cplp/local/1/800000/media.m3u8");
    ASSERT_TRUE(first && first->status == 200);
    EXPECT_EQ(first->body.find("/rdtp/local/1/800000/5."), std::string::npos);

    HlsOrigin::Vod longer;
    longer.segments = 6;
    origin.publish("longer", longer);
    ASSERT_TRUE(prepare("/longer/master.m3u8"));

    auto master = client.Get("/cplp/local/master.m3u8");
    ASSERT_TRUE(master && master->status == 200);
    auto media = client.Get("/cplp/local/1/800000/media.m3u8");
    ASSERT_TRUE(media && media->status == 200);
    EXPECT_NE(media->body.find("/rdtp/local/1/800000/5."), std::string::npos) << media->body;
    expectAllFinished();
}

// Two clients walk the presentation at once over their own keep-alive connections.
TEST_F(BridgeTest, ServesTwoClientsAtOnce) {
    auto walk = [&](int* redirects) {
        httplib::Client client(bridge->baseUrl());
        client.set_keep_alive(true);
        for (int round = 0; round < 5; ++round) {
            auto [media, segment] = mediaAndSegment(client);
            auto res = client.Get(segment.c_str());
            if (res && res->status == 302) ++*redirects;
        }
    };
    int first = 0, second = 0;
    std::thread other(walk, &second);
    walk(&first);
    other.join();
    EXPECT_EQ(first, 5);
    EXPECT_EQ(second, 5);
    expectAllFinished();
}

// A raw connection that sends `request` and closes without reading the answer.
void sendAndVanish(int port, const std::string& request) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::send(fd, request.data(), request.size(), MSG_NOSIGNAL), static_cast<ssize_t>(request.size()));
    ::close(fd);
}

// Clients that vanish while their playlist is still on its way, or give up waiting, leave no
// request unfinished and do not keep the bridge from serving the next client.
TEST_F(BridgeTest, SurvivesClientsThatVanishOrTimeOut) {
    // A rendition nobody has asked for yet, so that its playlist is on its way from the origin.
    const std::string media = "/cplp/local/1/2000000/media.m3u8";
    origin.throttle("/vod/video/2000000/media.m3u8", 500ms);
    httplib::Client client(bridge->baseUrl());
    auto segment = mediaAndSegment(client).second;
    ASSERT_FALSE(segment.empty());
    for (int i = 0; i < 3; ++i)
        sendAndVanish(bridge->port(), "GET " + media + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    auto res = client.Get(segment.c_str());
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 302);
    expectAllFinished();

    // A bridge that gives up sooner than the origin answers says so, and finishes the request.
    Bridge::Options impatient;
    impatient.loadingTimeout = 100ms;
    startBridge(impatient);
    httplib::Client hurried(bridge->baseUrl());
    auto late = hurried.Get(media.c_str());
    ASSERT_TRUE(late);
    EXPECT_EQ(late->status, 504);
    EXPECT_EQ(late->get_header_value("X-Ovalto-Error"), "2");
    expectAllFinished();
}

TEST(BridgeListenTest, LoopbackOnlyAndNoMasterBeforePreparation) {
    auto facade = Ovalto::create();
    Bridge bridge(facade);
    ASSERT_FALSE(bridge.start());
    EXPECT_EQ(bridge.baseUrl().rfind("http://127.0.0.1:", 0), 0u);
    EXPECT_FALSE(bridge.masterUrl());
    httplib::Client client(bridge.baseUrl());
    auto res = client.Get("/cplp/local/master.m3u8");
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 503);

    // Stopped before its thread has begun to accept, a bridge still stops.
    for (int i = 0; i < 20; ++i) {
        Bridge brief(facade);
        ASSERT_FALSE(brief.start());
    }

    // A port already taken is an error value, not an exception.
    Bridge::Options taken;
    taken.port = bridge.port();
    Bridge second(facade, taken);
    auto error = second.start();
    ASSERT_TRUE(error);
    EXPECT_NE(error->localizedDescription.find(std::to_string(bridge.port())), std::string::npos);
}

} // namespace
} // namespace ovalto::test
