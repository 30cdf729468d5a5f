// The master playlist: the stream tree it builds and the playlist the player receives.
#include "PlayList/MasterPlayList.h"
#include "PlayList/Presentation.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

using namespace ovalto;

namespace {

const platform::Url base = *platform::Url::parse("http://example.com/v/index.m3u8");

struct Rewritten {
    std::shared_ptr<Presentation> presentation = std::make_shared<Presentation>();
    bool parsed = false;
    std::string text;
    std::vector<std::shared_ptr<Stream>> streams() const { return presentation->streams.get(); }
};

Rewritten rewrite(std::string_view source) {
    Rewritten result;
    MasterPlayList master;
    result.parsed = master.parsePlayList(source, base, *result.presentation);
    if (result.parsed) result.text = master.generatePlayList(*result.presentation).value_or("<none>");
    return result;
}

std::string urlOf(const std::shared_ptr<Representation>& representation) {
    if (!representation) return "<no representation>";
    const auto url = representation->url.get();
    return url ? url->absoluteString() : "<none>";
}

const std::string header = "#EXTM3U\n#EXT-X-VERSION:7\n";

} // namespace

// The library logs every playlist at debug level; the capture keeps that off the test output
// and lets a test read it.
class MasterPlayListTest : public ::testing::Test {
protected:
    test::LogCapture log;
};

TEST_F(MasterPlayListTest, RewritesRenditionsAndVariantsWithSyntheticVideoGroups) {
    const auto result = rewrite("#EXTM3U\n"
                                "#EXT-X-VERSION:4\n"
                                "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"aud\",NAME=\"en\",URI=\"audio/en.m3u8\"\n"
                                "#EXT-X-STREAM-INF:BANDWIDTH=2000000,AUDIO=\"aud\"\n"
                                "hi/index.m3u8\n"
                                "#EXT-X-STREAM-INF:BANDWIDTH=800000,AUDIO=\"aud\"\n"
                                "lo/index.m3u8\n");
    ASSERT_TRUE(result.parsed);
    EXPECT_EQ(result.text, header +
                               "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"aud\",NAME=\"en\",URI=\"0/0/media.m3u8\"\n"
                               "#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID=\"800000\",NAME=\"800000\",DEFAULT=NO,"
                               "URI=\"1/800000/media.m3u8\"\n"
                               "#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID=\"800000\",NAME=\"2000000\",DEFAULT=YES,"
                               "URI=\"1/800000/media.m3u8\"\n"
                               "#EXT-X-STREAM-INF:BANDWIDTH=800000,AUDIO=\"aud\",VIDEO=\"800000\"\n"
                               "1/800000/media.m3u8\n"
                               "#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID=\"2000000\",NAME=\"800000\",DEFAULT=NO,"
                               "URI=\"1/800000/media.m3u8\"\n"
                               "#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID=\"2000000\",NAME=\"2000000\",DEFAULT=YES,"
                               "URI=\"1/2000000/media.m3u8\"\n"
                               "#EXT-X-STREAM-INF:BANDWIDTH=2000000,AUDIO=\"aud\",VIDEO=\"2000000\"\n"
                               "1/2000000/media.m3u8");
    EXPECT_EQ(result.presentation->playList.get(), result.text);
    EXPECT_EQ(result.presentation->url.get(), base);

    const auto streams = result.streams();
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_EQ(streams[0]->mediaType.get(), MediaType::audio);
    EXPECT_EQ(streams[0]->attributes.get().value("GROUP-ID"), "\"aud\"");
    EXPECT_EQ(streams[0]->representation(0)->bitrate.get(), 0);
    EXPECT_EQ(urlOf(streams[0]->representation(0)), "http://example.com/v/audio/en.m3u8");
    EXPECT_EQ(streams[1]->mediaType.get(), MediaType::video);
    EXPECT_TRUE(streams[1]->attributes.get().empty());
    EXPECT_EQ(urlOf(streams[1]->representation(800000)), "http://example.com/v/lo/index.m3u8");
    EXPECT_EQ(urlOf(streams[1]->representation(2000000)), "http://example.com/v/hi/index.m3u8");
    EXPECT_EQ(streams[1]->representation(2000000)->bitrate.get(), 2000000);
}

TEST_F(MasterPlayListTest, MediaPlaylistAsTopUrlBecomesOneVariantAroundIt) {
    // The only #EXTINF is indented: lines are trimmed before the test.
    const auto result = rewrite("#EXTM3U\n#EXT-X-TARGETDURATION:4\n  #EXTINF:4,\nseg0.ts\n");
    ASSERT_TRUE(result.parsed);
    EXPECT_EQ(result.text, header + "#EXT-X-STREAM-INF:BANDWIDTH=1500000\n0/1500000/media.m3u8");
    const auto streams = result.streams();
    ASSERT_EQ(streams.size(), 1u);
    const auto variant = streams[0]->representation(1500000);
    ASSERT_TRUE(variant);
    EXPECT_EQ(variant->bitrate.get(), 1500000);
    EXPECT_EQ(urlOf(variant), base.absoluteString());
}

// Cases whose whole output shows the rule.
TEST_F(MasterPlayListTest, GeneratedPlaylists) {
    struct Case {
        const char* what;
        std::string source;
        std::string expected;
    };
    const std::vector<Case> cases{
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
    for (const auto& c : cases) {
        const auto result = rewrite(c.source);
        EXPECT_TRUE(result.parsed) << c.what;
        EXPECT_EQ(result.text, c.expected) << c.what;
        EXPECT_EQ(MasterPlayList::rewrittenSize(*result.presentation), result.text.size()) << c.what;
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

TEST_F(MasterPlayListTest, TheRewrittenSizeIsKnownBeforehandAndTooLargeARewriteIsRefused) {
    for (int variants : {2, 9, 10, 11, 120}) {
        const auto result = rewrite(manyVariants(variants));
        ASSERT_TRUE(result.parsed);
        EXPECT_EQ(MasterPlayList::rewrittenSize(*result.presentation), result.text.size()) << variants;
    }

    // 10,000 variants would make about 10 GB: refused at once, nothing written.
    auto presentation = std::make_shared<Presentation>();
    MasterPlayList master;
    ASSERT_TRUE(master.parsePlayList(manyVariants(10000), base, *presentation));
    EXPECT_FALSE(master.generatePlayList(*presentation));
    ASSERT_TRUE(master.refusedSize());
    EXPECT_GT(*master.refusedSize(), 100 * MasterPlayList::maximumRewrittenSize);
    EXPECT_FALSE(presentation->playList.get());
    EXPECT_TRUE(log.contains("[Error MasterPlayList|generatePlayList(container:)|"));
    EXPECT_TRUE(log.contains(MasterPlayList::refusal(*master.refusedSize())));
}

TEST_F(MasterPlayListTest, LaterUriLineRepointsThePendingVariant) {
    const auto result = rewrite("#EXTM3U\nignored.m3u8\n#EXT-X-STREAM-INF:BANDWIDTH=500\na.m3u8\nb.m3u8\n");
    const auto streams = result.streams();
    ASSERT_EQ(streams.size(), 1u);
    ASSERT_EQ(streams[0]->representations.get().size(), 1u);
    EXPECT_EQ(urlOf(streams[0]->representation(500)), "http://example.com/v/b.m3u8");
}

TEST_F(MasterPlayListTest, UnreadableBandwidthKeysTheVariantAtTheDefaultWithAWarning) {
    for (const std::string& bandwidth : std::vector<std::string>{"2147483648", "12 ", "1.5e6", ""}) {
        log.clear();
        const auto result =
            rewrite("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=" + bandwidth + ",CODECS=\"avc1\"\nv.m3u8\n");
        EXPECT_EQ(result.text, header + "#EXT-X-STREAM-INF:BANDWIDTH=" + bandwidth +
                                   ",CODECS=\"avc1\"\n0/1500000/media.m3u8")
            << bandwidth;
        const auto variant = result.streams()[0]->representation(1500000);
        ASSERT_TRUE(variant) << bandwidth;
        EXPECT_EQ(variant->bitrate.get(), 1500000);
        EXPECT_EQ(urlOf(variant), "http://example.com/v/v.m3u8");
        EXPECT_TRUE(log.contains("[Warning MasterPlayList|parsePlayList(playList:baseUrl:container:)|"));
        EXPECT_TRUE(log.contains("BANDWIDTH=" + bandwidth + " is not a 32-bit decimal integer")) << bandwidth;
    }
}

TEST_F(MasterPlayListTest, RefusesWhatIsNotAPlaylistAndLeavesThePresentationAlone) {
    Presentation presentation;
    MasterPlayList master;
    ASSERT_TRUE(master.parsePlayList("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\na.m3u8\n", base, presentation));
    for (const std::string& bad : {std::string("<html></html>"), std::string(""), std::string(" #EXTM3U"),
                                   std::string("#EXTM3U\n\xff\xfe")}) {
        EXPECT_FALSE(master.parsePlayList(bad, base, presentation)) << bad;
        EXPECT_EQ(presentation.streams.get().size(), 1u);
    }
    Representation representation;
    EXPECT_FALSE(master.parsePlayList("#EXTM3U\n", base, representation));
    EXPECT_FALSE(master.generatePlayList(representation));
}
