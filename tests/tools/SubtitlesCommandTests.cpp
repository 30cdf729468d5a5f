// `ovalto subtitles`: the tables of a side-car document as text and JSON, and the exit statuses.
#include "SubtitlesCommand.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>

using namespace ovalto;

namespace {

struct Run {
    int status = -1;
    std::string out;
    std::string err;
};

Run subtitles(const std::vector<std::string>& args) {
    std::ostringstream out, err;
    Run run;
    run.status = tool::subtitlesCommand(args, out, err);
    run.out = out.str();
    run.err = err.str();
    return run;
}

} // namespace

TEST(SubtitlesCommandTest, JsonHoldsBothTablesWithDecimalKeys) {
    const auto srt = subtitles({"sample:srt", "--json"});
    ASSERT_EQ(srt.status, 0) << srt.err;
    const auto json = nlohmann::json::parse(srt.out);
    ASSERT_EQ(json.size(), 2u);
    EXPECT_EQ(json["texts"].size(), 12u);
    EXPECT_EQ(json["texts"]["200"], "Cue 2: the pattern at 2 seconds");
    EXPECT_EQ(json["texts"]["300"], "");
    EXPECT_EQ(json["cues"]["200"], (nlohmann::json{{"startTimeMs", 2000},
                                                   {"endTimeMs", 3000},
                                                   {"setting", nullptr},
                                                   {"payload", "Cue 2: the pattern at 2 seconds"}}));
    // The WebVTT twin prints the same object, the cue-point document texts only.
    EXPECT_EQ(subtitles({"sample:vtt", "--json"}).out, srt.out);
    const auto ttml =
        nlohmann::json::parse(subtitles({"sample:ttml", "--mime", "application/xml+nttml", "--json"}).out);
    EXPECT_EQ(ttml["texts"].size(), 12u);
    EXPECT_TRUE(ttml["cues"].empty());
}

TEST(SubtitlesCommandTest, TextListsInTimeOrderWithCounts) {
    const auto run = subtitles(
        {std::string(OVALTO_SAMPLE_DIR) + "/sidecar/subtitles.srt", "--mime", "application/x-subrip"});
    ASSERT_EQ(run.status, 0);
    EXPECT_LT(run.out.find("\n       900  00:00:09.00  (clear)\n"),
              run.out.find("\n      1000  00:00:10.00  Cue 6"));
    EXPECT_NE(run.out.find("\n      1000  10000 ms --> 11000 ms  Cue 6: the pattern at 10 seconds\n"),
              std::string::npos);
    EXPECT_TRUE(run.out.ends_with("12 texts (6 clear marks), 6 cues\n")) << run.out;
}

TEST(SubtitlesCommandTest, ExitStatuses) {
    const struct {
        const char* what;
        std::vector<std::string> args;
        int status;
        const char* message;
    } cases[] = {
        {"unknown MIME type lists the known ones",
         {"a.srt", "--mime", "text/plain"},
         2,
         "known types: application/x-subrip"},
        {"no MIME type", {"a.srt"}, 2, "--mime MIME is needed"},
        {"unknown sample", {"sample:ass"}, 2, "unknown sample side-car"},
        {"unreadable document", {"/nonexistent/a.srt", "--mime", "application/x-subrip"}, 1, "no such file"},
        {"unreadable cue-point document",
         {"/nonexistent/a.ttml", "--mime", "application/nttml+xml"},
         1,
         "file:///nonexistent/a.ttml is not valid."},
    };
    for (const auto& c : cases) {
        const auto run = subtitles(c.args);
        EXPECT_EQ(run.status, c.status) << c.what;
        EXPECT_NE(run.err.find(c.message), std::string::npos) << c.what << ": " << run.err;
    }
}
