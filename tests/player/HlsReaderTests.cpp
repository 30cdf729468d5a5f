#include "platform/HlsReader.h"

#include <gtest/gtest.h>

using namespace ovalto::platform;

namespace {

const Url base = *Url::parse("http://127.0.0.1:8080/live/master.m3u8");

HlsMasterPlaylist master(const std::string& text) {
    auto playlist = HlsReader::read(text, base);
    EXPECT_TRUE(playlist && std::holds_alternative<HlsMasterPlaylist>(*playlist)) << text;
    return playlist ? std::get<HlsMasterPlaylist>(*playlist) : HlsMasterPlaylist{};
}

HlsMediaPlaylist media(const std::string& text) {
    auto playlist = HlsReader::read(text, base);
    EXPECT_TRUE(playlist && std::holds_alternative<HlsMediaPlaylist>(*playlist)) << text;
    return playlist ? std::get<HlsMediaPlaylist>(*playlist) : HlsMediaPlaylist{};
}

const char* const masterText = R"(#EXTM3U
#EXT-X-VERSION:7
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="aud",NAME="English",LANGUAGE="en",DEFAULT=NO,URI="audio/en.m3u8"
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="aud",NAME="Japanese",LANGUAGE="ja",DEFAULT=YES,URI="audio/ja.m3u8"
#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID="cc",NAME="CC1",INSTREAM-ID="CC1"
#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID="v",NAME="Wide",DEFAULT=YES,URI="wide.m3u8"
#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID="v",NAME="Close",URI="close.m3u8"
#EXT-X-STREAM-INF:BANDWIDTH=800000,CODECS="avc1.4d401f,mp4a.40.2",AUDIO="aud",CLOSED-CAPTIONS="cc",VIDEO="v"
low/media.m3u8
#EXT-X-I-FRAME-STREAM-INF:BANDWIDTH=100000,URI="iframes.m3u8"
#EXT-X-STREAM-INF:BANDWIDTH=2000000,AVERAGE-BANDWIDTH=1800000,AUDIO="aud",CLOSED-CAPTIONS=NONE
http://cdn.invalid/high/media.m3u8
)";

} // namespace

TEST(HlsReader, RenditionChoicePrefersTheNamedThenTheDefaultThenTheFirst) {
    const auto playlist = master(masterText);
    struct Case {
        std::optional<std::string> preferred;
        std::string expected;
    };
    for (const Case& c :
         {Case{"English", "English"}, Case{std::nullopt, "Japanese"}, Case{"Klingon", "Japanese"}}) {
        const auto* rendition = playlist.rendition("AUDIO", "aud", c.preferred);
        ASSERT_NE(rendition, nullptr);
        EXPECT_EQ(rendition->name, c.expected);
    }
    EXPECT_EQ(playlist.rendition("AUDIO", "other", std::nullopt), nullptr);

    // A VIDEO rendition replaces the variant's own playlist; a variant without a group keeps it.
    const auto& [low, high] = std::tie(playlist.variants.at(0), playlist.variants.at(1));
    EXPECT_EQ(playlist.mainPlaylistUrl(low, std::nullopt).lastPathComponent(), "wide.m3u8");
    EXPECT_EQ(playlist.mainPlaylistUrl(low, "Close").lastPathComponent(), "close.m3u8");
    EXPECT_EQ(playlist.mainPlaylistUrl(high, std::nullopt).absoluteString(),
              "http://cdn.invalid/high/media.m3u8");
}

TEST(HlsReader, MediaPlaylistNumbersSegmentsAndCarriesMapKeysAndRanges) {
    const auto playlist = media(R"(#EXTM3U
#EXT-X-VERSION:7
#EXT-X-TARGETDURATION:6
#EXT-X-MEDIA-SEQUENCE:120
#EXT-X-PLAYLIST-TYPE:VOD
#EXT-X-MAP:URI="main.mp4",BYTERANGE="720@0"
#EXT-X-KEY:METHOD=SAMPLE-AES,URI="skd://k1",KEYFORMATVERSIONS="1"
#EXTINF:6.006,
#EXT-X-BYTERANGE:1000@720
main.mp4
#EXT-X-DISCONTINUITY
#EXTINF:5.5
#EXT-X-BYTERANGE:2000
main.mp4
#EXT-X-KEY:METHOD=NONE
#EXTINF:4,title
other.ts
#EXT-X-ENDLIST
)");
    EXPECT_EQ(playlist.targetDuration, 6);
    EXPECT_EQ(playlist.mediaSequence, 120);
    EXPECT_TRUE(playlist.endList);
    EXPECT_EQ(playlist.playlistType, "VOD");
    ASSERT_EQ(playlist.segments.size(), 3u);
    EXPECT_NEAR(playlist.duration(), 15.506, 1e-9);

    const auto& first = playlist.segments[0];
    EXPECT_EQ(first.sequence, 120);
    ASSERT_TRUE(first.map && first.map->byteRange);
    EXPECT_EQ(first.map->byteRange->rangeHeader(), "bytes=0-719");
    ASSERT_TRUE(first.key);
    EXPECT_EQ(first.key->uri->absoluteString(), "skd://k1");
    EXPECT_EQ(first.byteRange->rangeHeader(), "bytes=720-1719");

    const auto& second = playlist.segments[1];
    EXPECT_EQ(second.sequence, 121);
    EXPECT_TRUE(second.discontinuity);
    EXPECT_EQ(second.byteRange->rangeHeader(), "bytes=1720-3719"); // continues the previous range
    EXPECT_TRUE(second.key);

    const auto& third = playlist.segments[2];
    EXPECT_FALSE(third.key); // METHOD=NONE ends encryption
    EXPECT_FALSE(third.byteRange);
    EXPECT_TRUE(third.map); // the map applies until the next one
    EXPECT_EQ(third.uri.absoluteString(), "http://127.0.0.1:8080/live/other.ts");
    EXPECT_FALSE(playlist.isLive());

    const auto live = media("#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXT-X-MEDIA-SEQUENCE:7\n#EXTINF:2,\na.ts\n");
    EXPECT_TRUE(live.isLive());
    EXPECT_EQ(live.segments.at(0).sequence, 7);
}

TEST(HlsReader, RejectsWhatIsNotAUsablePlaylist) {
    const char* const cases[] = {
        "",
        "<html>not a playlist</html>",
        "#EXTM3U\nseg.ts\n",                                                  // URI without #EXTINF
        "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\n",                           // variant without URI
        "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\na.m3u8\n#EXTINF:1,\nb.ts\n", // master and media at once
        "#EXTM3U\n#EXTINF:abc,\nb.ts\n",                                      // duration that is not a number
        "#EXTM3U\n#EXTINF:1,\n#EXT-X-BYTERANGE:x@1\nb.ts\n",                  // byte range that is not one
    };
    for (const char* text : cases)
        EXPECT_FALSE(HlsReader::read(text, base)) << text;
    EXPECT_TRUE(HlsReader::isPlaylist("\xEF\xBB\xBF#EXTM3U\n"));
}

TEST(HlsReader, AByteOrderMarkIsReadPast) {
    // Editors and some origins write the mark; players read such playlists like any other.
    const std::string mark = "\xEF\xBB\xBF";
    const auto withMark = master(mark + masterText);
    ASSERT_EQ(withMark.variants.size(), 2u);
    EXPECT_EQ(withMark.variants[0].uri.absoluteString(), "http://127.0.0.1:8080/live/low/media.m3u8");
    EXPECT_EQ(withMark.renditions.size(), 5u);
    EXPECT_EQ(media(mark + "#EXTM3U\n#EXTINF:2,\na.ts\n").segments.size(), 1u);
    // Only at the very start: a mark further on is text like any other.
    EXPECT_FALSE(HlsReader::read("\n" + mark + "#EXTM3U\n#EXTINF:2,\na.ts\n", base));
}
