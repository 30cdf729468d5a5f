// The loopback origin of the tool: content types, and the live window sliding over VOD segments.
#include "Command.h"
#include "Origin.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <filesystem>

using namespace ovalto::tool;
using namespace std::chrono_literals;

namespace {

const std::string vod =
    "#EXTM3U\r\n#EXT-X-VERSION:7\r\n#EXT-X-TARGETDURATION:2\r\n#EXT-X-MEDIA-SEQUENCE:0\r\n"
    "#EXT-X-PLAYLIST-TYPE:VOD\r\n#EXT-X-MAP:URI=\"init.mp4\"\r\n"
    "#EXTINF:2.0,\r\ns0.m4s\r\n#EXTINF:2.0,\r\ns1.m4s\r\n#EXTINF:2.0,\r\ns2.m4s\r\n"
    "#EXTINF:2.0,\r\ns3.m4s\r\n#EXT-X-ENDLIST\r\n";

std::vector<std::string> segmentsOf(const std::string& playlist) {
    std::vector<std::string> uris;
    std::istringstream in(playlist);
    for (std::string line; std::getline(in, line);)
        if (!line.empty() && line[0] != '#') uris.push_back(line);
    return uris;
}

// TCP_NODELAY of every connection this process accepted on `port`.
std::vector<int> noDelayOfAccepted(int port) {
    std::vector<int> found;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
        const int fd = std::stoi(entry.path().filename().string());
        sockaddr_in local{}, peer{};
        socklen_t localLength = sizeof(local), peerLength = sizeof(peer);
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLength) != 0 ||
            local.sin_family != AF_INET || ntohs(local.sin_port) != port ||
            ::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0)
            continue;
        int noDelay = 0;
        socklen_t length = sizeof(noDelay);
        if (::getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, &length) == 0) found.push_back(noDelay);
    }
    return found;
}

} // namespace

TEST(LiveWindowTest, SlidesOneSegmentPerTargetDurationAndLoops) {
    struct Case {
        std::chrono::milliseconds elapsed;
        std::string sequence;
        std::vector<std::string> segments;
        bool discontinuity;
    };
    for (const auto& c : std::vector<Case>{
             {0ms, "0", {"s0.m4s", "s1.m4s", "s2.m4s"}, false},
             {1999ms, "0", {"s0.m4s", "s1.m4s", "s2.m4s"}, false},
             {2000ms, "1", {"s1.m4s", "s2.m4s", "s3.m4s"}, false},
             {4000ms, "2", {"s2.m4s", "s3.m4s", "s0.m4s"}, true},
             {16000ms, "8", {"s0.m4s", "s1.m4s", "s2.m4s"}, true},
         }) {
        auto window = Origin::liveWindow(vod, c.elapsed, 3);
        ASSERT_TRUE(window);
        EXPECT_NE(window->find("#EXT-X-MEDIA-SEQUENCE:" + c.sequence + "\n"), std::string::npos) << *window;
        EXPECT_EQ(segmentsOf(*window), c.segments) << *window;
        EXPECT_EQ(window->find("#EXT-X-DISCONTINUITY\n") != std::string::npos, c.discontinuity) << *window;
        EXPECT_EQ(window->find("ENDLIST"), std::string::npos);
        EXPECT_EQ(window->find("PLAYLIST-TYPE"), std::string::npos);
        EXPECT_NE(window->find("#EXT-X-MAP:URI=\"init.mp4\""), std::string::npos);
    }
}

TEST(LiveWindowTest, MasterPlaylistsAreNotWindowed) {
    EXPECT_FALSE(Origin::liveWindow("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nv.m3u8\n", 0ms, 3));
    auto small = Origin::liveWindow("#EXTM3U\n#EXTINF:4,\nonly.ts\n", 0ms, 3);
    ASSERT_TRUE(small);
    EXPECT_EQ(segmentsOf(*small), std::vector<std::string>{"only.ts"});
}

TEST(OriginTest, ServesTheSampleWithHlsContentTypes) {
    std::atomic<int> served{0};
    Origin::Options options;
    options.directory = builtInSampleDirectory();
    options.onRequest = [&](auto&&...) { ++served; };
    Origin origin(options);
    ASSERT_TRUE(origin.start());
    httplib::Client client("127.0.0.1", origin.port());
    auto master = client.Get("/master.m3u8");
    ASSERT_TRUE(master);
    EXPECT_EQ(master->status, 200);
    EXPECT_EQ(master->get_header_value("Content-Type"), "application/vnd.apple.mpegurl");
    EXPECT_NE(master->body.find("#EXT-X-STREAM-INF"), std::string::npos);
    auto segment = client.Get("/video/low/seg0.m4s");
    ASSERT_TRUE(segment);
    EXPECT_EQ(segment->get_header_value("Content-Type"), "video/iso.segment");
    EXPECT_EQ(client.Get("/missing.m3u8")->status, 404);
    origin.stop();
    EXPECT_EQ(served.load(), 3);
}

// httplib sends headers and body in two writes; with Nagle's algorithm the body of each answer on a
// kept-alive connection would wait for the client's delayed acknowledgement.
TEST(OriginTest, AnswersWithoutNagleDelay) {
    Origin::Options options;
    options.directory = builtInSampleDirectory();
    Origin origin(options);
    ASSERT_TRUE(origin.start());
    httplib::Client client("127.0.0.1", origin.port());
    client.set_keep_alive(true);
    ASSERT_TRUE(client.Get("/master.m3u8"));
    EXPECT_EQ(noDelayOfAccepted(origin.port()), std::vector<int>{1});
}

TEST(OriginTest, LiveModeWindowsMediaPlaylistsAndARestartedOriginContinuesTheStream) {
    Origin::Options options;
    options.directory = builtInSampleDirectory();
    options.live = true;
    options.liveEpoch = std::chrono::system_clock::now() - 1h;
    const auto mediaSequence = [&] {
        Origin origin(options);
        EXPECT_TRUE(origin.start());
        httplib::Client client("127.0.0.1", origin.port());
        auto master = client.Get("/master.m3u8");
        EXPECT_TRUE(master && master->body.find("video/high/media.m3u8") != std::string::npos);
        auto media = client.Get("/video/low/media.m3u8");
        if (!media) return -1L;
        EXPECT_EQ(media->get_header_value("Content-Type"), "application/vnd.apple.mpegurl");
        EXPECT_EQ(media->body.find("#EXT-X-ENDLIST"), std::string::npos);
        EXPECT_EQ(segmentsOf(media->body).size(), 3u);
        const auto at = media->body.find("#EXT-X-MEDIA-SEQUENCE:");
        return at == std::string::npos ? -1L : std::atol(media->body.c_str() + at + 22);
    };
    const long before = mediaSequence();
    const long after = mediaSequence();
    EXPECT_GT(before, 100); // an hour into the stream, not at its start
    // The second origin's window starts where the first one's was, or a segment later.
    EXPECT_GE(after, before);
    EXPECT_LE(after, before + 1);
}
