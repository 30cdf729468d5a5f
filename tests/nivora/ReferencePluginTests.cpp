#include "nivora/reference/ReferenceNivora.h"
#include "support/LogCapture.h"
#include "support/LoopbackServer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

// Two posts reach the collector at once; cpp-httplib, built without ThreadSanitizer, shares
// its server state between its worker threads in ways it cannot see.
extern "C" const char* __tsan_default_suppressions() {
    return "race:libcpp-httplib.so\n";
}

namespace ovalto::test {
namespace {

using nivora::reference::ReferenceNivora;
using Dictionary = nivora::QOEPlugin::Dictionary;

Dictionary reportWithBuffering(std::vector<std::int64_t> durations) {
    Dictionary report = {{"transactionId", 1},
                         {"playbackInfo", {{"sessionId", 7}, {"startupTime", nullptr}}}};
    for (auto duration : durations)
        report["playbackInfo"]["buffering"].push_back(
            {{"currentTime", 1700000000}, {"duration", duration}, {"bitrate", 800000}});
    return report;
}

TEST(ReferencePluginTest, EveryReportIsWrittenBeforeItIsPosted) {
    const auto path =
        std::filesystem::temp_directory_path() / ("reports-" + std::to_string(getpid()) + ".jsonl");
    std::mutex mutex;
    std::vector<std::string> posted;
    LoopbackServer collector([&](httplib::Server& server) {
        server.Post("/qoe", [&](const httplib::Request& request, httplib::Response& response) {
            std::lock_guard lock(mutex);
            posted.push_back(request.get_header_value("Content-Type") + " " + request.body);
            response.status = 204;
        });
    });
    std::string downUrl = LoopbackServer([](httplib::Server&) {}).url("/qoe"); // nothing listens there now

    // What, where reports are posted, whether the collector gets them, and how many posts fail.
    for (const auto& [what, collectorUrl, posts, failures] :
         std::initializer_list<std::tuple<const char*, std::optional<std::string>, bool, int>>{
             {"file only", std::nullopt, false, 0},
             {"file and collector", collector.url("/qoe"), true, 0},
             {"collector down", downUrl, false, 2},
             {"collector answers 404", collector.url("/elsewhere"), false, 2},
         }) {
        SCOPED_TRACE(what);
        LogCapture log;
        std::filesystem::remove(path);
        posted.clear();
        ReferenceNivora::Options options;
        options.qoe.reportPath = path.string();
        options.qoe.collectorUrl = collectorUrl;
        ReferenceNivora nivora(options);
        nivora.getQOEPlugin()->onQOEEvent(reportWithBuffering({}));
        nivora.getQOEPlugin()->onQOEEvent(reportWithBuffering({300}));
        ASSERT_TRUE(nivora.qoePlugin()->waitForPosts(std::chrono::seconds(60)));

        std::ifstream file(path);
        std::vector<std::string> lines(2);
        for (auto& line : lines)
            std::getline(file, line);
        EXPECT_TRUE(file && file.peek() == EOF) << "two lines";
        EXPECT_EQ(Dictionary::parse(lines[1]), reportWithBuffering({300}));
        EXPECT_EQ(std::tuple(nivora.qoePlugin()->postsFailed(), log.contains("report not posted")),
                  std::tuple(failures, failures > 0));
        std::lock_guard lock(mutex);
        std::sort(posted.begin(), posted.end()); // the two posts may overtake each other
        std::vector<std::string> expected{"application/json " + lines[0], "application/json " + lines[1]};
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(posted, posts ? expected : std::vector<std::string>{});
    }
    std::filesystem::remove(path);
}

TEST(ReferencePluginTest, AnUnwritableFileFailsTheReport) {
    LogCapture log;
    ReferenceNivora::Options options;
    options.qoe.reportPath = "/nonexistent-dir/reports.jsonl";
    ReferenceNivora nivora(options);
    EXPECT_THROW(nivora.getQOEPlugin()->onQOEEvent(reportWithBuffering({})), std::runtime_error);
    EXPECT_TRUE(log.contains("cannot open /nonexistent-dir/reports.jsonl"));
}

TEST(ReferencePluginTest, ALongReBufferingRaisesOnePreAlert) {
    // What, the threshold, the buffering durations reported, and the alerts expected.
    for (const auto& [what, threshold, durations, expected] : std::initializer_list<
             std::tuple<const char*, std::optional<std::int64_t>, std::vector<std::int64_t>, int>>{
             {"no threshold", std::nullopt, {5000}, 0},
             {"no buffering", 1000, {}, 0},
             {"as long as the threshold", 1000, {1000}, 0},
             {"longer", 1000, {200, 1001}, 1},
             {"several longer ones in one report", 0, {10, 20, 30}, 1},
         }) {
        SCOPED_TRACE(what);
        ReferenceNivora::Options options;
        options.qoe.preAlertAfterMs = threshold;
        ReferenceNivora nivora(options);
        int alerts = 0;
        nivora.getQOEPlugin()->setOnPreAlertListener(
            [&](const nivora::QOEHighlyCriticalInfo& alert, const nivora::QOEViewInfo& view) {
                ++alerts;
                EXPECT_FALSE(alert.secondText.empty() || view.position.empty());
            });
        nivora.getQOEPlugin()->onQOEEvent(reportWithBuffering(durations));
        EXPECT_EQ(alerts, expected);
    }
}

TEST(ReferencePluginTest, HeadersAreAddedToTheirKindOfRequestAndTheIntervalIsConfigured) {
    ReferenceNivora::Options options{{{"X-Manifest", "m"}}, {{"X-Fragment", "f"}, {"X-Fragment", "g"}}, {}};
    options.qoe.interval = 5;
    ReferenceNivora nivora(options);
    nivora::NetworkPlugin::Request manifest{"http://origin.test/master.m3u8", {{"A", "1"}}, 30000, 30000};
    nivora::NetworkPlugin::Request fragment = manifest;
    nivora.getNetworkPlugin()->onManifestRequest(manifest);
    nivora.getNetworkPlugin()->onFragmentRequest(fragment, nivora::MediaType::audio);
    const auto names = [](const auto& request) {
        std::vector<std::string> all;
        for (const auto& header : request.headers)
            all.push_back(header.name + ": " + header.value);
        return all;
    };
    EXPECT_EQ(names(manifest), (std::vector<std::string>{"A: 1", "X-Manifest: m"}));
    EXPECT_EQ(names(fragment), (std::vector<std::string>{"A: 1", "X-Fragment: f", "X-Fragment: g"}));
    nivora::QOEPlugin::Configuration configuration;
    nivora.getQOEPlugin()->onConfiguration(configuration);
    EXPECT_EQ(configuration.interval, 5);
}

} // namespace
} // namespace ovalto::test
