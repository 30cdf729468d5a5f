#include "platform/HlsReader.h"

#include <gtest/gtest.h>

using namespace ovalto::platform;

namespace {

const Url base = *Url::parse("http://127.0.0.1:8080/live/master.m3u8");

template <class Playlist> Playlist read(const std::string& text) {
    auto playlist = HlsReader::read(text, base);
    EXPECT_TRUE(playlist && std::holds_alternative<Playlist>(*playlist)) << text;
    return playlist ? std::get<Playlist>(*playlist) : Playlist{};
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

TEST(HlsReader, RenditionChoicePrefersTheNamedThenTheDefaultThenTheFirst) {
    const auto playlist = read<HlsMasterPlaylist>(masterText);
    for (const auto& [preferred, expected] : std::vector<std::pair<std::optional<std::string>, std::string>>{
             {"English", "English"}, {std::nullopt, "Japanese"}, {"Klingon", "Japanese"}}) {
        const auto* rendition = playlist.rendition("AUDIO", "aud", preferred);
        ASSERT_NE(rendition, nullptr);
        EXPECT_EQ(rendition->name, expected);
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
    const auto playlist = read<HlsMediaPlaylist>(R"(#EXTM3U
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
    EXPECT_EQ(std::tuple(playlist.targetDuration, playlist.mediaSequence, playlist.endList,
                         playlist.playlistType, playlist.isLive()),
              std::tuple(6, 120, true, "VOD", false));
    EXPECT_NEAR(playlist.duration(), 15.506, 1e-9);
    std::vector<std::string> segments;
    for (const auto& s : playlist.segments) {
        const auto range = [](const auto& r) { return r ? r->rangeHeader() : std::string("whole"); };
        segments.push_back(std::to_string(s.sequence) + (s.discontinuity ? " discontinuity" : "") +
                           (s.map ? " map " + range(s.map->byteRange) : "") +
                           (s.key ? " key " + s.key->uri.value_or(base).absoluteString() : "") + " " +
                           range(s.byteRange) + " " + s.uri.absoluteString());
    }
    // A range without an offset continues the previous one; METHOD=NONE ends encryption; the map
    // applies until the next one.
    EXPECT_EQ(segments,
              (std::vector<std::string>{
                  "120 map bytes=0-719 key skd://k1 bytes=720-1719 http://127.0.0.1:8080/live/main.mp4",
                  "121 discontinuity map bytes=0-719 key skd://k1 bytes=1720-3719 "
                  "http://127.0.0.1:8080/live/main.mp4",
                  "122 map bytes=0-719 whole http://127.0.0.1:8080/live/other.ts"}));

    const auto live = read<HlsMediaPlaylist>(
        "#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXT-X-MEDIA-SEQUENCE:7\n#EXTINF:2,\na.ts\n");
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
    const auto withMark = read<HlsMasterPlaylist>(mark + masterText);
    ASSERT_EQ(withMark.variants.size(), 2u);
    EXPECT_EQ(withMark.variants[0].uri.absoluteString(), "http://127.0.0.1:8080/live/low/media.m3u8");
    EXPECT_EQ(withMark.renditions.size(), 5u);
    EXPECT_EQ(read<HlsMediaPlaylist>(mark + "#EXTM3U\n#EXTINF:2,\na.ts\n").segments.size(), 1u);
    // Only at the very start: a mark further on is text like any other.
    EXPECT_FALSE(HlsReader::read("\n" + mark + "#EXTM3U\n#EXTINF:2,\na.ts\n", base));
}

} // namespace
