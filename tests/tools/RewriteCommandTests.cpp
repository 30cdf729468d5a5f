// `ovalto rewrite`: what the library makes of a playlist from a file or a URL, and the messages
// a user gets when there is nothing to show.
#include "RewriteCommand.h"
#include "support/LoopbackServer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

using namespace ovalto;

namespace {

const std::filesystem::path playlists = std::filesystem::path(OVALTO_TEST_DATA) / "playlists";

std::string read(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

struct Run {
    int status = -1;
    std::string out;
    std::string err;
};

Run rewrite(const std::vector<std::string>& args) {
    std::ostringstream out;
    std::ostringstream err;
    Run run;
    run.status = tool::rewriteCommand(args, out, err);
    run.out = out.str();
    run.err = err.str();
    return run;
}

} // namespace

TEST(RewriteCommandTest, PrintsWhatThePlayerReceivesForAFile) {
    const auto master = rewrite({(playlists / "master_packager_absolute.m3u8").string()});
    EXPECT_EQ(master.status, 0) << master.err;
    EXPECT_EQ(master.out, read(playlists / "master_packager_absolute.expected"));
    EXPECT_EQ(master.err, "");

    const auto media = rewrite(
        {(playlists / "media_vod_fmp4_fairplay.m3u8").string(), "--stream", "1", "--bitrate", "800000"});
    EXPECT_EQ(media.status, 0) << media.err;
    EXPECT_EQ(media.out, read(playlists / "media_vod_fmp4_fairplay.expected"));

    const auto defaults = rewrite({(playlists / "media_live_ts_aes.m3u8").string()});
    EXPECT_NE(defaults.out.find("\nrdtp://local/0/1500000/4521.ts\n"), std::string::npos) << defaults.out;
}

TEST(RewriteCommandTest, DownloadsAUrlAndResolvesAgainstIt) {
    const std::string master = read(playlists / "master_multi_audio_subtitles.m3u8");
    test::LoopbackServer server([&](httplib::Server& s) {
        s.Get("/show/master.m3u8", [&](const httplib::Request&, httplib::Response& response) {
            response.set_content(master, "application/vnd.apple.mpegurl");
        });
        s.Get("/show/gone.m3u8",
              [](const httplib::Request&, httplib::Response& response) { response.status = 404; });
    });
    const auto run = rewrite({server.url("/show/master.m3u8")});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, read(playlists / "master_multi_audio_subtitles.expected"));

    const auto gone = rewrite({server.url("/show/gone.m3u8")});
    EXPECT_EQ(gone.status, 1);
    EXPECT_EQ(gone.out, "");
    EXPECT_NE(gone.err.find("cannot download " + server.url("/show/gone.m3u8")), std::string::npos)
        << gone.err;
    EXPECT_NE(gone.err.find("the server answered HTTP status 404"), std::string::npos) << gone.err;

    // The URIs of a master resolve against the URL it came from.
    const auto rewritten =
        tool::rewritePlayList("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nlo/v.m3u8\n",
                              *platform::Url::parse(server.url("/show/master.m3u8")), 0, 0);
    EXPECT_TRUE(rewritten.isMaster);
    EXPECT_EQ(rewritten.playList, "#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-STREAM-INF:BANDWIDTH=1\n0/1/media.m3u8");
}

TEST(RewriteCommandTest, ExplainsEveryFailureOnStandardError) {
    const std::filesystem::path notPlaylist =
        std::filesystem::temp_directory_path() / "ovalto-rewrite-page.html";
    std::ofstream(notPlaylist) << "<html><body>Moved</body></html>\n";
    // An empty file cannot be mapped: it is read instead.
    const std::filesystem::path empty = std::filesystem::temp_directory_path() / "ovalto-rewrite-empty.m3u8";
    std::ofstream{empty};
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string message;
    };
    for (const auto& c : std::vector<Case>{
             {{"/nonexistent/master.m3u8"},
              1,
              "ovalto rewrite: cannot read /nonexistent/master.m3u8: No such file"},
             {{notPlaylist.string()}, 1, "this is not an HLS playlist: it does not begin with #EXT"},
             {{empty.string()}, 1, "this is not an HLS playlist: it does not begin with #EXT"},
             {{(playlists / "media_unreadable_duration.m3u8").string()},
              1,
              "the library refuses to write this media playlist: The fragment duration is REQUIRED.\n"},
             {{"http://127.0.0.1:1/master.m3u8"},
              1,
              "ovalto rewrite: cannot download http://127.0.0.1:1/master.m3u8"},
             {{}, 2, "which playlist?"},
             {{"a.m3u8", "b.m3u8"}, 2, "one playlist at a time"},
             {{"a.m3u8", "--bitrate", "fast"}, 2, "--bitrate takes a 32-bit integer, not 'fast'"},
             {{"a.m3u8", "--stream"}, 2, "--stream needs a value"},
             {{"a.m3u8", "--base-url", "relative/path"}, 2, "--base-url needs an absolute URL"},
             {{"a.m3u8", "--frobnicate"}, 2, "unknown option --frobnicate"},
         }) {
        const auto run = rewrite(c.args);
        EXPECT_EQ(run.status, c.status) << run.err;
        EXPECT_EQ(run.out, "");
        EXPECT_NE(run.err.find(c.message), std::string::npos) << run.err;
    }
    std::filesystem::remove(notPlaylist);
    std::filesystem::remove(empty);
}

TEST(RewriteCommandTest, ShowsTheLibrarysWarningsBesideTheResult) {
    const auto rewritten = tool::rewritePlayList("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=fast\nv.m3u8\n",
                                                 *platform::Url::parse("http://h/master.m3u8"), 0, 0);
    ASSERT_TRUE(rewritten.playList);
    EXPECT_EQ(*rewritten.playList,
              "#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-STREAM-INF:BANDWIDTH=fast\n0/1500000/media.m3u8");
    ASSERT_EQ(rewritten.warnings.size(), 1u);
    EXPECT_EQ(rewritten.warnings[0],
              "BANDWIDTH=fast is not a 32-bit decimal integer; the variant is keyed 1500000.");
}
