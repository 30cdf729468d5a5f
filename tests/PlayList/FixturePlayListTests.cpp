// Playlists shaped like those real packagers and origins publish, rewritten whole and compared
// with the expected files beside them (<name>.expected).
#include "PlayList/MasterPlayList.h"
#include "PlayList/MediaPlayList.h"
#include "PlayList/Presentation.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

using namespace ovalto;
namespace fs = std::filesystem;

namespace {

const fs::path directory = fs::path(OVALTO_TEST_DATA) / "playlists";
const platform::Url masterBase =
    *platform::Url::parse("https://media.example.com/content/show/master.m3u8?token=abc");
const platform::Url mediaBase =
    *platform::Url::parse("https://media.example.com/content/show/v1/prog_index.m3u8");

std::string read(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::optional<std::string> rewriteMaster(const std::string& source, Presentation& presentation) {
    MasterPlayList master;
    if (!master.parsePlayList(source, masterBase, presentation)) return std::nullopt;
    return master.generatePlayList(presentation);
}

std::optional<std::string> rewriteMedia(const std::string& source, Representation& representation) {
    representation.streamIndex.set(1);
    representation.bitrate.set(800000);
    MediaPlayList media;
    if (!media.parsePlayList(source, mediaBase, representation)) return std::nullopt;
    return media.generatePlayList(representation);
}

std::string url(const std::optional<platform::Url>& url) {
    return url ? url->absoluteString() : "<none>";
}

} // namespace

// The library logs every playlist at debug level; the capture keeps that off the test output
// and lets a test read it.
class PlayListFixtureTest : public ::testing::Test {
protected:
    test::LogCapture log;
};

TEST_F(PlayListFixtureTest, EveryFixtureRewritesToItsExpectedFile) {
    int compared = 0;
    for (const auto& entry : fs::directory_iterator(directory)) {
        const fs::path path = entry.path();
        if (path.extension() != ".m3u8") continue;
        const fs::path expectedPath = fs::path(path).replace_extension(".expected");
        if (!fs::exists(expectedPath)) continue;
        const std::string name = path.filename().string();
        const std::string source = read(path);
        std::optional<std::string> rewritten;
        if (name.starts_with("master_")) {
            Presentation presentation;
            rewritten = rewriteMaster(source, presentation);
        } else {
            Representation representation;
            rewritten = rewriteMedia(source, representation);
        }
        ASSERT_TRUE(rewritten) << name;
        // The expected files end with a newline, as text files do; the generators write none.
        EXPECT_EQ(*rewritten + "\n", read(expectedPath)) << name;
        ++compared;
    }
    EXPECT_GE(compared, 6);
}

TEST_F(PlayListFixtureTest, MasterUrisResolveAgainstTheMasterUrl) {
    Presentation presentation;
    ASSERT_TRUE(rewriteMaster(read(directory / "master_packager_absolute.m3u8"), presentation));
    const auto streams = presentation.streams.get();
    ASSERT_EQ(streams.size(), 4u);
    EXPECT_EQ(streams[0]->mediaType.get(), MediaType::audio);
    EXPECT_EQ(streams[2]->mediaType.get(), MediaType::text);
    EXPECT_EQ(url(streams[0]->representation(0)->url.get()),
              "https://cdn2.example.net/ocean/audio/stereo_en.m3u8?sig=ab12");
    EXPECT_EQ(url(streams[1]->representation(0)->url.get()),
              "https://media.example.com/ocean/audio/stereo_es.m3u8");
    EXPECT_EQ(url(streams[2]->representation(0)->url.get()),
              "https://media.example.com/content/show/text/en.m3u8");
    const auto video = streams[3];
    EXPECT_EQ(video->representations.get().size(), 3u);
    EXPECT_EQ(url(video->representation(1105696)->url.get()),
              "https://cdn1.example.net/ocean/video/360p.m3u8?sig=cd34");
    EXPECT_EQ(url(video->representation(2931008)->url.get()),
              "https://media.example.com/ocean/video/720p.m3u8");
    EXPECT_EQ(url(video->representation(5481306)->url.get()),
              "https://media.example.com/content/show/video/1080p.m3u8");
}
