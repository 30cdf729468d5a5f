// The media playlist: segments, keys, map and byte ranges read into a representation, and the
// playlist the player receives with every segment on the redirect scheme.
#include "PlayList/MediaPlayList.h"
#include "PlayList/PlayListText.h"
#include "PlayList/Presentation.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace ovalto;

namespace {

const platform::Url base = *platform::Url::parse("http://cdn.example.com/v/lo/index.m3u8?token=1");

std::shared_ptr<Representation> makeRepresentation(long stream = 1, std::int32_t bitrate = 800000) {
    auto representation = std::make_shared<Representation>();
    representation->streamIndex.set(stream);
    representation->bitrate.set(bitrate);
    return representation;
}

// Parses `source` into `representation` and generates; "<refused>" when the generator refuses.
// Every playlist is also written through a sink in the smallest pieces, which must add up to the
// same text, or hand over nothing at all for a refusal.
std::string rewrite(Representation& representation, std::string_view source) {
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
    if (generated) {
        EXPECT_GE(pieces, representation.fragments.get().size()) << source;
    }
    return generated.value_or("<refused>");
}

std::string rewrite(std::string_view source) {
    return rewrite(*makeRepresentation(), source);
}

const std::string head = "#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-TARGETDURATION:4\n#EXT-X-MEDIA-SEQUENCE:0\n";
const std::string source = "#EXTM3U\n#EXT-X-TARGETDURATION:4\n#EXT-X-MEDIA-SEQUENCE:0\n";

std::int64_t milliseconds(const std::optional<platform::MediaTime>& time) {
    if (!time) return -1;
    EXPECT_EQ(time->timescale, 1000);
    return time->value;
}

} // namespace

// The library logs every playlist at debug level; the capture keeps that off the test output
// and lets a test read it.
class MediaPlayListTest : public ::testing::Test {
protected:
    test::LogCapture log;
};

TEST_F(MediaPlayListTest, RewritesSegmentsMapAndKeys) {
    auto representation = makeRepresentation();
    const auto text = rewrite(*representation, "#EXTM3U\n"
                                               "#EXT-X-VERSION:6\n"
                                               "#EXT-X-TARGETDURATION:6\n"
                                               "#EXT-X-MEDIA-SEQUENCE:120\n"
                                               "#EXT-X-PLAYLIST-TYPE:VOD\n"
                                               "#EXT-X-MAP:URI=\"init.mp4\"\n"
                                               "#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"skd://k1\"\n"
                                               "#EXTINF:6.006,\n"
                                               "seg120.m4s\n"
                                               "#EXT-X-DISCONTINUITY\n"
                                               "#EXTINF:5.5,\n"
                                               "seg121.m4s\n"
                                               "#EXT-X-ENDLIST\n");
    EXPECT_EQ(text, "#EXTM3U\n"
                    "#EXT-X-VERSION:7\n"
                    "#EXT-X-TARGETDURATION:6\n"
                    "#EXT-X-MEDIA-SEQUENCE:120\n"
                    "#EXT-X-PLAYLIST-TYPE:VOD\n"
                    "#EXT-X-MAP:URI=\"rdtp://local/1/800000/-1.ts\"\n"
                    "#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"skd://k1\"\n"
                    "#EXTINF:6.006\n"
                    "rdtp://local/1/800000/120.ts\n"
                    "#EXTINF:5.5\n"
                    "rdtp://local/1/800000/121.ts\n"
                    "#EXT-X-ENDLIST");
    EXPECT_EQ(representation->playList.get(), text);
    EXPECT_FALSE(representation->isLive.get());
    EXPECT_EQ(representation->initialURL.get()->absoluteString(), "http://cdn.example.com/v/lo/init.mp4");
    const auto fragments = representation->fragments.get();
    ASSERT_EQ(fragments.size(), 2u);
    EXPECT_EQ(fragments[0]->index.get(), 120);
    EXPECT_EQ(fragments[1]->index.get(), 121);
    EXPECT_EQ(milliseconds(fragments[0]->start()), 0);
    EXPECT_EQ(milliseconds(fragments[1]->start()), 6006);
    EXPECT_EQ(milliseconds(fragments[0]->duration()), 6006);
    EXPECT_EQ(milliseconds(fragments[1]->duration()), 5500);
    EXPECT_EQ(milliseconds(representation->start.get()), 11506);
    EXPECT_EQ(fragments[0]->url.get()->absoluteString(), "http://cdn.example.com/v/lo/seg120.m4s");
    EXPECT_EQ(representation->keyAttributes.get().at(0).value("URI"), "\"skd://k1\"");
}

TEST_F(MediaPlayListTest, GeneratedPlaylists) {
    struct Case {
        const char* what;
        std::string source;
        std::string expected;
    };
    const std::vector<Case> cases{
        {"no end tag: live, none written", source + "#EXTINF:4,\na.ts\n",
         head + "#EXTINF:4.0\nrdtp://local/1/800000/0.ts"},
        {"byte ranges with and without offset",
         source + "#EXTINF:4,\n#EXT-X-BYTERANGE:1000@2000\na.ts\n#EXTINF:4,\n#EXT-X-BYTERANGE:500\na.ts\n",
         head + "#EXTINF:4.0\n#EXT-X-BYTERANGE:1000@2000\nrdtp://local/1/800000/0.ts\n"
                "#EXTINF:4.0\n#EXT-X-BYTERANGE:500\nrdtp://local/1/800000/1.ts"},
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
        {"sequence 0, three segments",
         source + "#EXTINF:1,\na\n#EXTINF:2,\nb\n#EXTINF:3,\nc\n#EXT-X-ENDLIST\n",
         head + "#EXTINF:1.0\nrdtp://local/1/800000/0.ts\n#EXTINF:2.0\nrdtp://local/1/800000/1.ts\n"
                "#EXTINF:3.0\nrdtp://local/1/800000/2.ts\n#EXT-X-ENDLIST"},
        {"9.9999 s is kept as 9999 ms", source + "#EXTINF:9.9999,\na.ts\n",
         head + "#EXTINF:9.999\nrdtp://local/1/800000/0.ts"},
        {"durations read exactly as written, not through a binary double",
         source + "#EXTINF:1.001,\na\n#EXTINF:6006e-3,\nb\n#EXTINF:+.5,\nc\n",
         head + "#EXTINF:1.001\nrdtp://local/1/800000/0.ts\n#EXTINF:6.006\nrdtp://local/1/800000/1.ts\n"
                "#EXTINF:0.5\nrdtp://local/1/800000/2.ts"},
        {"#EXTINF without comma, title dropped", source + "#EXTINF:4\na.ts\n#EXTINF:0.5,Title: x\nb.ts\n",
         head + "#EXTINF:4.0\nrdtp://local/1/800000/0.ts\n#EXTINF:0.5\nrdtp://local/1/800000/1.ts"},
        {"CRLF line endings",
         "#EXTM3U\r\n#EXT-X-TARGETDURATION:4\r\n#EXT-X-MEDIA-SEQUENCE:0\r\n#EXTINF:4,\r\na.ts\r\n#EXT-X-"
         "ENDLIST\r\n",
         head + "#EXTINF:4.0\nrdtp://local/1/800000/0.ts\n#EXT-X-ENDLIST"},
        {"map attributes keep their order, only URI rewritten",
         source + "#EXT-X-MAP:BYTERANGE=\"720@0\",URI=\"main.mp4\"\n#EXTINF:4,\na.ts\n",
         head + "#EXT-X-MAP:BYTERANGE=\"720@0\",URI=\"rdtp://local/1/800000/-1.ts\"\n#EXTINF:4.0\n"
                "rdtp://local/1/800000/0.ts"},
        {"unknown and bare tags dropped, playlist type kept",
         "#EXTM3U\n#EXT-X-PLAYLIST-TYPE:EVENT\n#EXT-X-TARGETDURATION:4\n#EXT-X-INDEPENDENT-SEGMENTS\n"
         "#EXT-X-MEDIA-SEQUENCE:0\n#EXT-X-PROGRAM-DATE-TIME:2024-01-01T00:00:00.000Z\n#EXT-X-GAP\n#EXTINF:4,"
         "\na.ts\n",
         "#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-TARGETDURATION:4\n#EXT-X-MEDIA-SEQUENCE:0\n"
         "#EXT-X-PLAYLIST-TYPE:EVENT\n#EXTINF:4.0\nrdtp://local/1/800000/0.ts"},
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
    };
    for (const auto& c : cases) {
        log.clear();
        EXPECT_EQ(rewrite(c.source), c.expected) << c.what;
    }
}

TEST_F(MediaPlayListTest, DurationsAreWrittenAsTheShortestDecimalOfTheirSeconds) {
    for (const char* seconds : {"0.0", "0.001", "0.01", "0.999", "1.0", "1.001", "10.01", "-0.001", "-6.006",
                                "123456.789", "999999999999.999"}) {
        EXPECT_EQ(rewrite(source + "#EXTINF:" + seconds + ",\na.ts\n"),
                  head + "#EXTINF:" + seconds + "\nrdtp://local/1/800000/0.ts");
    }
}

TEST_F(MediaPlayListTest, RefusalsLogTheirWarning) {
    struct Case {
        std::string source;
        std::string warning;
    };
    for (const auto& c : std::vector<Case>{
             {"#EXTM3U\n#EXTINF:4,\na.ts\n",
              "[Warning MediaPlayList|generatePlayList(container:)|101] The EXT-X-TARGETDURATION and "
              "EXT-X-MEDIA-SEQUENCE tags are REQUIRED."},
             {source + "#EXTINF:4,\na.ts\n#EXTINF:,\nb.ts\n",
              "[Warning MediaPlayList|generatePlayList(container:)|133] The fragment duration is REQUIRED."},
         }) {
        log.clear();
        auto representation = makeRepresentation();
        EXPECT_EQ(rewrite(*representation, c.source), "<refused>");
        EXPECT_TRUE(log.contains(c.warning)) << c.warning;
        EXPECT_FALSE(representation->playList.get());
    }
}

TEST_F(MediaPlayListTest, LiveReloadContinuesTheRunningStartAndTheMediaSequence) {
    auto representation = makeRepresentation(0, 1500000);
    const std::string first = "#EXTM3U\n#EXT-X-TARGETDURATION:6\n#EXT-X-MEDIA-SEQUENCE:120\n"
                              "#EXTINF:6,\ns120.ts\n#EXTINF:6,\ns121.ts\n#EXTINF:6,\ns122.ts\n";
    const std::string second = "#EXTM3U\n#EXT-X-TARGETDURATION:6\n#EXT-X-MEDIA-SEQUENCE:121\n"
                               "#EXTINF:6,\ns121.ts\n#EXTINF:6,\ns122.ts\n#EXTINF:6,\ns123.ts\n";
    ASSERT_NE(rewrite(*representation, first), "<refused>");
    EXPECT_EQ(milliseconds(representation->start.get()), 18000);
    EXPECT_EQ(rewrite(*representation, second),
              "#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-TARGETDURATION:6\n#EXT-X-MEDIA-SEQUENCE:121\n"
              "#EXTINF:6.0\nrdtp://local/0/1500000/121.ts\n#EXTINF:6.0\nrdtp://local/0/1500000/122.ts\n"
              "#EXTINF:6.0\nrdtp://local/0/1500000/123.ts");
    const auto fragments = representation->fragments.get();
    ASSERT_EQ(fragments.size(), 3u);
    // The running time goes on from where the previous list ended, overlap and all.
    EXPECT_EQ(milliseconds(fragments[0]->start()), 18000);
    EXPECT_EQ(milliseconds(fragments[2]->start()), 30000);
    EXPECT_EQ(milliseconds(representation->start.get()), 36000);
    EXPECT_TRUE(representation->isLive.get());

    // The end tag turns the representation into VOD for good.
    rewrite(*representation, second + "#EXT-X-ENDLIST\n");
    rewrite(*representation, second);
    EXPECT_FALSE(representation->isLive.get());
}

TEST_F(MediaPlayListTest, ReloadKeepsWhatTheNewPlaylistDoesNotSayAndForgetsTheRest) {
    auto representation = makeRepresentation();
    representation->streamAttributes.set(AttributeList{{"BANDWIDTH", "800000"}});
    rewrite(*representation, source + "#EXT-X-PLAYLIST-TYPE:EVENT\n#EXT-X-MAP:URI=\"init.mp4\"\n"
                                      "#EXT-X-KEY:METHOD=NONE\n#EXTINF:4,\na.ts\n");
    EXPECT_EQ(rewrite(*representation, "#EXTM3U\n#EXTINF:4,\nb.ts\n"),
              head + "#EXTINF:4.0\nrdtp://local/1/800000/0.ts");
    EXPECT_TRUE(representation->streamAttributes.get().empty());
    EXPECT_TRUE(representation->keyAttributes.get().empty());
    EXPECT_EQ(representation->initialURL.get()->absoluteString(), "http://cdn.example.com/v/lo/init.mp4");
}

TEST_F(MediaPlayListTest, FragmentsCarryByteRangesAndUnreadableDurationsStayEmpty) {
    auto representation = makeRepresentation();
    MediaPlayList media;
    ASSERT_TRUE(media.parsePlayList(source + "#EXTINF:2.5,\n#EXT-X-BYTERANGE:1000@2000\na.ts\n"
                                             "#EXTINF:nope,\n#EXT-X-BYTERANGE:500\nb.ts\n#EXTINF:1,\nc.ts\n",
                                    base, *representation));
    const auto fragments = representation->fragments.get();
    ASSERT_EQ(fragments.size(), 3u);
    EXPECT_EQ(fragments[0]->length(), 1000);
    EXPECT_EQ(fragments[0]->offset(), 2000);
    EXPECT_EQ(fragments[1]->length(), 500);
    EXPECT_FALSE(fragments[1]->offset());
    EXPECT_FALSE(fragments[1]->duration());
    EXPECT_FALSE(fragments[1]->start());
    // The segment without a duration does not move the running time.
    EXPECT_EQ(milliseconds(fragments[2]->start()), 2500);
}

// Fragments make their URLs from the segment lines when read: they must outlive the text that
// was parsed and the playlist's next parse, and a URL that is set must win.
TEST_F(MediaPlayListTest, FragmentUrlsOutliveTheParsedTextAndTakeReplacements) {
    auto representation = makeRepresentation();
    MediaPlayList media;
    auto text =
        std::make_unique<std::string>(source + "#EXTINF:1,\n#EXT-X-BYTERANGE:10@0\nall.mp4\n"
                                               "#EXTINF:1,\n#EXT-X-BYTERANGE:10@10\nall.mp4\n"
                                               "#EXTINF:1,\nseg%2f3.ts?sig=a%2fb\n#EXTINF:1,\nsp ace.ts\n");
    ASSERT_TRUE(media.parsePlayList(*text, base, *representation));
    std::fill(text->begin(), text->end(), 'x');
    text.reset();
    const auto fragments = representation->fragments.get();
    ASSERT_TRUE(media.parsePlayList(source + "#EXTINF:1,\nnext.ts\n", base, *representation));
    ASSERT_EQ(fragments.size(), 4u);
    const char* expected[] = {"http://cdn.example.com/v/lo/all.mp4", "http://cdn.example.com/v/lo/all.mp4",
                              "http://cdn.example.com/v/lo/seg%2f3.ts?sig=a%2fb", nullptr};
    for (std::size_t i = 0; i < fragments.size(); ++i) {
        const auto url = fragments[i]->url.get();
        ASSERT_EQ(url.has_value(), expected[i] != nullptr) << i;
        if (url) {
            EXPECT_EQ(url->absoluteString(), expected[i]);
        }
    }
    fragments[0]->url.set(platform::Url::parse("http://other.test/a.mp4"));
    fragments[1]->url.set(std::nullopt);
    EXPECT_EQ(fragments[0]->url.get()->absoluteString(), "http://other.test/a.mp4");
    EXPECT_FALSE(fragments[1]->url.get());
    EXPECT_EQ(fragments[2]->url.get()->absoluteString(), expected[2]);
}

TEST_F(MediaPlayListTest, RefusesWhatIsNotAPlaylistAndLeavesTheRepresentationAlone) {
    auto representation = makeRepresentation();
    ASSERT_NE(rewrite(*representation, source + "#EXTINF:4,\na.ts\n"), "<not parsed>");
    MediaPlayList media;
    for (const std::string& bad :
         {std::string("seg.ts"), std::string(""), std::string("#EXTM3U\n\xc0\xaf")}) {
        EXPECT_FALSE(media.parsePlayList(bad, base, *representation));
        EXPECT_EQ(representation->fragments.get().size(), 1u);
    }
    Presentation presentation;
    EXPECT_FALSE(media.parsePlayList("#EXTM3U\n", base, presentation));

    // No stream index or bitrate yet: refused without a word.
    Representation unplaced;
    ASSERT_TRUE(media.parsePlayList(source + "#EXTINF:4,\na.ts\n", base, unplaced));
    log.clear();
    EXPECT_FALSE(media.generatePlayList(unplaced));
    EXPECT_TRUE(log.lines().empty());
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
    EXPECT_EQ(parseMilliseconds("0006.0069"), 6006);
    EXPECT_EQ(parseMilliseconds("12345678901234.5"), 12345678901234500);
    EXPECT_EQ(parseInteger<std::int32_t>("999999999"), 999999999);
    EXPECT_EQ(parseInteger<std::int32_t>("4294967296"), std::nullopt);
}
