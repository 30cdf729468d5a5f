// The rewritten-URL layout: what the generators write must read back as the same address, and
// the readers take exactly the paths the resources accept.
#include "PlayList/RewrittenUrl.h"

#include <gtest/gtest.h>

#include <limits>

using namespace ovalto;
using Segment = RewrittenUrl::Segment;
using PlayList = RewrittenUrl::PlayList;

namespace {

constexpr auto int32Min = std::numeric_limits<std::int32_t>::min();
constexpr auto int32Max = std::numeric_limits<std::int32_t>::max();
constexpr auto int64Min = std::numeric_limits<std::int64_t>::min();
constexpr auto int64Max = std::numeric_limits<std::int64_t>::max();
constexpr auto longMax = std::numeric_limits<long>::max();

TEST(RewrittenUrl, WhatIsWrittenReadsBack) {
    const Segment segments[] = {
        {0, 1500000, 0},
        {1, 800000, 120},
        {0, 0, RewrittenUrl::initialSection},
        {14, int32Max, int64Max},
        {longMax, int32Min, int64Min},
        {3, -5, -2},
    };
    const auto master = platform::Url::parse(RewrittenUrl::master);
    ASSERT_TRUE(master);
    EXPECT_EQ(RewrittenUrl::readPlayList(*master), PlayList{.isMaster = true});
    for (const auto& written : segments) {
        SCOPED_TRACE(std::to_string(written.stream) + "/" + std::to_string(written.bitrate) + "/" +
                     std::to_string(written.index));
        const auto url =
            platform::Url::parse(RewrittenUrl::segment(written.stream, written.bitrate, written.index));
        ASSERT_TRUE(url);
        EXPECT_EQ(url->scheme(), RewrittenUrl::redirectScheme);
        EXPECT_EQ(url->host(), "local");
        EXPECT_EQ(RewrittenUrl::readSegment(*url), written);
        EXPECT_EQ(RewrittenUrl::readSegment(*url)->isInitialSection(), written.index == -1);

        // The media playlist's relative URI, as the player resolves it against the master.
        std::string relative;
        RewrittenUrl::appendMediaPlayList(relative, written.stream, written.bitrate);
        const auto media = platform::Url::parse(relative, *master);
        ASSERT_TRUE(media) << relative;
        EXPECT_EQ(media->scheme(), RewrittenUrl::playListScheme);
        EXPECT_EQ(RewrittenUrl::readPlayList(*media),
                  (PlayList{.isMaster = false, .stream = written.stream, .bitrate = written.bitrate}));
    }
    EXPECT_EQ(RewrittenUrl::segment(1, 800000, 120), "rdtp://local/1/800000/120.ts");
    EXPECT_EQ(RewrittenUrl::segment(1, 800000, -1), "rdtp://local/1/800000/-1.ts");
}

TEST(RewrittenUrl, ReadsTheSegmentPathsTheRedirectAccepts) {
    const struct {
        const char* path;
        std::optional<Segment> expected;
    } cases[] = {
        {"/0/800000/105.ts", Segment{0, 800000, 105}},
        {"/0/800000/105", Segment{0, 800000, 105}},          // the suffix is not required
        {"/0.ts/8000.ts00/1.ts05", Segment{0, 800000, 105}}, // every ".ts" goes, wherever it is
        {"/0/800000/105.ts/extra", Segment{0, 800000, 105}},
        {"/0/800000/-1.ts", Segment{0, 800000, -1}},
        {"/0/-800000/-7.ts", Segment{0, -800000, -7}},
        {"/0/800000", std::nullopt},
        {"/-1/800000/105.ts", std::nullopt},
        {"/0/2147483648/105.ts", std::nullopt},
        {"/0/800000/9223372036854775808.ts", std::nullopt},
        {"/0//105.ts", std::nullopt},
        {"/0/800000/1x.ts", std::nullopt},
        {"0/800000/105.ts", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& c : cases)
        EXPECT_EQ(RewrittenUrl::readSegment(std::string_view(c.path)), c.expected) << c.path;
    // Escapes are read decoded.
    EXPECT_EQ(RewrittenUrl::readSegment(*platform::Url::parse("rdtp://local/%30/8%30/1%2Ets")),
              (Segment{0, 80, 1}));
}

TEST(RewrittenUrl, ReadsThePlayListPathsTheResourceAccepts) {
    const struct {
        const char* path;
        std::optional<PlayList> expected;
    } cases[] = {
        {"/master.m3u8", PlayList{.isMaster = true}},
        {"/any/where/my-master.m3u8", PlayList{.isMaster = true}},
        {"/1/800000/media.m3u8", PlayList{.isMaster = false, .stream = 1, .bitrate = 800000}},
        {"/1/800000", PlayList{.isMaster = false, .stream = 1, .bitrate = 800000}},
        {"/-1/0/media.m3u8", PlayList{.isMaster = false, .stream = -1, .bitrate = 0}},
        {"/1", std::nullopt},
        {"/1/x/media.m3u8", std::nullopt},
        {"/1/4294967296/media.m3u8", std::nullopt},
        {"/master.m3u8/", std::nullopt},
    };
    for (const auto& c : cases)
        EXPECT_EQ(RewrittenUrl::readPlayList(std::string_view(c.path)), c.expected) << c.path;
}

} // namespace
