// A stream prepared through the facade and played by the headless player, against the built-in
// sample served from 127.0.0.1.
#include "API/OvaltoAccess.h"
#include "ovalto/Notifications.h"
#include "ovalto/Ovalto.h"
#include "ovalto/OvaltoError.h"
#include "platform/Cookie.h"
#include "platform/NotificationCenter.h"
#include "platform/Player.h"
#include "platform/PlayerItem.h"
#include "platform/RunLoop.h"
#include "support/LogCapture.h"
#include "support/LoopbackServer.h"

#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <thread>

using namespace ovalto;
using namespace std::chrono_literals;

namespace {

// The sample presentation over HTTP, with the knobs these tests turn.
class SampleOrigin {
public:
    struct Request {
        std::string method;
        std::string path;
        std::string cookie;
        std::string testHeader;
    };

    SampleOrigin()
        : server_([this](httplib::Server& server) {
            server.Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
                handle(request, response);
            });
        }) {}

    std::string url(const std::string& path) const { return server_.url(path); }

    void override(const std::string& path, int status, std::string body, std::string type) {
        std::lock_guard lock(mutex_);
        overrides_[path] = {status, std::move(body), std::move(type)};
    }
    // A "Set-Cookie" field on every response.
    void setCookie(std::string cookie) {
        std::lock_guard lock(mutex_);
        setCookie_ = std::move(cookie);
    }
    void throttle(const std::string& suffix, std::chrono::milliseconds delay) {
        std::lock_guard lock(mutex_);
        throttles_[suffix] = delay;
    }
    std::vector<Request> requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }
    int count(const std::string& prefix) const {
        int n = 0;
        for (const auto& request : requests())
            if (request.method == "GET" && request.path.rfind(prefix, 0) == 0) ++n;
        return n;
    }

private:
    struct Override {
        int status;
        std::string body;
        std::string type;
    };

    void handle(const httplib::Request& request, httplib::Response& response) {
        std::optional<Override> override;
        std::chrono::milliseconds delay{0};
        {
            std::lock_guard lock(mutex_);
            if (!setCookie_.empty()) response.set_header("Set-Cookie", setCookie_);
            requests_.push_back({request.method, request.path, request.get_header_value("Cookie"),
                                 request.get_header_value("X-Test")});
            if (auto it = overrides_.find(request.path); it != overrides_.end()) override = it->second;
            for (const auto& [suffix, d] : throttles_)
                if (request.path.ends_with(suffix)) delay = d;
        }
        if (delay.count() > 0) std::this_thread::sleep_for(delay);
        if (override) {
            response.status = override->status;
            response.set_content(override->body, override->type.c_str());
            return;
        }
        std::ifstream file(std::string(OVALTO_SAMPLE_DIR) + request.path, std::ios::binary);
        if (!file || request.path.find("..") != std::string::npos) {
            response.status = 404;
            return;
        }
        std::string body((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        response.set_content(body,
                             request.path.ends_with(".m3u8") ? "application/vnd.apple.mpegurl" : "video/mp4");
    }

    mutable std::mutex mutex_;
    std::map<std::string, Override> overrides_;
    std::map<std::string, std::chrono::milliseconds> throttles_;
    std::string setCookie_;
    std::vector<Request> requests_;
    test::LoopbackServer server_; // last: stops before the state above goes
};

class RecordingListener : public PluginListener {
public:
    struct Buffering {
        std::uint64_t current, duration;
        std::int32_t bitrate;
    };

    void prepare(const platform::Url&) override { ++prepares; }
    void conclude() override { ++concludes; }
    void onStartupTime(std::uint64_t time) override {
        std::lock_guard lock(mutex);
        startupTimes.push_back(time);
    }
    void onBuffering(std::uint64_t current, std::uint64_t duration, std::int32_t bitrate) override {
        std::lock_guard lock(mutex);
        bufferings.push_back({current, duration, bitrate});
    }
    void onManifestRequest(RequestInfo&) override {}
    void onManifestResponse(ResponseInfo&) override {}
    void onFragmentRequest(RequestInfo& request) override {
        std::lock_guard lock(mutex);
        fragmentRequests.push_back(request.uri.value_or(""));
    }
    void onFragmentResponse(ResponseInfo& response) override {
        std::lock_guard lock(mutex);
        fragmentResponses.push_back(response);
    }

    std::atomic<int> prepares{0}, concludes{0};
    std::mutex mutex;
    std::vector<std::uint64_t> startupTimes;
    std::vector<Buffering> bufferings;
    std::vector<std::string> fragmentRequests;
    std::vector<ResponseInfo> fragmentResponses;
};

// What one preparation ended with.
struct Outcome {
    bool prepared = false;
    std::optional<platform::Error> error;
    bool objectWasFacade = false;
};

// Drives the main run loop until `done`. What `done` waits for may happen on another thread, so a
// timer keeps the loop checking.
bool runUntil(const std::function<bool()>& done, std::chrono::seconds limit = 20s) {
    auto tick = platform::Timer::scheduledTimer(10ms, true, [](platform::Timer&) {});
    bool result = platform::RunLoop::main().runUntil(done, std::chrono::steady_clock::now() + limit);
    tick->invalidate();
    return result;
}

// `afterCall` runs right after prepare() has returned.
Outcome prepare(
    const std::shared_ptr<Ovalto>& facade, const std::string& url,
    const std::function<void()>& afterCall = [] {}) {
    Outcome outcome;
    auto& center = platform::NotificationCenter::defaultCenter();
    auto prepared =
        center.addObserver(OvaltoPreparationNotification, {}, [&](const platform::Notification& note) {
            outcome.prepared = true;
            outcome.objectWasFacade = note.object == facade;
        });
    auto failed =
        center.addObserver(OvaltoErrorNotification, facade, [&](const platform::Notification& note) {
            if (!outcome.error)
                outcome.error = std::any_cast<platform::Error>(note.userInfo.at(OvaltoErrorUserInfoKey));
        });
    auto parsed = platform::Url::parse(url);
    facade->prepare(*parsed);
    afterCall();
    runUntil([&] { return outcome.prepared || outcome.error.has_value(); });
    center.removeObserver(prepared);
    center.removeObserver(failed);
    return outcome;
}

// Plays the facade's item to its end, fast.
void playToEnd(const std::shared_ptr<platform::PlayerItem>& item, double rate = 8) {
    std::atomic<bool> ended{false};
    auto token = platform::NotificationCenter::defaultCenter().addObserver(
        platform::playerItemDidPlayToEndTimeNotification, item,
        [&](const platform::Notification&) { ended = true; });
    auto player = platform::Player::create(item);
    player->setRate(rate);
    EXPECT_TRUE(runUntil([&] { return ended.load(); }, 30s)) << "did not play to the end";
    platform::NotificationCenter::defaultCenter().removeObserver(token);
}

// Plays an item until it ends either way (or a few seconds pass).
void playUntilItEnds(const std::shared_ptr<platform::PlayerItem>& item) {
    std::atomic<bool> ended{false};
    auto& center = platform::NotificationCenter::defaultCenter();
    auto done = [&](const platform::Notification&) { ended = true; };
    auto tokens = {center.addObserver(platform::playerItemDidPlayToEndTimeNotification, item, done),
                   center.addObserver(platform::playerItemFailedToPlayToEndTimeNotification, item, done)};
    auto player = platform::Player::create(item);
    player->setRate(8);
    runUntil([&] { return ended.load(); }, 5s);
    for (auto token : tokens)
        center.removeObserver(token);
}

int errorCode(const platform::Error& error) {
    auto typed = OvaltoError::from(error);
    return typed ? typed->code() : -1;
}

class FacadeTest : public ::testing::Test {
protected:
    void SetUp() override { Ovalto::logLevel = OVALogLevel::error; }
    void TearDown() override { Ovalto::logLevel = OVALogLevel::debug; }

    SampleOrigin origin;
    std::shared_ptr<RecordingListener> listener = std::make_shared<RecordingListener>();
};

} // namespace

TEST_F(FacadeTest, HlsIsPreparedThroughTheLoaderWithTheConfigurationOfThatMoment) {
    origin.override(
        "/master.m3u8", 200,
        [] {
            std::ifstream file(std::string(OVALTO_SAMPLE_DIR) + "/master.m3u8");
            return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        }(),
        "Application/X-MpegURL");
    auto facade = Ovalto::create(listener);
    facade->configurations[ConfigurationKey::httpHeaders] = Headers{{"X-Test", "first"}};
    const auto outcome = prepare(facade, origin.url("/master.m3u8"), [&] {
        facade->configurations[ConfigurationKey::httpHeaders] = Headers{{"X-Test", "second"}};
    });
    ASSERT_TRUE(outcome.prepared);
    EXPECT_TRUE(outcome.objectWasFacade);
    EXPECT_EQ(listener->prepares.load(), 1);
    auto item = facade->playerItem();
    ASSERT_TRUE(item);
    EXPECT_EQ(item->asset()->url().absoluteString(), "cplp://local/master.m3u8");
    auto engine = OvaltoAccess::engine(*facade);
    auto contentUrl =
        configurationValue<platform::Url>(*engine->configurations.get(), ConfigurationKey::contentUrl);
    ASSERT_TRUE(contentUrl);
    EXPECT_EQ(contentUrl->absoluteString(), origin.url("/master.m3u8"));
    // The master the player read is the rewritten one.
    auto master = item->asset()->masterPlaylist();
    ASSERT_TRUE(master);
    auto rewritten = engine->resourceLoader.get()->presentation->playList.get();
    ASSERT_TRUE(rewritten);
    EXPECT_NE(rewritten->find("URI=\"0/0/media.m3u8\""), std::string::npos);
    EXPECT_EQ(rewritten->find("video/low"), std::string::npos);
    // Every request of this preparation carried the headers configured when prepare() was called.
    for (const auto& request : origin.requests())
        EXPECT_EQ(request.testHeader, "first") << request.path;
}

TEST_F(FacadeTest, FailedPreparationsReportTheirCode) {
    origin.override("/refused.m3u8", 404, "", "text/plain");
    origin.override("/garbage.m3u8", 200, "this is not a playlist", "application/vnd.apple.mpegurl");
    struct Case {
        std::string url;
        int code;
        std::string message;
    };
    for (const auto& c : std::vector<Case>{
             {"master.m3u8", 0x8100, "master.m3u8 is not valid."},
             {origin.url("/refused.m3u8"), 0x8201, "AVURLAsset is not valid. "},
             {origin.url("/garbage.m3u8"), 0x8202, "AVURLAsset is not playable."},
         }) {
        auto facade = Ovalto::create();
        auto outcome = prepare(facade, c.url);
        EXPECT_FALSE(outcome.prepared) << c.url;
        ASSERT_TRUE(outcome.error) << c.url;
        EXPECT_EQ(errorCode(*outcome.error), c.code) << c.url;
        EXPECT_EQ(outcome.error->localizedDescription.substr(0, c.message.size()), c.message) << c.url;
        EXPECT_FALSE(facade->playerItem()) << c.url;
    }
}

TEST_F(FacadeTest, NonHlsAndFileUrlsArePlayedDirectly) {
    origin.override("/clip.mp4", 200, std::string(4096, 'x'), "video/mp4");
    auto facade = Ovalto::create();
    auto outcome = prepare(facade, origin.url("/clip.mp4"));
    ASSERT_TRUE(outcome.prepared);
    EXPECT_EQ(facade->playerItem()->asset()->url().absoluteString(), origin.url("/clip.mp4"));
    auto configurations = OvaltoAccess::engine(*facade)->configurations.get();
    EXPECT_FALSE(configurations->contains(ConfigurationKey::contentUrl));
    EXPECT_FALSE(configurations->contains(ConfigurationKey::function));

    const int before = static_cast<int>(origin.requests().size());
    auto file = Ovalto::create();
    ASSERT_TRUE(
        prepare(file,
                platform::Url::fileUrl(std::string(OVALTO_SAMPLE_DIR) + "/master.m3u8").absoluteString())
            .prepared);
    EXPECT_TRUE(file->playerItem()->asset()->resourceLoader()->preloadsEligibleContentKeys());
    EXPECT_EQ(static_cast<int>(origin.requests().size()), before) << "a file URL is not probed";
}

TEST_F(FacadeTest, ConfiguredAndServerCookiesGoOnceWithEveryRequest) {
    platform::CookieStorage::shared().removeAll();
    origin.setCookie("srv=1; Path=/");
    auto facade = Ovalto::create();
    facade->configurations[ConfigurationKey::httpHeaders] = Headers{{"Cookie", "a=1; b=2;c"}};
    ASSERT_TRUE(prepare(facade, origin.url("/master.m3u8")).prepared);
    std::vector<std::string> names;
    for (const auto& cookie :
         platform::CookieStorage::shared().cookies(*platform::Url::parse(origin.url("/"))))
        names.push_back(cookie.name);
    EXPECT_EQ(names, (std::vector<std::string>{"a", " b", "srv"}));
    playToEnd(facade->playerItem());

    // The probe goes before the server has set its cookie; everything after carries it too.
    // Playlist requests add the configured header, segment requests the asset's cookies: both
    // meet the stored cookies, and each cookie still goes once.
    const auto requests = origin.requests();
    ASSERT_GT(requests.size(), 3u);
    EXPECT_EQ(requests.front().method, "HEAD");
    EXPECT_EQ(requests.front().cookie, "a=1; b=2; c");
    bool segment = false;
    for (std::size_t i = 1; i < requests.size(); ++i) {
        SCOPED_TRACE(requests[i].method + " " + requests[i].path + ": " + requests[i].cookie);
        std::multiset<std::string> names;
        for (std::size_t start = 0; start < requests[i].cookie.size();) {
            auto end = std::min(requests[i].cookie.find(';', start), requests[i].cookie.size());
            auto piece = requests[i].cookie.substr(start, end - start);
            names.insert(
                piece.substr(piece.find_first_not_of(' '), piece.find('=') - piece.find_first_not_of(' ')));
            start = end + 1;
        }
        for (const char* name : {"a", "b", "srv"})
            EXPECT_EQ(names.count(name), 1u) << name;
        segment = segment || !requests[i].path.ends_with(".m3u8");
    }
    EXPECT_TRUE(segment) << "segment requests were seen";
    origin.setCookie({});
    platform::CookieStorage::shared().removeAll();
}

TEST_F(FacadeTest, StartupBufferingAndFragmentsAreReported) {
    // The fourth video segment of every variant arrives long after playback needs it.
    origin.throttle("/seg3.m4s", 2500ms);
    auto facade = Ovalto::create(listener);
    ASSERT_TRUE(prepare(facade, origin.url("/master.m3u8")).prepared);
    auto item = facade->playerItem();
    const auto before = std::chrono::system_clock::now();
    playToEnd(item, 4);

    std::lock_guard lock(listener->mutex);
    EXPECT_EQ(listener->startupTimes.size(), 1u);
    ASSERT_EQ(listener->bufferings.size(), 1u);
    const auto& stall = listener->bufferings.front();
    auto beforeSeconds = std::chrono::duration_cast<std::chrono::seconds>(before.time_since_epoch()).count();
    EXPECT_GE(static_cast<long>(stall.current), beforeSeconds);
    EXPECT_GT(stall.duration, 0u);
    EXPECT_GT(stall.bitrate, 0);

    EXPECT_FALSE(listener->fragmentResponses.empty());
}

TEST_F(FacadeTest, FragmentsAfterTheFirstAreReportedFromTheAccessLog) {
    // One rendition, fetched in order: every redirect after the first finds one more request in
    // the access log and reports the fragment before it.
    auto facade = Ovalto::create(listener);
    ASSERT_TRUE(prepare(facade, origin.url("/video/mid/media.m3u8")).prepared);
    playToEnd(facade->playerItem());

    std::lock_guard lock(listener->mutex);
    ASSERT_EQ(listener->fragmentRequests.size(), 6u);
    ASSERT_EQ(listener->fragmentResponses.size(), 5u);
    for (std::size_t i = 0; i < listener->fragmentResponses.size(); ++i) {
        const auto& response = listener->fragmentResponses[i];
        EXPECT_EQ(response.uri, origin.url("/video/mid/seg" + std::to_string(i + 1) + ".m4s"));
        EXPECT_EQ(response.originalUri, response.uri);
        EXPECT_EQ(response.type, "video");
        EXPECT_EQ(response.streamIndex, 0);
        EXPECT_EQ(response.bitrate, 1500000);
        EXPECT_EQ(response.fragmentIndex, static_cast<std::int64_t>(i + 1));
        EXPECT_EQ(response.edgeIP, "127.0.0.1");
        EXPECT_GT(response.size.value_or(0), 0);
        ASSERT_TRUE(response.downloadTime);
        EXPECT_EQ(response.downloadTime->timescale, 1000);
        ASSERT_TRUE(response.duration);
        EXPECT_EQ(response.duration->value, 2000);
    }
}

TEST_F(FacadeTest, TracksAreListedAndSelected) {
    auto facade = Ovalto::create();
    EXPECT_TRUE(facade->tracks(MediaType::audio).empty()) << "nothing before preparation";
    ASSERT_TRUE(prepare(facade, origin.url("/master.m3u8")).prepared);
    EXPECT_EQ(facade->tracks(MediaType::audio), (std::vector<std::string>{"English", "Japanese"}));
    EXPECT_EQ(facade->tracks(MediaType::text), (std::vector<std::string>{"English"}));
    facade->selectTrack(-1, MediaType::audio);
    facade->selectTrack(2, MediaType::audio);
    facade->selectTrack(1, MediaType::audio);
    playToEnd(facade->playerItem());
    EXPECT_GT(origin.count("/audio/ja/seg"), 0);
    EXPECT_EQ(origin.count("/audio/en/seg"), 0);
}

TEST_F(FacadeTest, EveryPreparationEndsInOneNotificationWhenALaterOneReplacesIt) {
    const struct {
        const char* what;
        std::string second;
        int prepared, failed; // notifications for the two calls together
    } cases[] = {
        {"both playable", "/master.m3u8", 2, 0},
        {"the later one fails: the replaced one ends with it", "/missing/master.m3u8", 0, 2},
    };
    // The first asset is still loading when the second call replaces it.
    origin.throttle("/media.m3u8", 300ms);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        auto facade = Ovalto::create(listener);
        std::atomic<int> prepared{0}, failed{0};
        auto& center = platform::NotificationCenter::defaultCenter();
        auto tokens = {
            center.addObserver(OvaltoPreparationNotification, facade,
                               [&](const platform::Notification&) { ++prepared; }),
            center.addObserver(OvaltoErrorNotification, facade, [&](const platform::Notification& note) {
                auto error = std::any_cast<platform::Error>(note.userInfo.at(OvaltoErrorUserInfoKey));
                if (errorCode(error) == 0x8201) ++failed;
            })};
        facade->prepare(*platform::Url::parse(origin.url("/master.m3u8")));
        facade->prepare(*platform::Url::parse(origin.url(c.second)));
        EXPECT_TRUE(runUntil([&] { return prepared + failed == c.prepared + c.failed; }));
        runUntil([] { return false; }, 1s); // room for a notification too many
        EXPECT_EQ(prepared.load(), c.prepared);
        EXPECT_EQ(failed.load(), c.failed);
        EXPECT_EQ(facade->playerItem() != nullptr, c.prepared > 0);
        for (auto token : tokens)
            center.removeObserver(token);
    }
}

TEST_F(FacadeTest, SecondPreparationReplacesTheItemAndReleaseEndsTheSession) {
    auto facade = Ovalto::create(listener);
    ASSERT_TRUE(prepare(facade, origin.url("/master.m3u8")).prepared);
    auto first = facade->playerItem();
    ASSERT_TRUE(prepare(facade, origin.url("/master.m3u8")).prepared);
    auto second = facade->playerItem();
    ASSERT_TRUE(second);
    EXPECT_NE(first, second);

    // The replaced item went with its loader, so playing it fails; nobody observes that failure.
    Ovalto::logLevel = OVALogLevel::debug;
    {
        test::LogCapture capture;
        playUntilItEnds(first);
        EXPECT_FALSE(capture.contains("observeValue(forKeyPath:of:change:context:)"));
    }
    playToEnd(second);
    {
        std::lock_guard lock(listener->mutex);
        EXPECT_EQ(listener->startupTimes.size(), 1u);
    }

    facade.reset();
    EXPECT_EQ(listener->concludes.load(), 1);
    test::LogCapture capture;
    auto player = platform::Player::create(second);
    player->seek(platform::MediaTime::make(0, 1));
    player->setRate(8);
    runUntil([] { return false; }, 1s);
    EXPECT_FALSE(capture.contains("observeValue(forKeyPath:of:change:context:)"))
        << "nobody observes after the facade is gone";
}
