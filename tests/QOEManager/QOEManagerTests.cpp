// The QoE manager between the player's records and the plug-in: hooks, event messages, reports,
// the report timer, and the facade's way to its manager.
#include "QOEManager/QOEManager.h"
#include "Utils/Guarded.h"
#include "nivora/Nivora.h"
#include "ovalto/Notifications.h"
#include "ovalto/Ovalto.h"
#include "platform/DispatchQueue.h"
#include "platform/NotificationCenter.h"
#include "platform/RunLoop.h"
#include "platform/View.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>

// The pre-alert overlay draws its text with Pango: fontconfig keeps its caches for the life of
// the process and guards them in ways ThreadSanitizer cannot see (as in the overlay's own tests).
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libfontconfig.so\n";
}
extern "C" const char* __tsan_default_suppressions() {
    return "race:libfontconfig.so\n";
}

namespace ovalto::test {
namespace {

using Request = nivora::NetworkPlugin::Request;

// A plug-in that records what the QoE manager hands it and does what a test tells it to.
class RecordingNetworkPlugin : public nivora::NetworkPlugin {
public:
    void onManifestRequest(Request& request) override { handle(request, std::nullopt); }
    void onFragmentRequest(Request& request, nivora::MediaType type) override { handle(request, type); }
    void onManifestResponse(Response& response) override { record(responses, response, std::nullopt); }
    void onFragmentResponse(Response& response, nivora::MediaType type) override {
        record(responses, response, type);
    }

    std::function<void(Request&)> rewrite = [](Request&) {};
    bool throws = false;
    Guarded<std::vector<Request>> requests;
    Guarded<std::vector<Response>> responses;
    Guarded<std::vector<std::optional<nivora::MediaType>>> types;

private:
    void handle(Request& request, std::optional<nivora::MediaType> type) {
        record(requests, request, type);
        rewrite(request);
    }
    template <class T>
    void record(Guarded<std::vector<T>>& records, const T& record, std::optional<nivora::MediaType> type) {
        records.with([&](auto& all) { all.push_back(record); });
        types.with([&](auto& all) { all.push_back(type); });
        if (throws)
            throw std::runtime_error(std::is_same_v<T, Request> ? "hook refused the request"
                                                                : "hook refused the response");
    }
};

class RecordingQOEPlugin : public nivora::QOEPlugin {
public:
    void onConfiguration(Configuration& configuration) override {
        ++configurations;
        if (throws) throw std::runtime_error("no configuration today");
        configuration.interval = interval;
    }
    void setOnIntervalListener(OnInterval listener) override { onInterval.set(std::move(listener)); }
    void setOnPreAlertListener(OnPreAlert listener) override { onPreAlert.set(std::move(listener)); }
    void onQOEEvent(const Dictionary& report) override {
        reports.with([&](auto& all) { all.push_back(report); });
        if (throws) throw std::runtime_error("collector refused the report");
    }

    std::int32_t interval = 0; // what onConfiguration fills in
    bool throws = false;
    std::atomic<int> configurations{0};
    Guarded<OnInterval> onInterval;
    Guarded<OnPreAlert> onPreAlert;
    Guarded<std::vector<Dictionary>> reports;
};

// Either hook may be left out (reset), as a plug-in that installs none.
class RecordingNivora : public nivora::Nivora {
public:
    std::shared_ptr<nivora::NetworkPlugin> getNetworkPlugin() override { return network; }
    std::shared_ptr<nivora::QOEPlugin> getQOEPlugin() override { return qoe; }

    std::shared_ptr<RecordingNetworkPlugin> network = std::make_shared<RecordingNetworkPlugin>();
    std::shared_ptr<RecordingQOEPlugin> qoe = std::make_shared<RecordingQOEPlugin>();
};

// Runs the main queue until everything queued before this call has run.
void drainMainQueue() {
    std::atomic<bool> done{false};
    platform::DispatchQueue::main()->async([&] { done = true; });
    ASSERT_TRUE(platform::RunLoop::main().runFor(std::chrono::seconds(30), [&] { return done.load(); }));
}

class QOEManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        Ovalto::logLevel = OVALogLevel::warning;
        manager->setNivora(nivora);
        token = platform::NotificationCenter::defaultCenter().addObserver(
            OvaltoLogNotification, {}, [this](const platform::Notification& note) {
                EXPECT_EQ(note.object, nullptr);
                const auto text = std::any_cast<std::string>(note.userInfo.at(OvaltoLog));
                messages.with([&](auto& all) { all.push_back(text); });
            });
    }
    void TearDown() override {
        platform::NotificationCenter::defaultCenter().removeObserver(token);
        manager->conclude();
        Ovalto::logLevel = OVALogLevel::debug;
    }
    void prepare() { manager->prepare(*platform::Url::parse("http://origin.test/master.m3u8")); }

    std::shared_ptr<RecordingNivora> nivora = std::make_shared<RecordingNivora>();
    std::shared_ptr<QOEManager> manager = std::make_shared<QOEManager>(
        QOEManager::QOEReport({"Debian GNU/Linux", "12", "ovalto", "Linux", "0000-ID"}, {}));
    // The texts of the log notifications (event messages) posted during the test.
    Guarded<std::vector<std::string>> messages;
    platform::NotificationCenter::Token token = 0;
};

ResponseInfo fragmentResponse(std::int32_t stream, std::int64_t index, std::string type = "video") {
    ResponseInfo info;
    info.uri = "http://origin.test/" + std::to_string(stream) + "/" + std::to_string(index) + ".ts";
    info.originalUri = info.uri;
    info.edgeIP = "10.0.0.1";
    info.size = 1000 + index;
    info.type = std::move(type);
    info.start = platform::MediaTime::make(index * 6000, 1000);
    info.duration = platform::MediaTime::make(6000, 1000);
    info.downloadTime = platform::MediaTime::make(120, 1000);
    info.streamIndex = stream;
    info.fragmentIndex = index;
    info.bitrate = 800000;
    return info;
}

TEST_F(QOEManagerTest, RequestRecordsReachThePluginAndComeBackConverted) {
    using nivora::MediaType;
    // type, timeout, what the plug-in sets (0 leaves it), milliseconds and seconds after, type seen
    const std::tuple<const char*, std::string, std::int32_t, std::int32_t, std::int32_t, std::int32_t,
                     MediaType>
        cases[] = {
            {"seconds become milliseconds and back", "audio", 30, 0, 30000, 30, MediaType::audio},
            {"the plug-in's timeout is carried back", "text", 30, 5000, 30000, 5, MediaType::text},
            {"back in whole seconds", "video", 30, 1500, 30000, 1, MediaType::video},
            {"an unknown type is video", "subtitles", 30, 0, 30000, 30, MediaType::video},
            {"an absurd timeout is clamped", "video", 1 << 30, 0, INT32_MAX, INT32_MAX / 1000,
             MediaType::video},
        };
    for (const auto& [what, type, timeout, pluginMs, ms, seconds, seenType] : cases) {
        SCOPED_TRACE(what);
        nivora->network = std::make_shared<RecordingNetworkPlugin>();
        nivora->network->rewrite = [&](Request& request) {
            if (pluginMs) request.connectionTimeoutMs = pluginMs;
            request.readTimeoutMs = 1; // never carried back
            request.headers.push_back({"X-Plugin", "1"});
        };
        RequestInfo info;
        info.uri = "http://origin.test/seg.ts";
        info.headers = {{"A", "1"}, {"A", "2"}};
        info.timeout = timeout;
        info.type = type;
        manager->onFragmentRequest(info);

        const auto requests = nivora->network->requests.get();
        ASSERT_EQ(requests.size(), 1u);
        ASSERT_EQ(requests[0].headers.size(), 2u);
        EXPECT_EQ(std::tuple(requests[0].connectionTimeoutMs, requests[0].readTimeoutMs,
                             requests[0].headers[1].value, nivora->network->types.get()[0], info.timeout),
                  std::tuple(ms, ms, "2", std::optional(seenType), std::optional(seconds)));
        EXPECT_EQ(info.headers, (std::vector<std::pair<std::string, std::string>>{
                                    {"A", "1"}, {"A", "2"}, {"X-Plugin", "1"}}));
    }
}

// A hook that throws, is missing or whose plug-in has gone leaves the record as it was and is
// logged; the fragment is in the report all the same.
TEST_F(QOEManagerTest, FailingOrMissingHooksLeaveTheRecordAndAreLogged) {
    LogCapture log;
    nivora->network->throws = true;
    nivora->network->rewrite = [](Request& request) { request.uri = "http://elsewhere.test/"; };
    RequestInfo info;
    info.uri = "http://origin.test/master.m3u8";
    info.timeout = 30;
    manager->onManifestRequest(info);
    auto response = fragmentResponse(0, 1);
    manager->onFragmentResponse(response);
    EXPECT_EQ(std::tuple(info.uri, info.timeout, info.headers.size()),
              std::tuple("http://origin.test/master.m3u8", 30, 0u));
    EXPECT_TRUE(log.contains("[Error QOEManager.cpp|onManifestRequest(with:)|"));
    EXPECT_TRUE(log.contains("hook refused the request"));
    EXPECT_TRUE(messages.get().empty());

    log.clear();
    nivora->network.reset();
    manager->onManifestRequest(info);
    auto another = fragmentResponse(2, 7);
    manager->onFragmentResponse(another);
    EXPECT_EQ(info.uri, "http://origin.test/master.m3u8");
    EXPECT_TRUE(log.contains("|onManifestRequest(with:)|"));
    EXPECT_TRUE(log.contains("|onFragmentResponse(with:)|"));
    EXPECT_TRUE(log.contains("plugin not found"));
    EXPECT_EQ(manager->withReport([](auto& report) { return report.tracks.size(); }), 2u);

    log.clear();
    nivora.reset();
    manager->report();
    prepare();
    EXPECT_EQ(log.lines().size(), 2u);
    EXPECT_TRUE(log.contains("[Warning QOEManager.cpp|report()|"));
    EXPECT_TRUE(log.contains("[Warning QOEManager.cpp|prepare(with:)|"));
}

TEST_F(QOEManagerTest, EventMessagesDescribeTheRecordsAfterTheHook) {
    nivora->network->rewrite = [](Request& request) { request.uri += "?token=1"; };
    RequestInfo manifest, fragment;
    manifest.uri = "http://origin.test/master.m3u8";
    manager->onManifestRequest(manifest);
    fragment.uri = "http://origin.test/0.ts";
    fragment.type = "video";
    manager->onFragmentRequest(fragment);
    ResponseInfo manifestResponse;
    manifestResponse.uri = "http://origin.test/master.m3u8";
    manager->onManifestResponse(manifestResponse);
    auto fragmentWithEdge = fragmentResponse(0, 3);
    manager->onFragmentResponse(fragmentWithEdge);

    EXPECT_EQ(
        messages.get(),
        (std::vector<std::string>{
            "MP: onManfiestRequest\nMP: uri=Optional(\"http://origin.test/master.m3u8?token=1\")",
            "MP: onFragmentRequest\nMP: uri=Optional(\"http://origin.test/0.ts?token=1\")",
            "MP: onManifestResponse\nMP: uri=Optional(\"http://origin.test/master.m3u8\")\nMP: size=nil",
            "MP: onFragmentResponse\nMP: uri=Optional(\"http://origin.test/0/3.ts\")\nMP: "
            "edge=Optional(\"10.0.0.1\")\nMP: size=Optional(1003)",
        }));
    // What the hook wrote is what the request goes out with.
    EXPECT_EQ(std::tuple(manifest.uri, fragment.uri),
              std::tuple("http://origin.test/master.m3u8?token=1", "http://origin.test/0.ts?token=1"));
    const auto responses = nivora->network->responses.get();
    ASSERT_EQ(responses.size(), 2u);
    // Absent fields reach the plug-in empty.
    EXPECT_EQ(std::tuple(responses[0].originalUri, responses[0].edgeIP, responses[1].edgeIP),
              std::tuple("", "", "10.0.0.1"));
}

TEST_F(QOEManagerTest, ReportsCarryTheSessionAsItGrows) {
    nivora->qoe->interval = 0;
    prepare();
    manager->report(); // before anything happened
    manager->onStartupTime(850);
    manager->onBuffering(1700000000, 1200, 800000);
    for (auto [stream, index] : {std::pair{2, 10}, {2, 11}, {3, 10}}) {
        auto response = fragmentResponse(stream, index, stream == 2 ? "video" : "audio");
        manager->onFragmentResponse(response);
    }
    manager->report();
    manager->onBuffering(1700000010, 300, 400000);
    manager->report();

    const auto reports = nivora->qoe->reports.get();
    ASSERT_EQ(reports.size(), 3u);
    const auto& first = reports[0];
    EXPECT_FALSE(first.contains("tracks"));
    EXPECT_FALSE(first["playbackInfo"].contains("buffering"));
    EXPECT_TRUE(first["playbackInfo"]["startupTime"].is_null());
    EXPECT_EQ(first["manifest"], "http://origin.test/master.m3u8");
    EXPECT_EQ(first["networkInfo"]["type"], "WiFi"); // no modem on a test machine
    EXPECT_TRUE(first["networkInfo"]["carrier"]["mcc"].is_null());
    std::vector<std::string> keys;
    for (const auto& [key, value] : first.items())
        keys.push_back(key);
    EXPECT_EQ(keys, (std::vector<std::string>{"transactionId", "time", "manifest", "deviceInfo",
                                              "playbackInfo", "networkInfo"}));

    const auto& second = reports[1];
    EXPECT_EQ(second["playbackInfo"]["startupTime"], 850);
    EXPECT_EQ(second["playbackInfo"]["buffering"].dump(),
              R"([{"currentTime":1700000000,"duration":1200,"bitrate":800000}])");
    ASSERT_EQ(second["tracks"].size(), 2u);
    EXPECT_EQ(second["tracks"][0]["id"], 2);
    EXPECT_EQ(second["tracks"][0]["fragments"].size(), 2u);
    EXPECT_EQ(second["tracks"][1]["name"], "audio");
    EXPECT_EQ(second["tracks"][0]["fragments"][1].dump(),
              R"({"index":11,"bitrate":800000,"uri":"http://origin.test/2/11.ts","startTime":66000,)"
              R"("duration":6000,"size":1011,"downloadTime":120})");

    const auto& third = reports[2];
    EXPECT_TRUE(third["playbackInfo"]["startupTime"].is_null());
    EXPECT_EQ(third["playbackInfo"]["buffering"].size(), 1u);
    EXPECT_EQ(third["tracks"][0]["fragments"].size(), 2u); // fragments stay
    EXPECT_EQ(third["playbackInfo"]["sessionId"], first["playbackInfo"]["sessionId"]);
}

TEST_F(QOEManagerTest, AbsurdTimesAreNarrowedAndBadTextDropsOneReport) {
    LogCapture log;
    prepare();
    auto response = fragmentResponse(0, 1);
    response.start = platform::MediaTime::make(-(std::int64_t{1} << 40), 1000);
    response.duration = platform::MediaTime::make(std::int64_t{1} << 40, 1000);
    response.downloadTime.reset();
    response.size = std::int64_t{1} << 40;
    manager->onFragmentResponse(response);
    manager->onStartupTime(10);
    manager->report();
    auto bad = fragmentResponse(1, 1);
    bad.uri = std::string("http://origin.test/\xff.ts");
    manager->onFragmentResponse(bad);
    manager->report();

    const auto reports = nivora->qoe->reports.get();
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0]["tracks"][0]["fragments"][0].dump(),
              R"({"index":1,"bitrate":800000,"uri":"http://origin.test/0/1.ts","startTime":-2147483648,)"
              R"("duration":2147483647,"size":1099511627776,"downloadTime":0})");
    EXPECT_TRUE(log.contains("Invalid JSON Representation"));
}

TEST_F(QOEManagerTest, TheTimerRunsOnlyWithAPositiveIntervalAndFollowsThePlugin) {
    LogCapture log;
    nivora->qoe->throws = true; // onConfiguration fails: the interval stays 0
    prepare();
    drainMainQueue();
    EXPECT_FALSE(manager->timer());
    EXPECT_TRUE(log.contains("no configuration today"));

    const auto changeInterval = [&](std::int32_t seconds) { nivora->qoe->onInterval.get()(seconds); };
    changeInterval(5);
    drainMainQueue();
    auto first = manager->timer();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->interval(), std::chrono::seconds(5));

    changeInterval(2);
    changeInterval(1); // two changes before the main queue runs: the last one wins
    drainMainQueue();
    EXPECT_FALSE(first->isValid());
    ASSERT_TRUE(manager->timer());
    EXPECT_EQ(manager->timer()->interval(), std::chrono::seconds(1));

    changeInterval(0);
    drainMainQueue();
    EXPECT_FALSE(manager->timer());

    changeInterval(3);
    manager->conclude(); // before the main queue made the timer
    manager->conclude();
    drainMainQueue();
    EXPECT_FALSE(manager->timer());
}

TEST_F(QOEManagerTest, ATimedReportReachesThePluginOnTheMainLoop) {
    nivora->qoe->interval = 1;
    prepare();
    EXPECT_TRUE(platform::RunLoop::main().runFor(std::chrono::seconds(30),
                                                 [&] { return !nivora->qoe->reports.get().empty(); }));
}

TEST(QOEFacade, TheFacadeReachesItsManagerOnlyWhenItHasOne) {
    LogCapture log; // keeps the failing preparation's lines off the console
    auto plain = Ovalto::create();
    plain->setPreAlertView(platform::View::create({{0, 0}, {320, 180}}));
    EXPECT_TRUE(log.contains("[Warning Ovalto.cpp|setPreAlertView(preAlertView:)|"));
    EXPECT_TRUE(log.contains("QoEManager not found"));

    auto first = std::make_shared<RecordingNivora>(), second = std::make_shared<RecordingNivora>();
    auto facade = Ovalto::create(first);
    facade->setNivora(second);
    auto root = platform::View::create({{0, 0}, {320, 180}});
    log.clear();
    facade->setPreAlertView(root);
    EXPECT_FALSE(log.contains("QoEManager not found"));
    ASSERT_EQ(root->subviews().size(), 1u);
    EXPECT_TRUE(root->subviews()[0]->isHidden());
    EXPECT_EQ(root->subviews()[0]->frame(), root->bounds());

    // The plug-in set last is the one the manager talks to.
    log.clear();
    facade->prepare(*platform::Url::parse("http://127.0.0.1:1/master.m3u8"));
    EXPECT_EQ(std::pair(first->qoe->configurations.load(), second->qoe->configurations.load()),
              std::pair(0, 1));

    // The plug-in's pre-alert shows the overlay.
    nivora::QOEViewInfo style;
    style.position = "MIDDLE";
    second->qoe->onPreAlert.get()({"unstable", "", ""}, style);
    drainMainQueue();
    EXPECT_FALSE(root->subviews()[0]->isHidden());
    EXPECT_TRUE(log.contains("unstable"));
    facade.reset();
}

} // namespace
} // namespace ovalto::test
