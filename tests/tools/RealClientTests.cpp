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

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Duration in seconds of a media file, as ffprobe reads it; 0 when it cannot.
double durationOf(const std::filesystem::path& path) {
    const auto out = path.string() + ".duration";
    std::system(("ffprobe -v error -show_entries format=duration -of csv=p=0 '" + path.string() + "' > '" +
                 out + "' 2>/dev/null")
                    .c_str());
    return std::atof(readFile(out).c_str());
}

// A loopback origin of the sample that remembers the paths it served.
struct RecordingOrigin {
    explicit RecordingOrigin(bool live) {
        Origin::Options options;
        options.directory = builtInSampleDirectory();
        options.live = live;
        options.onRequest = [this](const std::string&, const std::string& path, int, std::size_t) {
            std::lock_guard lock(mutex);
            paths.push_back(path);
        };
        origin = std::make_unique<Origin>(options);
    }
    int count(const std::string& suffix) {
        std::lock_guard lock(mutex);
        return static_cast<int>(std::count_if(
            paths.begin(), paths.end(), [&](const std::string& path) { return path.ends_with(suffix); }));
    }
    std::mutex mutex;
    std::vector<std::string> paths;
    std::unique_ptr<Origin> origin;
};

struct ClientRow {
    const char* what;
    const char* program;
    bool live;
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

    RecordingOrigin origin(row.live), edge(row.live);
    ASSERT_TRUE(origin.origin->start());
    ASSERT_TRUE(edge.origin->start());
    std::string edgeUrl = edge.origin->baseUrl();
    edgeUrl.pop_back(); // the library appends the segment's path below the master's directory

    std::string command = row.command;
    command.replace(command.find("{out}"), 5, (directory / "out").string());
    int status = -1;
    std::string timeline;
    {
        ovalto::test::CapturedStreams streams;
        status =
            findCommand("bridge")->run({origin.origin->baseUrl() + "master.m3u8", "--edge", "1=" + edgeUrl,
                                        "--log-level", "silent", "--exec", "timeout 60 " + command});
        timeline = streams.out() + streams.err();
    }

    EXPECT_EQ(status, 0) << row.what << "\n" << timeline;
    row.check(directory);
    // Segments from the edge only; the origin served the playlists (to the library) and the
    // initialisation sections, which are never moved.
    EXPECT_GT(edge.count(".m4s"), 0) << row.what;
    EXPECT_EQ(origin.count(".m4s"), 0) << row.what;
    EXPECT_EQ(edge.count(".m3u8"), 0) << row.what;
    EXPECT_GT(origin.count(".m3u8"), 0) << row.what;
    EXPECT_NE(timeline.find("manifest request"), std::string::npos) << row.what;
    EXPECT_NE(timeline.find("GET /cplp/local/master.m3u8 20"), std::string::npos) << row.what;
    std::filesystem::remove_all(directory);
}

INSTANTIATE_TEST_SUITE_P(
    Clients, RealClientTest,
    ::testing::Values(
        ClientRow{"ffmpeg copies every stream of the sample", "ffmpeg", false,
                  "ffmpeg -nostdin -v error -i {} -map 0 -c copy -f mp4 {out}.mp4",
                  [](const std::filesystem::path& directory) {
                      EXPECT_NEAR(durationOf(directory / "out.mp4"), 12.0, 0.5);
                  }},
        ClientRow{"mpv plays to the end", "mpv", false,
                  "mpv --no-config --vo=null --ao=null --untimed --speed=10 --audio-pitch-correction=no "
                  "--really-quiet --log-file={out}.log {}",
                  [](const std::filesystem::path& directory) {
                      EXPECT_NE(readFile(directory / "out.log").find("Exiting... (End of file)"),
                                std::string::npos);
                  }},
        ClientRow{"GStreamer playbin reaches end-of-stream", "gst-launch-1.0", false,
                  "gst-launch-1.0 playbin uri={} video-sink=fakesink audio-sink=fakesink > {out}.log",
                  [](const std::filesystem::path& directory) {
                      EXPECT_NE(readFile(directory / "out.log").find("Got EOS"), std::string::npos);
                  }}),
    [](const auto& info) {
        std::string name = info.param.what;
        for (auto& c : name)
            if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
        return name;
    });

} // namespace
