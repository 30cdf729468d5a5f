// The bridge in front of a facade prepared against a loopback origin, asked by plain HTTP
// clients the way ffmpeg or mpv would ask, and the mapping between resource URLs and its paths.
#include "Bridge/BridgeUrl.h"
#include "ovalto/Bridge.h"
#include "ovalto/Notifications.h"
#include "ovalto/Ovalto.h"
#include "platform/NotificationCenter.h"
#include "platform/RunLoop.h"
#include "support/HlsOrigin.h"
#include "support/MainLoop.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <sstream>
#include <thread>

namespace ovalto::test {
namespace {

using namespace std::chrono_literals;

// The first line of `playlist` that is neither a tag nor blank.
std::string firstUri(const std::string& playlist) {
    std::istringstream lines(playlist);
    for (std::string line; std::getline(lines, line);)
        if (!line.empty() && line[0] != '#') return line;
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
        ASSERT_TRUE(prepare("/vod/master.m3u8"));
        facade->setEdgeList({{1, edge.url("/vod")}});
        startBridge({});
    }

    // Prepares the facade with the origin's `path` and waits for the notification.
    bool prepare(const std::string& path) {
        bool prepared = false;
        auto& center = platform::NotificationCenter::defaultCenter();
        auto token = center.addObserver(OvaltoPreparationNotification, facade,
                                        [&](const platform::Notification&) { prepared = true; });
        facade->prepare(*platform::Url::parse(origin.url(path)));
        const bool done = runMainUntil([&] { return prepared; });
        center.removeObserver(token);
        return done;
    }

    void startBridge(Bridge::Options options) {
        bridge = std::make_unique<Bridge>(facade, options);
        ASSERT_FALSE(bridge->start());
        ASSERT_TRUE(bridge->masterUrl());
    }

    // The body of a GET of `target` by a new client, or "<status>" when it is not 200.
    std::string get(const std::string& target) {
        auto res = httplib::Client(bridge->baseUrl()).Get(target.c_str());
        return !res                 ? "<no answer>"
               : res->status == 200 ? res->body
                                    : "<" + std::to_string(res->status) + ">";
    }

    // The bridge path of the first media playlist and of its first segment.
    std::pair<std::string, std::string> mediaAndSegment(httplib::Client& client) {
        auto master = client.Get("/cplp/local/master.m3u8");
        if (!master || master->status != 200) return {};
        const std::string media = "/cplp/local/" + firstUri(master->body);
        auto playlist = client.Get(media.c_str());
        if (!playlist || playlist->status != 200) return {};
        return {media, firstUri(playlist->body).substr(bridge->baseUrl().size())};
    }

    // Every loading request the bridge made has been finished.
    void expectAllFinished() {
        EXPECT_TRUE(runMainUntil([&] { return bridge->counts().started == bridge->counts().finished; }));
    }

    HlsOrigin origin, edge;
    std::shared_ptr<Ovalto> facade = Ovalto::create();
    std::unique_ptr<Bridge> bridge;
};

// One table for every kind of answer: data, ranges, HEAD, redirect to the chosen edge, and the
// library's failures with their codes.
TEST_F(BridgeTest, AnswersEachKindOfRequest) {
    httplib::Client client(bridge->baseUrl());
    auto [media, segment] = mediaAndSegment(client);
    ASSERT_FALSE(segment.empty());
    const std::string base = bridge->baseUrl();
    const std::string rdtp = "/rdtp/local" + media.substr(11, media.rfind('/') - 11);
    origin.remove("/vod/video/2000000/media.m3u8");

    const struct {
        const char* what;
        std::string target;
        int status;
        std::string contains; // in the body, or in Location for a redirect
    } rows[] = {
        {"master", "/cplp/local/master.m3u8", 200, "/media.m3u8"},
        {"media playlist names segments on the bridge", media, 200, base + "/rdtp/local/"},
        {"key URIs mapped too", media, 200, "URI=\"" + base + "/ckey/k1\""},
        {"segment redirected to the edge", segment, 302, edge.url("/vod/video/")},
        {"init section from the origin", rdtp + "/-1.ts", 302, origin.url("/vod/video/")},
        {"segment the presentation lacks", rdtp + "/99.ts", 404, "0x8500 (34048): Fragment is not created."},
        {"unknown representation", "/rdtp/local/0/7/0.ts", 404, "0x8501 (34049)"},
        {"malformed resource path", "/cplp/local/9/media.m3u8", 404,
         "0x8301 (33537): Resource URL is not valid."},
        {"origin failure passed on", "/cplp/local/1/2000000/media.m3u8", 404,
         "0x194 (404): PlayList response is not valid."},
        {"not a bridge path", "/favicon.ico", 404, "is not a bridge path"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        auto res = client.Get(row.target.c_str());
        ASSERT_TRUE(res);
        EXPECT_EQ(res->status, row.status) << res->body;
        const std::string seen = res->status == 302 ? res->get_header_value("Location") : res->body;
        EXPECT_NE(seen.find(row.contains), std::string::npos) << seen;
    }
    auto range = client.Get(media.c_str(), {{"Range", "bytes=0-6"}});
    ASSERT_TRUE(range);
    EXPECT_EQ(std::tuple(range->status, range->body), std::tuple(206, "#EXTM3U"));
    auto head = client.Head("/cplp/local/master.m3u8");
    ASSERT_TRUE(head);
    EXPECT_EQ(std::tuple(head->status, head->body, head->get_header_value("Content-Type")),
              std::tuple(200, "", "application/vnd.apple.mpegurl"));
    EXPECT_GT(std::stoul(head->get_header_value("Content-Length")), 0u);
    expectAllFinished();
}

// A playlist that can no longer change is downloaded and rewritten once, however many clients
// ask for it, until the facade prepares another presentation; a live one is fetched again for
// every request, so that its new segments show.
TEST_F(BridgeTest, KeepsEndedPlaylistsUntilTheNextPreparationAndFetchesLiveOnesAgain) {
    const std::string livePath = "/vod/video/2000000/media.m3u8";
    auto live = *origin.body(livePath);
    for (const std::string tag : {"#EXT-X-ENDLIST\n", "#EXT-X-PLAYLIST-TYPE:VOD\n"})
        live.erase(live.find(tag), tag.size());
    origin.serve(livePath, live, "application/vnd.apple.mpegurl");

    const std::tuple<std::string, std::string, std::size_t> rows[] = {
        // target, origin path, fetches
        {"/cplp/local/1/800000/media.m3u8", "/vod/video/800000/media.m3u8", 1},
        {"/cplp/local/1/2000000/media.m3u8", livePath, 3},
        {"/cplp/local/master.m3u8", "/vod/master.m3u8", 1},
    };
    for (const auto& [target, originPath, fetches] : rows) {
        SCOPED_TRACE(target);
        const auto before = origin.requests(originPath).size();
        const std::string first = get(target); // and two more clients, one after the other
        ASSERT_NE(first[0], '<');
        EXPECT_EQ(get(target), first);
        EXPECT_EQ(get(target), first);
        EXPECT_EQ(origin.requests(originPath).size() - before, fetches);
    }

    // A new segment of the live playlist reaches the next client.
    origin.serve(livePath, live + "#EXTINF:1.0,\nseg4.m4s\n", "application/vnd.apple.mpegurl");
    EXPECT_NE(get("/cplp/local/1/2000000/media.m3u8").find("/rdtp/local/1/2000000/4."), std::string::npos);

    // The kept playlists of four segments give way to those of the next presentation.
    HlsOrigin::Vod longer;
    longer.segments = 6;
    origin.publish("longer", longer);
    ASSERT_TRUE(prepare("/longer/master.m3u8"));
    ASSERT_NE(get("/cplp/local/master.m3u8")[0], '<');
    EXPECT_NE(get("/cplp/local/1/800000/media.m3u8").find("/rdtp/local/1/800000/5."), std::string::npos);
    expectAllFinished();
}

// Two clients walk the presentation at once over their own keep-alive connections.
TEST_F(BridgeTest, ServesTwoClientsAtOnce) {
    auto walk = [&](int* redirects) {
        httplib::Client client(bridge->baseUrl());
        client.set_keep_alive(true);
        for (int round = 0; round < 5; ++round) {
            auto res = client.Get(mediaAndSegment(client).second.c_str());
            if (res && res->status == 302) ++*redirects;
        }
    };
    int first = 0, second = 0;
    std::thread other(walk, &second);
    walk(&first);
    other.join();
    EXPECT_EQ(std::pair(first, second), std::pair(5, 5));
    expectAllFinished();
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
    for (int i = 0; i < 3; ++i) {
        httplib::Client vanishing(bridge->baseUrl());
        vanishing.set_read_timeout(0, 1000); // gone long before the answer comes
        EXPECT_FALSE(vanishing.Get(media.c_str()));
    }
    const auto res = client.Get(segment.c_str());
    EXPECT_EQ(res ? res->status : 0, 302);
    expectAllFinished();

    // A bridge that gives up sooner than the origin answers says so, and finishes the request.
    Bridge::Options impatient;
    impatient.loadingTimeout = 100ms;
    startBridge(impatient);
    auto late = httplib::Client(bridge->baseUrl()).Get(media.c_str());
    ASSERT_TRUE(late);
    EXPECT_EQ(std::tuple(late->status, late->get_header_value("X-Ovalto-Error")), std::tuple(504, "2"));
    expectAllFinished();
}

TEST(BridgeListenTest, LoopbackOnlyAndNoMasterBeforePreparation) {
    auto facade = Ovalto::create();
    Bridge bridge(facade);
    ASSERT_FALSE(bridge.start());
    EXPECT_TRUE(bridge.baseUrl().starts_with("http://127.0.0.1:"));
    EXPECT_FALSE(bridge.masterUrl());
    const auto res = httplib::Client(bridge.baseUrl()).Get("/cplp/local/master.m3u8");
    EXPECT_EQ(res ? res->status : 0, 503);

    // Stopped before its thread has begun to accept, a bridge still stops.
    for (int i = 0; i < 20; ++i)
        ASSERT_FALSE(Bridge(facade).start());

    // A port already taken is an error value, not an exception.
    Bridge::Options taken;
    taken.port = bridge.port();
    auto error = Bridge(facade, taken).start();
    ASSERT_TRUE(error);
    EXPECT_NE(error->localizedDescription.find(std::to_string(bridge.port())), std::string::npos);
}

// Each resource URL maps to a path and back to the same text; anything else has no bridge path.
TEST(BridgeUrlTest, TargetsRoundTrip) {
    const std::pair<const char*, const char*> rows[] = {
        {"cplp://local/master.m3u8", "/cplp/local/master.m3u8"},
        {"cplp://local/1/800000/media.m3u8", "/cplp/local/1/800000/media.m3u8"},
        {"rdtp://local/0/0/-1.ts", "/rdtp/local/0/0/-1.ts"},
        {"cplp://local/master.m3u8?a=%2F&b=1", "/cplp/local/master.m3u8?a=%2F&b=1"}, // query and escapes kept
        {"ckey://k1", "/ckey/k1"},
        {"ckey://k1?id=7", "/ckey/k1/?id=7"},
        {"skd://asset-7/key", "/skd/asset-7/key"},
    };
    for (const auto& [resource, target] : rows) {
        EXPECT_EQ(BridgeUrl::target(resource), target) << resource;
        auto back = BridgeUrl::resource(target);
        EXPECT_EQ(back ? back->absoluteString() : "<none>", resource);
    }
    for (const char* other : {"https://local/master.m3u8", "CPLP://local/master.m3u8", "cplp:///master.m3u8",
                              "master.m3u8", "cplpx://local/a", "rdtp://local/0/0/1.ts\r#x"})
        EXPECT_FALSE(BridgeUrl::target(other)) << other;
    for (const char* target :
         {"", "/", "/cplp", "/cplp/", "/cplp//master.m3u8", "/http/local/master.m3u8",
          "cplp/local/master.m3u8", "/favicon.ico", "/cplp/lo cal/master.m3u8", "/cplp/local/master#-T=%2F"})
        EXPECT_FALSE(BridgeUrl::resource(target)) << "'" << target << "'";
}

TEST(BridgeUrlTest, MapsAbsoluteResourceUrisOnly) {
    const std::string playlist =
        "#EXTM3U\r\n#EXT-X-MAP:URI=\"rdtp://local/0/0/-1.ts\"\r\n"
        "#EXT-X-KEY:METHOD=AES-128,URI=\"ckey://k1\",IV=0x1\r\n"
        "#EXT-X-SESSION-DATA:DATA-ID=\"x\",XURI=\"rdtp://local/0/0/1.ts\"\r\n"
        "#EXTINF:2.0,\r\nrdtp://local/0/0/0.ts\r\n#EXTINF:2.0,\r\n  https://cdn.example/seg1.ts\r\n"
        "1/800000/media.m3u8\n#EXT-X-MEDIA:TYPE=AUDIO,URI=\"0/0/media.m3u8\"\nrdtp://local/0/0/2.ts";
    const std::string expected = "#EXTM3U\r\n#EXT-X-MAP:URI=\"http://127.0.0.1:9/rdtp/local/0/0/-1.ts\"\r\n"
                                 "#EXT-X-KEY:METHOD=AES-128,URI=\"http://127.0.0.1:9/ckey/k1\",IV=0x1\r\n"
                                 "#EXT-X-SESSION-DATA:DATA-ID=\"x\",XURI=\"rdtp://local/0/0/1.ts\"\r\n"
                                 "#EXTINF:2.0,\r\nhttp://127.0.0.1:9/rdtp/local/0/0/0.ts\r\n"
                                 "#EXTINF:2.0,\r\n  https://cdn.example/seg1.ts\r\n1/800000/media.m3u8\n"
                                 "#EXT-X-MEDIA:TYPE=AUDIO,URI=\"0/0/media.m3u8\"\n"
                                 "http://127.0.0.1:9/rdtp/local/0/0/2.ts";
    EXPECT_EQ(BridgeUrl::mapPlaylist(playlist, "http://127.0.0.1:9"), expected);
}

} // namespace
} // namespace ovalto::test
