// Real HLS players (ffmpeg, mpv, GStreamer) through `ovalto bridge`, on the built-in sample served
// by one loopback origin with a second one as the edge: the segments must come from the edge the
// library chose, the playlists from the origin through the library's listener.
#include "Command.h"
#include "Origin.h"
#include "support/CapturedStreams.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>

using namespace ovalto::tool;

namespace {

bool installed(const std::string& program) {
    return std::system(("command -v " + program + " >/dev/null 2>&1").c_str()) == 0;
}

std::string contentOf(const std::filesystem::path& path) {
    return readFile(path.string()).value_or("");
}

// Duration in seconds of a media file, as ffprobe reads it; 0 when it cannot.
double durationOf(const std::filesystem::path& path) {
    const auto out = path.string() + ".duration";
    std::system(("ffprobe -v error -show_entries format=duration -of csv=p=0 '" + path.string() + "' > '" +
                 out + "' 2>/dev/null")
                    .c_str());
    return std::atof(contentOf(out).c_str());
}

// How many requests `origin` answered whose path ends with `suffix`.
int count(const Origin& origin, const std::string& suffix) {
    const auto all = origin.requests();
    return static_cast<int>(std::count_if(
        all.begin(), all.end(), [&](const Origin::Exchange& e) { return e.path.ends_with(suffix); }));
}

struct ClientRow {
    const char* what; // the test's name
    const char* program;
    // {} is the master URL, {out} a file in the test's directory.
    std::string command;
    // What the run must have left in the test's directory.
    std::function<void(const std::filesystem::path& directory)> check;
};

class RealClientTest : public ::testing::TestWithParam<ClientRow> {};

TEST_P(RealClientTest, PlaysThroughTheBridgeFromTheChosenEdge) {
    const auto& row = GetParam();
    if (!installed(row.program)) GTEST_SKIP() << row.program << " is not installed (./ovalto.sh setup)";
    const auto directory = std::filesystem::temp_directory_path() /
                           ("ovalto-client-" + std::to_string(::getpid()) + "-" + row.program);
    std::filesystem::create_directories(directory);

    Origin::Options sample;
    sample.directory = builtInSampleDirectory();
    Origin origin(sample), edge(sample);
    ASSERT_TRUE(origin.start() && edge.start());
    std::string edgeUrl = edge.baseUrl();
    edgeUrl.pop_back(); // the library appends the segment's path below the master's directory

    std::string command = row.command;
    command.replace(command.find("{out}"), 5, (directory / "out").string());
    int status = -1;
    std::string timeline;
    {
        ovalto::test::CapturedStreams streams;
        status = findCommand("bridge")->run({origin.baseUrl() + "master.m3u8", "--edge", "1=" + edgeUrl,
                                             "--log-level", "silent", "--exec", "timeout 60 " + command});
        timeline = streams.out() + streams.err();
    }

    EXPECT_EQ(status, 0) << timeline;
    row.check(directory);
    // Segments from the edge only; the origin served the playlists (to the library) and the
    // initialisation sections, which are never moved.
    EXPECT_GT(count(edge, ".m4s"), 0);
    EXPECT_EQ(std::tuple(count(origin, ".m4s"), count(edge, ".m3u8")), std::tuple(0, 0));
    EXPECT_GT(count(origin, ".m3u8"), 0);
    EXPECT_NE(timeline.find("manifest request"), std::string::npos);
    EXPECT_NE(timeline.find("GET /cplp/local/master.m3u8 20"), std::string::npos);
    std::filesystem::remove_all(directory);
}

INSTANTIATE_TEST_SUITE_P(
    Clients, RealClientTest,
    ::testing::Values(
        ClientRow{"FfmpegCopiesEveryStreamOfTheSample", "ffmpeg",
                  "ffmpeg -nostdin -v error -i {} -map 0 -c copy -f mp4 {out}.mp4",
                  [](const auto& directory) { EXPECT_NEAR(durationOf(directory / "out.mp4"), 12.0, 0.5); }},
        ClientRow{"MpvPlaysToTheEnd", "mpv",
                  "mpv --no-config --vo=null --ao=null --untimed --speed=10 --audio-pitch-correction=no "
                  "--really-quiet --log-file={out}.log {}",
                  [](const auto& directory) {
                      EXPECT_NE(contentOf(directory / "out.log").find("Exiting... (End of file)"),
                                std::string::npos);
                  }},
        ClientRow{"GStreamerPlaybinReachesEndOfStream", "gst-launch-1.0",
                  "gst-launch-1.0 playbin uri={} video-sink=fakesink audio-sink=fakesink > {out}.log",
                  [](const auto& directory) {
                      EXPECT_NE(contentOf(directory / "out.log").find("Got EOS"), std::string::npos);
                  }}),
    [](const auto& info) { return std::string(info.param.what); });

} // namespace
