// Playlists read into the presentation model and written back as the player receives them: the
// master with its stream tree, media playlists with segments, keys, map and byte ranges on the
// redirect scheme, the rewritten-URL layout, attribute lists, and fixtures shaped like those
// real packagers and origins publish.
#include "PlayList/MasterPlayList.h"
#include "PlayList/MediaPlayList.h"
#include "PlayList/PlayListText.h"
#include "PlayList/Presentation.h"
#include "PlayList/RewrittenUrl.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>

namespace ovalto {
namespace {

namespace fs = std::filesystem;
using Segment = RewrittenUrl::Segment;
using Address = RewrittenUrl::PlayList;

template <class T> std::string text(const std::optional<T>& value) {
    if (!value) return "-";
    if constexpr (std::is_same_v<T, platform::Url>)
        return value->absoluteString();
    else if constexpr (std::is_same_v<T, platform::MediaTime>)
        return std::to_string(value->value) +
               (value->timescale == 1000 ? "" : "/" + std::to_string(value->timescale));
    else
        return std::to_string(*value);
}

// The stream tree, one line per representation: media type, key, bitrate and URL.
std::string tree(const Presentation& presentation) {
    std::string lines;
    for (const auto& stream : presentation.streams.get())
        for (const auto& [key, representation] : stream->representations.get())
            lines += std::string(stream->mediaType.get().rawValue()) + " " + std::to_string(key) + " " +
                     text(representation->bitrate.get()) + " " + text(representation->url.get()) + "\n";
    return lines;
}

// One line per fragment: index, start+duration in milliseconds, length@offset, URL.
std::string segments(const std::vector<std::shared_ptr<Fragment>>& fragments) {
    std::string lines;
    for (const auto& f : fragments)
        lines += text(f->index.get()) + " " + text(f->start()) + "+" + text(f->duration()) + " " +
                 text(f->length()) + "@" + text(f->offset()) + " " + text(f->url.get()) + "\n";
    return lines;
}

const platform::Url masterBase = *platform::Url::parse("http://example.com/v/index.m3u8");
const platform::Url mediaBase = *platform::Url::parse("http://cdn.example.com/v/lo/index.m3u8?token=1");

struct Master {
    std::shared_ptr<Presentation> presentation = std::make_shared<Presentation>();
    bool parsed = false;
    std::string text;
};

Master rewriteMaster(std::string_view source, const platform::Url& base = masterBase) {
    Master result;
    MasterPlayList master;
    result.parsed = master.parsePlayList(source, base, *result.presentation);
    if (result.parsed) result.text = master.generatePlayList(*result.presentation).value_or("<none>");
    return result;
}

std::shared_ptr<Representation> placed(long stream = 1, std::int32_t bitrate = 800000) {
    auto representation = std::make_shared<Representation>();
    representation->streamIndex.set(stream);
    representation->bitrate.set(bitrate);
    return representation;
}

// Parses `source` into `representation` and generates; "<refused>" when the generator refuses.
// Every playlist is also written through a sink in the smallest pieces, which must add up to the
// same text, or hand over nothing at all for a refusal.
std::string rewriteMedia(Representation& representation, std::string_view source,
                         const platform::Url& base = mediaBase) {
    MediaPlayList media;
    if (!media.parsePlayList(source, base, representation)) return "<not parsed>";
    std::string streamed;
    std::size_t pieces = 0;
    const bool written = media.writePlayList(
        representation,
        [&](std::string_view piece) {
            streamed += piece;
            ++pieces;
        },
        1);
    const auto generated = media.generatePlayList(representation);
    EXPECT_EQ(written, generated.has_value());
    EXPECT_EQ(streamed, generated.value_or("")) << source;
    EXPECT_GE(pieces, generated ? representation.fragments.get().size() : 0) << source;
    return generated.value_or("<refused>");
}

std::string rewriteMedia(std::string_view source) {
    return rewriteMedia(*placed(), source);
}

const std::string header = "#EXTM3U\n#EXT-X-VERSION:7\n";
const std::string head = header + "#EXT-X-TARGETDURATION:4\n#EXT-X-MEDIA-SEQUENCE:0\n";
const std::string source = "#EXTM3U\n#EXT-X-TARGETDURATION:4\n#EXT-X-MEDIA-SEQUENCE:0\n";

// The library logs every playlist at debug level; the capture keeps that off the test output
// and lets a test read it.
class PlayListTest : public ::testing::Test {
protected:
    test::LogCapture log;
};

TEST(ParseAttributeTest, ReadsNamesAndValuesInSourceOrder) {
    const std::pair<std::string, std::string> cases[] = {
        {"#EXT-X-KEY:METHOD=NONE", "[METHOD]=[NONE]"},
        {"#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"skd://k1?a=b,c\",KEYFORMAT=\"com.apple.streamingkeydelivery\"",
         "[METHOD]=[SAMPLE-AES][URI]=[\"skd://k1?a=b,c\"][KEYFORMAT]=[\"com.apple.streamingkeydelivery\"]"},
        {"#X:A=1, B=2", "[A]=[1][B]=[2]"},
        {"#X:A= 1", "[A]=[ 1]"},
        {"#EXT-X-ENDLIST", ""},
        {"#X:novalue", ""},
        {"#X:A=1,A=2,B=3", "[A]=[2][B]=[3]"},
        {"#X:A=\"x\",,B=2,", "[A]=[\"x\"][B]=[2]"},
        {"#X:A=\"\"", "[A]=[\"\"]"},
        {"#X:A=1:2,B=3", "[A]=[1:2][B]=[3]"},
        {"#X:=5", "[]=[5]"},
        // An unterminated quote takes the rest of the line and ends the list.
        {"#X:A=1,B=\"open,C=3", "[A]=[1][B]=[\"open,C=3]"},
        {"#X:B=\"", "[B]=[\"]"},
    };
    for (const auto& [tag, expected] : cases) {
        std::string entries;
        for (const auto& [name, value] : PlayList::parseAttribute(tag))
            entries += "[" + name + "]=[" + value + "]";
        EXPECT_EQ(entries, expected) << tag;
    }
    // Quoted values write back as they came.
    const std::string list = "TYPE=AUDIO,GROUP-ID=\"aud\",NAME=\"en, main\",URI=\"a/en.m3u8\"";
    std::string written;
    for (const auto& [name, value] : PlayList::parseAttribute("#EXT-X-MEDIA:" + list))
        written += (written.empty() ? "" : ",") + name + "=" + value;
    EXPECT_EQ(written, list);
}

TEST(IsMasterTest, AnyExtinfLineMakesAMediaPlaylist) {
    EXPECT_TRUE(PlayList::isMaster(""));
    EXPECT_TRUE(PlayList::isMaster("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\na.m3u8"));
    EXPECT_FALSE(PlayList::isMaster("#EXTM3U\n#EXTINF:4,\na.ts"));
    EXPECT_FALSE(PlayList::isMaster("#EXTM3U\r\n \t#EXTINF:4,\r\na.ts"));
    EXPECT_TRUE(PlayList::isMaster("#EXTM3U\n# #EXTINF:4"));
}

TEST_F(PlayListTest, MediaPlaylistAsTopUrlBecomesOneVariantAroundIt) {
    // The only #EXTINF is indented: lines are trimmed before the test.
    const auto result = rewriteMaster("#EXTM3U\n#EXT-X-TARGETDURATION:4\n  #EXTINF:4,\nseg0.ts\n");
    ASSERT_TRUE(result.parsed);
    EXPECT_EQ(result.text, header + "#EXT-X-STREAM-INF:BANDWIDTH=1500000\n0/1500000/media.m3u8");
    EXPECT_EQ(tree(*result.presentation), "video 1500000 1500000 http://example.com/v/index.m3u8\n");
}

// Cases whose whole output shows the rule.
TEST_F(PlayListTest, GeneratedMasterPlaylists) {
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"one variant: no synthetic renditions, no VIDEO",
         "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=640000,CODECS=\"avc1.4d401f,mp4a.40.2\"\nonly.m3u8\n",
         header + "#EXT-X-STREAM-INF:BANDWIDTH=640000,CODECS=\"avc1.4d401f,mp4a.40.2\"\n0/640000/media.m3u8"},
        {"no BANDWIDTH: keyed 1500000, none added", "#EXTM3U\n#EXT-X-STREAM-INF:RESOLUTION=640x360\nv.m3u8\n",
         header + "#EXT-X-STREAM-INF:RESOLUTION=640x360\n0/1500000/media.m3u8"},
        {"equal BANDWIDTH: the later variant wins",
         "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=500,NAME=first\na.m3u8\n"
         "#EXT-X-STREAM-INF:BANDWIDTH=500,NAME=second\nb.m3u8\n",
         header + "#EXT-X-STREAM-INF:BANDWIDTH=500,NAME=second\n0/500/media.m3u8"},
        {"renditions before variants, wherever they stand",
         "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=500,SUBTITLES=\"s\"\na.m3u8\n"
         "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"s\",URI=\"s.m3u8\",NAME=\"de\"\n",
         header + "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"s\",NAME=\"de\",URI=\"0/0/media.m3u8\"\n"
                  "#EXT-X-STREAM-INF:BANDWIDTH=500,SUBTITLES=\"s\"\n1/500/media.m3u8"},
        {"closed captions without URI get no URI",
         "#EXTM3U\n#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID=\"cc\",NAME=\"en\",INSTREAM-ID=\"CC1\"\n",
         header + "#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID=\"cc\",NAME=\"en\",INSTREAM-ID=\"CC1\""},
        {"a TYPE=VIDEO rendition is a video stream keyed 0",
         "#EXTM3U\n#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID=\"cam\",NAME=\"wide\",URI=\"wide.m3u8\"\n"
         "#EXT-X-STREAM-INF:BANDWIDTH=500,VIDEO=\"cam\"\na.m3u8\n",
         header + "#EXT-X-STREAM-INF:\n0/0/media.m3u8\n#EXT-X-STREAM-INF:BANDWIDTH=500,VIDEO=\"cam\"\n1/500/"
                  "media.m3u8"},
        {"a source VIDEO group stays beside the added one",
         "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=2,VIDEO=\"cam\"\nb.m3u8\n#EXT-X-STREAM-INF:BANDWIDTH=1\na."
         "m3u8\n",
         header + "#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID=\"1\",NAME=\"1\",DEFAULT=NO,URI=\"0/1/media.m3u8\"\n"
                  "#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID=\"1\",NAME=\"2\",DEFAULT=YES,URI=\"0/1/media.m3u8\"\n"
                  "#EXT-X-STREAM-INF:BANDWIDTH=1,VIDEO=\"1\"\n0/1/media.m3u8\n"
                  "#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID=\"2\",NAME=\"1\",DEFAULT=NO,URI=\"0/1/media.m3u8\"\n"
                  "#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID=\"2\",NAME=\"2\",DEFAULT=YES,URI=\"0/2/media.m3u8\"\n"
                  "#EXT-X-STREAM-INF:BANDWIDTH=2,VIDEO=\"cam\",VIDEO=\"2\"\n0/2/media.m3u8"},
        {"empty master: the header only", "#EXTM3U\n", "#EXTM3U\n#EXT-X-VERSION:7"},
        {"I-frame streams, version and other tags are dropped; CRLF reads like LF",
         "#EXTM3U\r\n#EXT-X-VERSION:6\r\n#EXT-X-INDEPENDENT-SEGMENTS\r\n"
         "#EXT-X-I-FRAME-STREAM-INF:BANDWIDTH=90000,URI=\"iframe.m3u8\"\r\n"
         "#EXT-X-STREAM-INF:BANDWIDTH=700000\r\nv.m3u8\r\n",
         header + "#EXT-X-STREAM-INF:BANDWIDTH=700000\n0/700000/media.m3u8"},
    };
    for (const auto& [what, input, expected] : cases) {
        SCOPED_TRACE(what);
        const auto result = rewriteMaster(input);
        EXPECT_TRUE(result.parsed);
        EXPECT_EQ(result.text, expected);
        EXPECT_EQ(MasterPlayList::rewrittenSize(*result.presentation), result.text.size());
    }
}

// `variants` variants with bandwidths of every length, negative ones included.
std::string manyVariants(int variants) {
    std::string source = "#EXTM3U\n#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\",NAME=\"en\",URI=\"en.m3u8\"\n";
    for (int i = 0; i < variants; ++i)
        source += "#EXT-X-STREAM-INF:BANDWIDTH=" + std::to_string((i % 7 - 2) * (i * i + 3)) +
                  ",AUDIO=\"a\"\nv" + std::to_string(i) + ".m3u8\n";
    return source;
}

TEST_F(PlayListTest, TheRewrittenMasterSizeIsKnownBeforehandAndTooLargeARewriteIsRefused) {
    for (int variants : {2, 9, 10, 11, 120}) {
        const auto result = rewriteMaster(manyVariants(variants));
        ASSERT_TRUE(result.parsed);
        EXPECT_EQ(MasterPlayList::rewrittenSize(*result.presentation), result.text.size()) << variants;
    }
    // 10,000 variants would make about 10 GB: refused at once, nothing written.
    auto presentation = std::make_shared<Presentation>();
    MasterPlayList master;
    ASSERT_TRUE(master.parsePlayList(manyVariants(10000), masterBase, *presentation));
    EXPECT_FALSE(master.generatePlayList(*presentation));
    ASSERT_TRUE(master.refusedSize());
    EXPECT_GT(*master.refusedSize(), 100 * MasterPlayList::maximumRewrittenSize);
    EXPECT_FALSE(presentation->playList.get());
    EXPECT_TRUE(log.contains("[Error MasterPlayList|generatePlayList(container:)|"));
    EXPECT_TRUE(log.contains(MasterPlayList::refusal(*master.refusedSize())));
}

TEST_F(PlayListTest, LaterUriLineRepointsThePendingVariant) {
    const auto result =
        rewriteMaster("#EXTM3U\nignored.m3u8\n#EXT-X-STREAM-INF:BANDWIDTH=500\na.m3u8\nb.m3u8\n");
    EXPECT_EQ(tree(*result.presentation), "video 500 500 http://example.com/v/b.m3u8\n");
}

TEST_F(PlayListTest, UnreadableBandwidthKeysTheVariantAtTheDefaultWithAWarning) {
    for (const std::string bandwidth : {"2147483648", "12 ", "1.5e6", ""}) {
        SCOPED_TRACE(bandwidth);
        log.clear();
        const auto result =
            rewriteMaster("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=" + bandwidth + ",CODECS=\"avc1\"\nv.m3u8\n");
        EXPECT_EQ(result.text, header + "#EXT-X-STREAM-INF:BANDWIDTH=" + bandwidth +
                                   ",CODECS=\"avc1\"\n0/1500000/media.m3u8");
        EXPECT_EQ(tree(*result.presentation), "video 1500000 1500000 http://example.com/v/v.m3u8\n");
        EXPECT_TRUE(log.contains("[Warning MasterPlayList|parsePlayList(playList:baseUrl:container:)|"));
        EXPECT_TRUE(log.contains("BANDWIDTH=" + bandwidth + " is not a 32-bit decimal integer"));
    }
}

TEST_F(PlayListTest, RefusesWhatIsNotAPlaylistAndLeavesTheModelAlone) {
    Presentation presentation;
    MasterPlayList master;
    ASSERT_TRUE(
        master.parsePlayList("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\na.m3u8\n", masterBase, presentation));
    auto representation = placed();
    ASSERT_NE(rewriteMedia(*representation, source + "#EXTINF:4,\na.ts\n"), "<not parsed>");
    MediaPlayList media;
    for (const std::string bad :
         {"<html></html>", "", " #EXTM3U", "#EXTM3U\n\xff\xfe", "seg.ts", "#EXTM3U\n\xc0\xaf"}) {
        EXPECT_FALSE(master.parsePlayList(bad, masterBase, presentation)) << bad;
        EXPECT_FALSE(media.parsePlayList(bad, mediaBase, *representation)) << bad;
    }
    EXPECT_EQ(std::tuple(presentation.streams.get().size(), representation->fragments.get().size()),
              std::tuple(1u, 1u));
    // Each kind of playlist goes into its own kind of model only.
    EXPECT_FALSE(master.parsePlayList("#EXTM3U\n", masterBase, *representation));
    EXPECT_FALSE(master.generatePlayList(*representation));
    EXPECT_FALSE(media.parsePlayList("#EXTM3U\n", mediaBase, presentation));

    // No stream index or bitrate yet: refused without a word.
    Representation unplaced;
    ASSERT_TRUE(media.parsePlayList(source + "#EXTINF:4,\na.ts\n", mediaBase, unplaced));
    log.clear();
    EXPECT_FALSE(media.generatePlayList(unplaced));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(PlayListTest, GeneratedMediaPlaylists) {
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"no end tag: live, none written", source + "#EXTINF:4,\na.ts\n",
         head + "#EXTINF:4.0\nrdtp://local/1/800000/0.ts"},
        {"a segment given two URI lines is listed twice at the last one; a byte range after its URI "
         "still applies, and the next segment starts without it",
         source + "#EXTINF:4,\na.ts\n#EXT-X-BYTERANGE:10@0\nb.ts\n#EXTINF:4,\nc.ts\n",
         head + "#EXTINF:4.0\n#EXT-X-BYTERANGE:10@0\nrdtp://local/1/800000/0.ts\n#EXTINF:4.0\n"
                "#EXT-X-BYTERANGE:10@0\nrdtp://local/1/800000/1.ts\n#EXTINF:4.0\nrdtp://local/1/800000/2.ts"},
        {"a byte range before any segment is ignored", source + "#EXT-X-BYTERANGE:7@0\n#EXTINF:4,\na.ts\n",
         head + "#EXTINF:4.0\nrdtp://local/1/800000/0.ts"},
        {"key at position 0, replaced; a key after the last segment is not written",
         source + "#EXT-X-KEY:METHOD=AES-128,URI=\"k0\"\n#EXT-X-KEY:METHOD=AES-128,URI=\"k1\",IV=0x01\n"
                  "#EXTINF:4,\na.ts\n#EXT-X-KEY:METHOD=NONE\n#EXTINF:4,\nb.ts\n#EXT-X-KEY:METHOD=AES-128,URI="
                  "\"k2\"\n",
         head + "#EXT-X-KEY:METHOD=AES-128,URI=\"k1\",IV=0x01\n#EXTINF:4.0\nrdtp://local/1/800000/0.ts\n"
                "#EXT-X-KEY:METHOD=NONE\n#EXTINF:4.0\nrdtp://local/1/800000/1.ts"},
        {"9.9999 s is kept as 9999 ms", source + "#EXTINF:9.9999,\na.ts\n",
         head + "#EXTINF:9.999\nrdtp://local/1/800000/0.ts"},
        {"durations read exactly as written, not through a binary double",
         source + "#EXTINF:1.001,\na\n#EXTINF:6006e-3,\nb\n#EXTINF:+.5,\nc\n",
         head + "#EXTINF:1.001\nrdtp://local/1/800000/0.ts\n#EXTINF:6.006\nrdtp://local/1/800000/1.ts\n"
                "#EXTINF:0.5\nrdtp://local/1/800000/2.ts"},
        {"#EXTINF without comma, title dropped", source + "#EXTINF:4\na.ts\n#EXTINF:0.5,Title: x\nb.ts\n",
         head + "#EXTINF:4.0\nrdtp://local/1/800000/0.ts\n#EXTINF:0.5\nrdtp://local/1/800000/1.ts"},
        {"map attributes keep their order, only URI rewritten",
         source + "#EXT-X-MAP:BYTERANGE=\"720@0\",URI=\"main.mp4\"\n#EXTINF:4,\na.ts\n",
         head + "#EXT-X-MAP:BYTERANGE=\"720@0\",URI=\"rdtp://local/1/800000/-1.ts\"\n#EXTINF:4.0\n"
                "rdtp://local/1/800000/0.ts"},
        {"missing target duration is refused", "#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:0\n#EXTINF:4,\na.ts\n",
         "<refused>"},
        {"unreadable media sequence is refused",
         "#EXTM3U\n#EXT-X-TARGETDURATION:4\n#EXT-X-MEDIA-SEQUENCE:x\n", "<refused>"},
        {"a duration that is not a number is refused", source + "#EXTINF:four,\na.ts\n", "<refused>"},
        {"a duration that is not finite is refused", source + "#EXTINF:inf,\na.ts\n", "<refused>"},
        {"a duration beyond 64 bits of milliseconds is refused", source + "#EXTINF:1e16,\na.ts\n",
         "<refused>"},
        {"a sequence with no room for the indexes is refused",
         "#EXTM3U\n#EXT-X-TARGETDURATION:4\n#EXT-X-MEDIA-SEQUENCE:9223372036854775807\n#EXTINF:4,\na\n#"
         "EXTINF:4,\nb\n",
         "<refused>"},
        {"not a playlist", "<html>", "<not parsed>"},
        {"[Warning MediaPlayList|generatePlayList(container:)|101] The EXT-X-TARGETDURATION and "
         "EXT-X-MEDIA-SEQUENCE tags are REQUIRED.",
         "#EXTM3U\n#EXTINF:4,\na.ts\n", "<refused>"},
        {"[Warning MediaPlayList|generatePlayList(container:)|133] The fragment duration is REQUIRED.",
         source + "#EXTINF:4,\na.ts\n#EXTINF:,\nb.ts\n", "<refused>"},
    };
    for (const auto& [what, input, expected] : cases) {
        SCOPED_TRACE(what);
        log.clear();
        auto representation = placed();
        EXPECT_EQ(rewriteMedia(*representation, input), expected);
        // A refusal leaves no playlist behind, and a logged warning says why.
        EXPECT_EQ(representation->playList.get().has_value(), expected[0] != '<');
        EXPECT_TRUE(what[0] != '[' || log.contains(what));
    }
    // Durations are written as the shortest decimal of their seconds.
    for (const std::string seconds : {"0.0", "0.001", "0.01", "0.999", "1.0", "1.001", "10.01", "-0.001",
                                      "-6.006", "123456.789", "999999999999.999"}) {
        EXPECT_EQ(rewriteMedia(source + "#EXTINF:" + seconds + ",\na.ts\n"),
                  head + "#EXTINF:" + seconds + "\nrdtp://local/1/800000/0.ts");
    }
}

TEST_F(PlayListTest, LiveReloadContinuesTheRunningStartAndTheMediaSequence) {
    auto representation = placed(0, 1500000);
    const std::string first = "#EXTM3U\n#EXT-X-TARGETDURATION:6\n#EXT-X-MEDIA-SEQUENCE:120\n"
                              "#EXTINF:6,\ns120.ts\n#EXTINF:6,\ns121.ts\n#EXTINF:6,\ns122.ts\n";
    const std::string second = "#EXTM3U\n#EXT-X-TARGETDURATION:6\n#EXT-X-MEDIA-SEQUENCE:121\n"
                               "#EXTINF:6,\ns121.ts\n#EXTINF:6,\ns122.ts\n#EXTINF:6,\ns123.ts\n";
    ASSERT_NE(rewriteMedia(*representation, first), "<refused>");
    EXPECT_EQ(text(representation->start.get()), "18000");
    EXPECT_EQ(rewriteMedia(*representation, second),
              header +
                  "#EXT-X-TARGETDURATION:6\n#EXT-X-MEDIA-SEQUENCE:121\n"
                  "#EXTINF:6.0\nrdtp://local/0/1500000/121.ts\n#EXTINF:6.0\nrdtp://local/0/1500000/122.ts\n"
                  "#EXTINF:6.0\nrdtp://local/0/1500000/123.ts");
    // The running time goes on from where the previous list ended, overlap and all.
    EXPECT_EQ(segments(representation->fragments.get()),
              "121 18000+6000 -@- http://cdn.example.com/v/lo/s121.ts\n"
              "122 24000+6000 -@- http://cdn.example.com/v/lo/s122.ts\n"
              "123 30000+6000 -@- http://cdn.example.com/v/lo/s123.ts\n");
    EXPECT_EQ(text(representation->start.get()), "36000");
    EXPECT_TRUE(representation->isLive.get());

    // The end tag turns the representation into VOD for good.
    rewriteMedia(*representation, second + "#EXT-X-ENDLIST\n");
    rewriteMedia(*representation, second);
    EXPECT_FALSE(representation->isLive.get());
}

TEST_F(PlayListTest, MediaReloadKeepsWhatTheNewPlaylistDoesNotSayAndForgetsTheRest) {
    auto representation = placed();
    representation->streamAttributes.set(AttributeList{{"BANDWIDTH", "800000"}});
    rewriteMedia(*representation, source + "#EXT-X-PLAYLIST-TYPE:EVENT\n#EXT-X-MAP:URI=\"init.mp4\"\n"
                                           "#EXT-X-KEY:METHOD=NONE\n#EXTINF:4,\na.ts\n");
    EXPECT_EQ(rewriteMedia(*representation, "#EXTM3U\n#EXTINF:4,\nb.ts\n"),
              head + "#EXTINF:4.0\nrdtp://local/1/800000/0.ts");
    EXPECT_TRUE(representation->streamAttributes.get().empty());
    EXPECT_TRUE(representation->keyAttributes.get().empty());
    EXPECT_EQ(text(representation->initialURL.get()), "http://cdn.example.com/v/lo/init.mp4");
}

// Fragments carry their byte ranges; one without a readable duration has no start either and
// does not move the running time. Fragments make their URLs from the segment lines when read:
// they must outlive the text that was parsed and the playlist's next parse, and a URL that is
// set must win.
TEST_F(PlayListTest, FragmentsKeepByteRangesAndUrlsBeyondTheParsedText) {
    auto representation = placed();
    MediaPlayList media;
    auto parsed =
        std::make_unique<std::string>(source + "#EXTINF:2.5,\n#EXT-X-BYTERANGE:1000@2000\nall.mp4\n"
                                               "#EXTINF:nope,\n#EXT-X-BYTERANGE:500\nall.mp4\n"
                                               "#EXTINF:1,\nseg%2f3.ts?sig=a%2fb\n#EXTINF:1,\nsp ace.ts\n");
    ASSERT_TRUE(media.parsePlayList(*parsed, mediaBase, *representation));
    std::fill(parsed->begin(), parsed->end(), 'x');
    parsed.reset();
    const auto fragments = representation->fragments.get();
    ASSERT_TRUE(media.parsePlayList(source + "#EXTINF:1,\nnext.ts\n", mediaBase, *representation));
    EXPECT_EQ(segments(fragments), "- 0+2500 1000@2000 http://cdn.example.com/v/lo/all.mp4\n"
                                   "- -+- 500@- http://cdn.example.com/v/lo/all.mp4\n"
                                   "- 2500+1000 -@- http://cdn.example.com/v/lo/seg%2f3.ts?sig=a%2fb\n"
                                   "- 3500+1000 -@- -\n");
    fragments[0]->url.set(platform::Url::parse("http://other.test/a.mp4"));
    fragments[1]->url.set(std::nullopt);
    EXPECT_EQ(segments({fragments.begin(), fragments.begin() + 3}),
              "- 0+2500 1000@2000 http://other.test/a.mp4\n- -+- 500@- -\n"
              "- 2500+1000 -@- http://cdn.example.com/v/lo/seg%2f3.ts?sig=a%2fb\n");
}

// The number readers take a shortcut for plain digits; whatever the shortcut accepts must read
// as the general reader reads it, and what it does not take must still reach the general one.
TEST(PlayListText, NumberShortcutsAgreeWithTheGeneralReaders) {
    using namespace playlisttext;
    // Space-separated, then the texts that hold a blank or nothing.
    std::istringstream words(
        "0 6 6. 6.006 6.0069 0006.0060 10.5 .5 +.5 -1.5 1e3 1.5E-1 . 6.0.0 6, -0 +7 0x10 "
        "12345678901234.5 123456789012345 123456789012345.5 9223372036854775.807 "
        "9223372036854775.808 999999999 4294967296");
    std::vector<std::string> texts{"", " 6"};
    for (std::string word; words >> word;)
        texts.push_back(word);
    for (const std::string_view text : texts) {
        SCOPED_TRACE(text);
        EXPECT_EQ(parseMilliseconds(text), parseMillisecondsInGeneral(text));
        EXPECT_EQ(parseInteger<std::int64_t>(text), parseIntegerInGeneral<std::int64_t>(text));
        EXPECT_EQ(parseInteger<std::int32_t>(text), parseIntegerInGeneral<std::int32_t>(text));
        EXPECT_EQ(parseInteger<std::uint32_t>(text), parseIntegerInGeneral<std::uint32_t>(text));
    }
    EXPECT_EQ(std::tuple(parseMilliseconds("0006.0069"), parseMilliseconds("12345678901234.5"),
                         parseInteger<std::int32_t>("999999999"), parseInteger<std::int32_t>("4294967296")),
              std::tuple(6006, 12345678901234500, 999999999, std::nullopt));
}

const fs::path fixtures = fs::path(OVALTO_TEST_DATA) / "playlists";

std::string read(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

TEST_F(PlayListTest, EveryFixtureRewritesToItsExpectedFile) {
    const auto masterUrl =
        *platform::Url::parse("https://media.example.com/content/show/master.m3u8?token=abc");
    const auto mediaUrl = *platform::Url::parse("https://media.example.com/content/show/v1/prog_index.m3u8");
    int compared = 0;
    for (const auto& entry : fs::directory_iterator(fixtures)) {
        const fs::path path = entry.path(), expected = fs::path(path).replace_extension(".expected");
        if (path.extension() != ".m3u8" || !fs::exists(expected)) continue;
        const std::string name = path.filename().string();
        SCOPED_TRACE(name);
        const bool isMaster = name.starts_with("master_");
        const Master master = isMaster ? rewriteMaster(read(path), masterUrl) : Master{};
        const std::string rewritten = !isMaster       ? rewriteMedia(*placed(), read(path), mediaUrl)
                                      : master.parsed ? master.text
                                                      : "<not parsed>";
        // The expected files end with a newline, as text files do; the generators write none.
        EXPECT_EQ(rewritten + "\n", read(expected));
        ++compared;
        if (name != "master_packager_absolute.m3u8") continue;
        // Master URIs resolve against the master URL.
        EXPECT_EQ(tree(*master.presentation),
                  "audio 0 0 https://cdn2.example.net/ocean/audio/stereo_en.m3u8?sig=ab12\n"
                  "audio 0 0 https://media.example.com/ocean/audio/stereo_es.m3u8\n"
                  "text 0 0 https://media.example.com/content/show/text/en.m3u8\n"
                  "video 1105696 1105696 https://cdn1.example.net/ocean/video/360p.m3u8?sig=cd34\n"
                  "video 2931008 2931008 https://media.example.com/ocean/video/720p.m3u8\n"
                  "video 5481306 5481306 https://media.example.com/content/show/video/1080p.m3u8\n");
    }
    EXPECT_GE(compared, 6);
}

TEST(RewrittenUrl, WhatIsWrittenReadsBack) {
    using I32 = std::numeric_limits<std::int32_t>;
    using I64 = std::numeric_limits<std::int64_t>;
    const Segment samples[] = {{0, 1500000, 0},
                               {1, 800000, 120},
                               {0, 0, RewrittenUrl::initialSection},
                               {14, I32::max(), I64::max()},
                               {std::numeric_limits<long>::max(), I32::min(), I64::min()},
                               {3, -5, -2}};
    const auto master = platform::Url::parse(RewrittenUrl::master);
    ASSERT_TRUE(master);
    EXPECT_EQ(RewrittenUrl::readPlayList(*master), Address{.isMaster = true});
    for (const auto& written : samples) {
        SCOPED_TRACE(std::to_string(written.stream) + "/" + std::to_string(written.bitrate) + "/" +
                     std::to_string(written.index));
        const auto url =
            platform::Url::parse(RewrittenUrl::segment(written.stream, written.bitrate, written.index));
        ASSERT_TRUE(url);
        EXPECT_EQ(std::tuple(url->scheme(), url->host()), std::tuple(RewrittenUrl::redirectScheme, "local"));
        EXPECT_EQ(RewrittenUrl::readSegment(*url), written);
        EXPECT_EQ(RewrittenUrl::readSegment(*url)->isInitialSection(), written.index == -1);

        // The media playlist's relative URI, as the player resolves it against the master.
        std::string relative;
        RewrittenUrl::appendMediaPlayList(relative, written.stream, written.bitrate);
        const auto media = platform::Url::parse(relative, *master);
        ASSERT_TRUE(media) << relative;
        EXPECT_EQ(media->scheme(), RewrittenUrl::playListScheme);
        EXPECT_EQ(RewrittenUrl::readPlayList(*media),
                  (Address{.isMaster = false, .stream = written.stream, .bitrate = written.bitrate}));
    }
}

TEST(RewrittenUrl, ReadsTheSegmentAndPlayListPathsTheResourcesAccept) {
    const std::pair<const char*, std::optional<Segment>> cases[] = {
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
    for (const auto& [path, expected] : cases)
        EXPECT_EQ(RewrittenUrl::readSegment(std::string_view(path)), expected) << path;
    // Escapes are read decoded.
    EXPECT_EQ(RewrittenUrl::readSegment(*platform::Url::parse("rdtp://local/%30/8%30/1%2Ets")),
              (Segment{0, 80, 1}));
    const std::pair<const char*, std::optional<Address>> playLists[] = {
        {"/master.m3u8", Address{.isMaster = true}},
        {"/any/where/my-master.m3u8", Address{.isMaster = true}},
        {"/1/800000/media.m3u8", Address{.isMaster = false, .stream = 1, .bitrate = 800000}},
        {"/1/800000", Address{.isMaster = false, .stream = 1, .bitrate = 800000}},
        {"/-1/0/media.m3u8", Address{.isMaster = false, .stream = -1, .bitrate = 0}},
        {"/1", std::nullopt},
        {"/1/x/media.m3u8", std::nullopt},
        {"/1/4294967296/media.m3u8", std::nullopt},
        {"/master.m3u8/", std::nullopt},
    };
    for (const auto& [path, expected] : playLists)
        EXPECT_EQ(RewrittenUrl::readPlayList(std::string_view(path)), expected) << path;
}

} // namespace
} // namespace ovalto
