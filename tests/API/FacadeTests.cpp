// A stream prepared through the facade and played by the headless player, against the built-in
// sample served from 127.0.0.1.
#include "API/OvaltoAccess.h"
#include "Utils/Guarded.h"
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

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>
#include <thread>

using namespace ovalto;
using namespace std::chrono_literals;

namespace {

std::optional<std::string> readSample(const std::string& path) {
    std::ifstream file(std::string(OVALTO_SAMPLE_DIR) + path, std::ios::binary);
    if (!file || path.find("..") != std::string::npos) return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(file), {});
}

// The sample presentation over HTTP, with the knobs these tests turn: answers put in place for a
// path, a "Set-Cookie" field on every response and paths answered late.
class SampleOrigin {
public:
    struct Request {
        std::string method, path, cookie, testHeader;
    };
    struct Knobs {
        std::map<std::string, std::tuple<int, std::string, std::string>> answers; // status, body, type
        std::string setCookie;
        std::map<std::string, std::chrono::milliseconds> delays; // by path suffix
    };

    std::string url(const std::string& path) const { return server_.url(path); }
    std::vector<Request> requests() const { return requests_.get(); }
    int count(const std::string& prefix) const {
        int n = 0;
        for (const auto& request : requests())
            n += request.method == "GET" && request.path.starts_with(prefix);
        return n;
    }

    Guarded<Knobs> knobs;

private:
    void handle(const httplib::Request& request, httplib::Response& response) {
        const auto now = knobs.get();
        requests_.with([&](auto& all) {
            all.push_back({request.method, request.path, request.get_header_value("Cookie"),
                           request.get_header_value("X-Test")});
        });
        if (!now.setCookie.empty()) response.set_header("Set-Cookie", now.setCookie);
        for (const auto& [suffix, delay] : now.delays)
            if (request.path.ends_with(suffix)) std::this_thread::sleep_for(delay);
        if (auto it = now.answers.find(request.path); it != now.answers.end()) {
            const auto& [status, body, type] = it->second;
            response.status = status;
            response.set_content(body, type);
        } else if (const auto body = readSample(request.path)) {
            response.set_content(*body, request.path.ends_with(".m3u8") ? "application/vnd.apple.mpegurl"
                                                                        : "video/mp4");
        } else {
            response.status = 404;
        }
    }

    Guarded<std::vector<Request>> requests_;
    // Last: stops before the state above goes.
    test::LoopbackServer server_{[this](httplib::Server& server) {
        server.Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
            handle(request, response);
        });
    }};
};

class RecordingListener : public PluginListener {
public:
    void prepare(const platform::Url&) override { ++prepares; }
    void conclude() override { ++concludes; }
    void onStartupTime(std::uint64_t) override { ++startups; }
    void onBuffering(std::uint64_t current, std::uint64_t duration, std::int32_t bitrate) override {
        bufferings.with([&](auto& all) { all.push_back({current, duration, bitrate}); });
    }
    void onManifestRequest(RequestInfo&) override {}
    void onManifestResponse(ResponseInfo&) override {}
    void onFragmentRequest(RequestInfo&) override { ++fragmentRequests; }
    void onFragmentResponse(ResponseInfo& response) override {
        fragmentResponses.with([&](auto& all) { all.push_back(response); });
    }

    std::atomic<int> prepares{0}, concludes{0}, startups{0}, fragmentRequests{0};
    Guarded<std::vector<std::tuple<std::uint64_t, std::uint64_t, std::int32_t>>> bufferings;
    Guarded<std::vector<ResponseInfo>> fragmentResponses;
};

// Drives the main run loop until `done`. What `done` waits for may happen on another thread, so a
// timer keeps the loop checking.
bool runUntil(const std::function<bool()>& done, std::chrono::seconds limit = 20s) {
    auto tick = platform::Timer::scheduledTimer(10ms, true, [](platform::Timer&) {});
    bool result = platform::RunLoop::main().runUntil(done, std::chrono::steady_clock::now() + limit);
    tick->invalidate();
    return result;
}

// What one preparation ended with.
struct Outcome {
    bool prepared = false;
    std::optional<platform::Error> error;
};

// `afterCall` runs right after prepare() has returned.
Outcome prepare(
    const std::shared_ptr<Ovalto>& facade, const std::string& url,
    const std::function<void()>& afterCall = [] {}) {
    Outcome outcome;
    auto& center = platform::NotificationCenter::defaultCenter();
    const auto tokens = {
        center.addObserver(OvaltoPreparationNotification, {},
                           [&](const platform::Notification& note) {
                               outcome.prepared = true;
                               EXPECT_EQ(note.object, facade);
                           }),
        center.addObserver(OvaltoErrorNotification, facade, [&](const platform::Notification& note) {
            if (!outcome.error)
                outcome.error = std::any_cast<platform::Error>(note.userInfo.at(OvaltoErrorUserInfoKey));
        })};
    facade->prepare(*platform::Url::parse(url));
    afterCall();
    runUntil([&] { return outcome.prepared || outcome.error.has_value(); });
    for (auto token : tokens)
        center.removeObserver(token);
    return outcome;
}

// Plays `item` fast until it ends either way or `limit` passes; true when it played to its end.
bool play(const std::shared_ptr<platform::PlayerItem>& item, double rate = 8,
          std::chrono::seconds limit = 30s) {
    std::atomic<int> ended{0}; // 1: to its end, 2: failed
    auto& center = platform::NotificationCenter::defaultCenter();
    const auto tokens = {center.addObserver(platform::playerItemDidPlayToEndTimeNotification, item,
                                            [&](const platform::Notification&) { ended = 1; }),
                         center.addObserver(platform::playerItemFailedToPlayToEndTimeNotification, item,
                                            [&](const platform::Notification&) { ended = 2; })};
    auto player = platform::Player::create(item);
    player->setRate(rate);
    runUntil([&] { return ended != 0; }, limit);
    for (auto token : tokens)
        center.removeObserver(token);
    return ended == 1;
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
    origin.knobs.with([](auto& knobs) {
        knobs.answers["/master.m3u8"] = {200, *readSample("/master.m3u8"), "Application/X-MpegURL"};
    });
    auto facade = Ovalto::create(listener);
    facade->configurations[ConfigurationKey::httpHeaders] = Headers{{"X-Test", "first"}};
    const auto outcome = prepare(facade, origin.url("/master.m3u8"), [&] {
        facade->configurations[ConfigurationKey::httpHeaders] = Headers{{"X-Test", "second"}};
    });
    ASSERT_TRUE(outcome.prepared);
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
    ASSERT_TRUE(item->asset()->masterPlaylist());
    EXPECT_THAT(engine->resourceLoader.get()->presentation->playList.get().value_or(""),
                testing::AllOf(testing::HasSubstr("URI=\"0/0/media.m3u8\""),
                               testing::Not(testing::HasSubstr("video/low"))));
    // Every request of this preparation carried the headers configured when prepare() was called.
    for (const auto& request : origin.requests())
        EXPECT_EQ(request.testHeader, "first") << request.path;
}

TEST_F(FacadeTest, FailedPreparationsReportTheirCode) {
    origin.knobs.with([](auto& knobs) {
        knobs.answers["/refused.m3u8"] = {404, "", "text/plain"};
        knobs.answers["/garbage.m3u8"] = {200, "this is not a playlist", "application/vnd.apple.mpegurl"};
    });
    const std::tuple<std::string, int, std::string> cases[] = {
        {"master.m3u8", 0x8100, "master.m3u8 is not valid."},
        {origin.url("/refused.m3u8"), 0x8201, "AVURLAsset is not valid. "},
        {origin.url("/garbage.m3u8"), 0x8202, "AVURLAsset is not playable."},
    };
    for (const auto& [url, code, message] : cases) {
        SCOPED_TRACE(url);
        auto facade = Ovalto::create();
        auto outcome = prepare(facade, url);
        EXPECT_FALSE(outcome.prepared);
        ASSERT_TRUE(outcome.error);
        EXPECT_EQ(errorCode(*outcome.error), code);
        EXPECT_TRUE(outcome.error->localizedDescription.starts_with(message))
            << outcome.error->localizedDescription;
        EXPECT_FALSE(facade->playerItem());
    }
}

TEST_F(FacadeTest, NonHlsAndFileUrlsArePlayedDirectly) {
    origin.knobs.with([](auto& knobs) {
        knobs.answers["/clip.mp4"] = {200, std::string(4096, 'x'), "video/mp4"};
    });
    auto facade = Ovalto::create();
    ASSERT_TRUE(prepare(facade, origin.url("/clip.mp4")).prepared);
    EXPECT_EQ(facade->playerItem()->asset()->url().absoluteString(), origin.url("/clip.mp4"));
    auto configurations = OvaltoAccess::engine(*facade)->configurations.get();
    EXPECT_FALSE(configurations->contains(ConfigurationKey::contentUrl));
    EXPECT_FALSE(configurations->contains(ConfigurationKey::function));

    const auto before = origin.requests().size();
    auto file = Ovalto::create();
    ASSERT_TRUE(
        prepare(file,
                platform::Url::fileUrl(std::string(OVALTO_SAMPLE_DIR) + "/master.m3u8").absoluteString())
            .prepared);
    EXPECT_TRUE(file->playerItem()->asset()->resourceLoader()->preloadsEligibleContentKeys());
    EXPECT_EQ(origin.requests().size(), before) << "a file URL is not probed";
}

// One playback: the audio selected last is the one fetched, and the configured cookies and the
// server's go once with every request.
TEST_F(FacadeTest, TracksAreSelectedAndCookiesGoOnceWithEveryRequest) {
    platform::CookieStorage::shared().removeAll();
    origin.knobs.with([](auto& knobs) { knobs.setCookie = "srv=1; Path=/"; });
    auto facade = Ovalto::create();
    EXPECT_TRUE(facade->tracks(MediaType::audio).empty()) << "nothing before preparation";
    facade->configurations[ConfigurationKey::httpHeaders] = Headers{{"Cookie", "a=1; b=2;c"}};
    ASSERT_TRUE(prepare(facade, origin.url("/master.m3u8")).prepared);
    std::vector<std::string> names;
    for (const auto& cookie :
         platform::CookieStorage::shared().cookies(*platform::Url::parse(origin.url("/"))))
        names.push_back(cookie.name);
    EXPECT_EQ(names, (std::vector<std::string>{"a", " b", "srv"}));
    EXPECT_EQ(facade->tracks(MediaType::audio), (std::vector<std::string>{"English", "Japanese"}));
    EXPECT_EQ(facade->tracks(MediaType::text), (std::vector<std::string>{"English"}));
    facade->selectTrack(-1, MediaType::audio);
    facade->selectTrack(2, MediaType::audio);
    facade->selectTrack(1, MediaType::audio);
    EXPECT_TRUE(play(facade->playerItem()));
    EXPECT_GT(origin.count("/audio/ja/seg"), 0);
    EXPECT_EQ(origin.count("/audio/en/seg"), 0);

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
        std::istringstream pieces(requests[i].cookie);
        for (std::string piece; std::getline(pieces, piece, ';');)
            names.insert(
                piece.substr(piece.find_first_not_of(' '), piece.find('=') - piece.find_first_not_of(' ')));
        for (const char* name : {"a", "b", "srv"})
            EXPECT_EQ(names.count(name), 1u) << name;
        segment = segment || !requests[i].path.ends_with(".m3u8");
    }
    EXPECT_TRUE(segment) << "segment requests were seen";
    origin.knobs.set({});
    platform::CookieStorage::shared().removeAll();
}

TEST_F(FacadeTest, StartupBufferingAndFragmentsAreReported) {
    // The fourth video segment of every variant arrives long after playback needs it.
    origin.knobs.with([](auto& knobs) { knobs.delays["/seg3.m4s"] = 2500ms; });
    auto facade = Ovalto::create(listener);
    ASSERT_TRUE(prepare(facade, origin.url("/master.m3u8")).prepared);
    const auto before =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch());
    EXPECT_TRUE(play(facade->playerItem(), 4));

    EXPECT_EQ(listener->startups.load(), 1);
    const auto bufferings = listener->bufferings.get();
    ASSERT_EQ(bufferings.size(), 1u);
    const auto [current, duration, bitrate] = bufferings.front();
    EXPECT_GE(static_cast<long>(current), before.count());
    EXPECT_GT(duration, 0u);
    EXPECT_GT(bitrate, 0);
    EXPECT_FALSE(listener->fragmentResponses.get().empty());
}

TEST_F(FacadeTest, FragmentsAfterTheFirstAreReportedFromTheAccessLog) {
    // One rendition, fetched in order: every redirect after the first finds one more request in
    // the access log and reports the fragment before it.
    auto facade = Ovalto::create(listener);
    ASSERT_TRUE(prepare(facade, origin.url("/video/mid/media.m3u8")).prepared);
    EXPECT_TRUE(play(facade->playerItem()));

    EXPECT_EQ(listener->fragmentRequests.load(), 6);
    const auto responses = listener->fragmentResponses.get();
    ASSERT_EQ(responses.size(), 5u);
    for (std::int64_t i = 0; i < 5; ++i) {
        const auto& response = responses[i];
        const auto uri = origin.url("/video/mid/seg" + std::to_string(i + 1) + ".m4s");
        EXPECT_EQ(std::tuple(response.uri, response.originalUri, response.type, response.streamIndex,
                             response.bitrate, response.fragmentIndex, response.edgeIP),
                  std::tuple(uri, uri, "video", 0, 1500000, i + 1, "127.0.0.1"));
        EXPECT_GT(response.size.value_or(0), 0);
        ASSERT_TRUE(response.downloadTime && response.duration);
        EXPECT_EQ(std::tuple(response.downloadTime->timescale, response.duration->value),
                  std::tuple(1000, 2000));
    }
}

TEST_F(FacadeTest, EveryPreparationEndsInOneNotificationWhenALaterOneReplacesIt) {
    // second URL, then how many notifications of each kind the two calls end in together
    const std::tuple<const char*, std::string, int, int> cases[] = {
        {"both playable", "/master.m3u8", 2, 0},
        {"the later one fails: the replaced one ends with it", "/missing/master.m3u8", 0, 2},
    };
    // The first asset is still loading when the second call replaces it.
    origin.knobs.with([](auto& knobs) { knobs.delays["/media.m3u8"] = 300ms; });
    for (const auto& [what, second, preparedCount, failedCount] : cases) {
        SCOPED_TRACE(what);
        auto facade = Ovalto::create(listener);
        std::atomic<int> prepared{0}, failed{0};
        auto& center = platform::NotificationCenter::defaultCenter();
        const auto tokens = {
            center.addObserver(OvaltoPreparationNotification, facade,
                               [&](const platform::Notification&) { ++prepared; }),
            center.addObserver(OvaltoErrorNotification, facade, [&](const platform::Notification& note) {
                failed +=
                    errorCode(std::any_cast<platform::Error>(note.userInfo.at(OvaltoErrorUserInfoKey))) ==
                    0x8201;
            })};
        facade->prepare(*platform::Url::parse(origin.url("/master.m3u8")));
        facade->prepare(*platform::Url::parse(origin.url(second)));
        EXPECT_TRUE(runUntil([&] { return prepared + failed == preparedCount + failedCount; }));
        runUntil([] { return false; }, 1s); // room for a notification too many
        EXPECT_EQ(std::tuple(prepared.load(), failed.load(), facade->playerItem() != nullptr),
                  std::tuple(preparedCount, failedCount, preparedCount > 0));
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
        play(first, 8, 5s);
        EXPECT_FALSE(capture.contains("observeValue(forKeyPath:of:change:context:)"));
    }
    EXPECT_TRUE(play(second));
    EXPECT_EQ(listener->startups.load(), 1);

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
