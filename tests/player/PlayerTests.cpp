// The headless player: how it reads playlists, its loading requests and resource loader, and,
// against a loopback origin, what an asset turns out to be, playback to the end, selection, seeking, live,
// keys and observers, and an origin that fails: the player plays on from its buffer while it retries, gives
// up with the error when the buffer and its patience are spent, and does not retry what cannot change.
#include "platform/Asset.h"
#include "platform/AssetResourceLoader.h"
#include "platform/ContentKey.h"
#include "platform/Cookie.h"
#include "platform/DispatchQueue.h"
#include "platform/HlsReader.h"
#include "platform/LoadingRequest.h"
#include "platform/NotificationCenter.h"
#include "platform/Player.h"
#include "platform/PlayerItem.h"
#include "platform/ResourceLoaderDelegate.h"
#include "support/HlsOrigin.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <any>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <thread>

using namespace ovalto::platform;
using namespace std::chrono_literals;
using ovalto::test::HlsOrigin;
using Reply = ovalto::tool::Origin::Reply;
using Kind = LoadingOutcome::Kind;

namespace {

// Polls `done` until it holds; the deadline only guards against a hang.
bool waitUntil(const std::function<bool()>& done) {
    for (const auto end = std::chrono::steady_clock::now() + 15s; !done(); std::this_thread::sleep_for(5ms))
        if (std::chrono::steady_clock::now() > end) return false;
    return true;
}

// MARK: - Reading playlists

const Url base = *Url::parse("http://127.0.0.1:8080/live/master.m3u8");

template <class Playlist> Playlist read(const std::string& text) {
    auto playlist = HlsReader::read(text, base);
    EXPECT_TRUE(playlist && std::holds_alternative<Playlist>(*playlist)) << text;
    return playlist ? std::get<Playlist>(*playlist) : Playlist{};
}

const char* const masterText = R"(#EXTM3U
#EXT-X-VERSION:7
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="aud",NAME="English",LANGUAGE="en",DEFAULT=NO,URI="audio/en.m3u8"
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="aud",NAME="Japanese",LANGUAGE="ja",DEFAULT=YES,URI="audio/ja.m3u8"
#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID="cc",NAME="CC1",INSTREAM-ID="CC1"
#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID="v",NAME="Wide",DEFAULT=YES,URI="wide.m3u8"
#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID="v",NAME="Close",URI="close.m3u8"
#EXT-X-STREAM-INF:BANDWIDTH=800000,CODECS="avc1.4d401f,mp4a.40.2",AUDIO="aud",CLOSED-CAPTIONS="cc",VIDEO="v"
low/media.m3u8
#EXT-X-I-FRAME-STREAM-INF:BANDWIDTH=100000,URI="iframes.m3u8"
#EXT-X-STREAM-INF:BANDWIDTH=2000000,AVERAGE-BANDWIDTH=1800000,AUDIO="aud",CLOSED-CAPTIONS=NONE
http://cdn.invalid/high/media.m3u8
)";

TEST(HlsReader, RenditionChoicePrefersTheNamedThenTheDefaultThenTheFirst) {
    const auto playlist = read<HlsMasterPlaylist>(masterText);
    for (const auto& [preferred, expected] : std::vector<std::pair<std::optional<std::string>, std::string>>{
             {"English", "English"}, {std::nullopt, "Japanese"}, {"Klingon", "Japanese"}}) {
        const auto* rendition = playlist.rendition("AUDIO", "aud", preferred);
        EXPECT_EQ(rendition ? rendition->name : "none", expected);
    }
    EXPECT_EQ(playlist.rendition("AUDIO", "other", std::nullopt), nullptr);

    // A VIDEO rendition replaces the variant's own playlist; a variant without a group keeps it.
    const auto& [low, high] = std::tie(playlist.variants.at(0), playlist.variants.at(1));
    EXPECT_EQ(playlist.mainPlaylistUrl(low, std::nullopt).lastPathComponent(), "wide.m3u8");
    EXPECT_EQ(playlist.mainPlaylistUrl(low, "Close").lastPathComponent(), "close.m3u8");
    EXPECT_EQ(playlist.mainPlaylistUrl(high, std::nullopt).absoluteString(),
              "http://cdn.invalid/high/media.m3u8");
}

TEST(HlsReader, MediaPlaylistNumbersSegmentsAndCarriesMapKeysAndRanges) {
    const auto playlist = read<HlsMediaPlaylist>(R"(#EXTM3U
#EXT-X-VERSION:7
#EXT-X-TARGETDURATION:6
#EXT-X-MEDIA-SEQUENCE:120
#EXT-X-PLAYLIST-TYPE:VOD
#EXT-X-MAP:URI="main.mp4",BYTERANGE="720@0"
#EXT-X-KEY:METHOD=SAMPLE-AES,URI="skd://k1",KEYFORMATVERSIONS="1"
#EXTINF:6.006,
#EXT-X-BYTERANGE:1000@720
main.mp4
#EXT-X-DISCONTINUITY
#EXTINF:5.5
#EXT-X-BYTERANGE:2000
main.mp4
#EXT-X-KEY:METHOD=NONE
#EXTINF:4,title
other.ts
#EXT-X-ENDLIST
)");
    EXPECT_EQ(std::tuple(playlist.targetDuration, playlist.mediaSequence, playlist.endList,
                         playlist.playlistType, playlist.isLive()),
              std::tuple(6, 120, true, "VOD", false));
    EXPECT_NEAR(playlist.duration(), 15.506, 1e-9);
    std::vector<std::string> segments;
    for (const auto& s : playlist.segments) {
        const auto range = [](const auto& r) { return r ? r->rangeHeader() : std::string("whole"); };
        segments.push_back(std::to_string(s.sequence) + (s.discontinuity ? " discontinuity" : "") +
                           (s.map ? " map " + range(s.map->byteRange) : "") +
                           (s.key ? " key " + s.key->uri.value_or(base).absoluteString() : "") + " " +
                           range(s.byteRange) + " " + s.uri.absoluteString());
    }
    // A range without an offset continues the previous one; METHOD=NONE ends encryption; the map
    // applies until the next one.
    EXPECT_EQ(segments,
              (std::vector<std::string>{
                  "120 map bytes=0-719 key skd://k1 bytes=720-1719 http://127.0.0.1:8080/live/main.mp4",
                  "121 discontinuity map bytes=0-719 key skd://k1 bytes=1720-3719 "
                  "http://127.0.0.1:8080/live/main.mp4",
                  "122 map bytes=0-719 whole http://127.0.0.1:8080/live/other.ts"}));

    const auto live = read<HlsMediaPlaylist>(
        "#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXT-X-MEDIA-SEQUENCE:7\n#EXTINF:2,\na.ts\n");
    EXPECT_TRUE(live.isLive());
    EXPECT_EQ(live.segments.at(0).sequence, 7);
}

TEST(HlsReader, RejectsWhatIsNotAUsablePlaylist) {
    const char* const cases[] = {
        "",
        "<html>not a playlist</html>",
        "#EXTM3U\nseg.ts\n",                                                  // URI without #EXTINF
        "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\n",                           // variant without URI
        "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\na.m3u8\n#EXTINF:1,\nb.ts\n", // master and media at once
        "#EXTM3U\n#EXTINF:abc,\nb.ts\n",                                      // duration that is not a number
        "#EXTM3U\n#EXTINF:1,\n#EXT-X-BYTERANGE:x@1\nb.ts\n",                  // byte range that is not one
        "\n\xEF\xBB\xBF#EXTM3U\n#EXTINF:2,\na.ts\n", // a byte order mark further on is text like any other
    };
    for (const char* text : cases)
        EXPECT_FALSE(HlsReader::read(text, base)) << text;
}

TEST(HlsReader, AByteOrderMarkAtTheStartIsReadPast) {
    // Editors and some origins write the mark; players read such playlists like any other.
    const std::string mark = "\xEF\xBB\xBF";
    EXPECT_TRUE(HlsReader::isPlaylist(mark + "#EXTM3U\n"));
    const auto withMark = read<HlsMasterPlaylist>(mark + masterText);
    EXPECT_EQ(std::tuple(withMark.variants.size(), withMark.variants.at(0).uri.absoluteString(),
                         withMark.renditions.size()),
              std::tuple(2u, "http://127.0.0.1:8080/live/low/media.m3u8", 5u));
    EXPECT_EQ(read<HlsMediaPlaylist>(mark + "#EXTM3U\n#EXTINF:2,\na.ts\n").segments.size(), 1u);
}

// MARK: - Loading requests

// Makes requests and collects the outcomes their completions receive, from any thread.
struct Outcomes {
    std::shared_ptr<LoadingRequest> request(LoadingRequest::Parts parts = {}) {
        return LoadingRequest::create(UrlRequest(*Url::parse("cplp://local/master.m3u8")), parts,
                                      [this](const LoadingOutcome& outcome) {
                                          std::lock_guard lock(mutex);
                                          all.push_back(outcome);
                                      });
    }
    // The first outcome, once there is one.
    LoadingOutcome first() {
        EXPECT_TRUE(waitUntil([this] { return count() > 0; }));
        std::lock_guard lock(mutex);
        return all.at(0);
    }
    std::size_t count() {
        std::lock_guard lock(mutex);
        return all.size();
    }

    std::mutex mutex;
    std::vector<LoadingOutcome> all;
};

// Redirects, errors and content types reach the player in the player's delegate and key tests;
// data answered in pieces is only here.
TEST(LoadingRequest, DataAnsweredInPiecesReachesThePlayerWhole) {
    Outcomes outcomes;
    auto request = outcomes.request({.requestedOffset = 100});
    request->dataRequest()->respond("#EXTM3U\n");
    request->dataRequest()->respond("#EXT-X-ENDLIST\n");
    EXPECT_EQ(request->dataRequest()->currentOffset(), 100 + 23);
    request->finishLoading();
    EXPECT_EQ(std::tuple(outcomes.first().kind, outcomes.first().data, request->isFinished()),
              std::tuple(Kind::data, "#EXTM3U\n#EXT-X-ENDLIST\n", true));
}

TEST(LoadingRequest, AnswerAfterThePlayerGaveUpIsIgnoredQuietly) {
    ovalto::test::LogCapture log;
    Outcomes outcomes;
    auto request = outcomes.request();
    request->cancel();
    request->dataRequest()->respond("late");
    request->finishLoading();
    EXPECT_EQ(
        std::tuple(outcomes.first().kind, outcomes.count(), request->isCancelled(), request->isFinished()),
        std::tuple(Kind::cancelled, 1u, true, false));
    EXPECT_FALSE(log.contains("finished twice"));
}

#ifdef NDEBUG
TEST(LoadingRequest, SecondFinishIsIgnoredAndLoggedInReleaseBuilds) {
    ovalto::test::LogCapture log;
    Outcomes outcomes;
    auto request = outcomes.request();
    request->dataRequest()->respond("one");
    request->finishLoading();
    request->finishLoading(Error{"X", 1, "second", {}});
    EXPECT_EQ(std::tuple(outcomes.count(), outcomes.first().data, log.contains("finished twice")),
              std::tuple(1u, "one", true));
}
#else
TEST(LoadingRequestDeathTest, SecondFinishIsCaughtInDebugBuilds) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            Outcomes outcomes;
            auto request = outcomes.request();
            request->finishLoading();
            request->finishLoading();
        },
        "finished exactly once");
}
#endif

// The player gives up on one thread while the answer arrives on another: one outcome, always.
TEST(LoadingRequest, RaceBetweenAnswerAndCancelEndsItExactlyOnce) {
    for (int round = 0; round < 200; ++round) {
        Outcomes outcomes;
        auto request = outcomes.request();
        std::thread answerer([&] {
            request->dataRequest()->respond("bytes");
            request->finishLoading();
        });
        std::thread player([&] { request->cancel(); });
        answerer.join();
        player.join();
        ASSERT_EQ(outcomes.count(), 1u);
        EXPECT_NE(request->isFinished(), request->isCancelled());
    }
}

// MARK: - The asset's resource loader

// Answers according to `answer`, and remembers where it was called.
struct ScriptedDelegate : ResourceLoaderDelegate {
    std::function<bool(const std::shared_ptr<LoadingRequest>&)> answer;
    std::atomic<bool> onQueue{true};
    std::atomic<int> cancels{0};
    std::shared_ptr<DispatchQueue> queue = DispatchQueue::serial("test.resource");

    bool shouldWaitForLoadingOfRequestedResource(AssetResourceLoader&,
                                                 const std::shared_ptr<LoadingRequest>& request) override {
        if (!queue->isCurrent()) onQueue = false;
        return answer(request);
    }
    void didCancelLoadingRequest(AssetResourceLoader&, const std::shared_ptr<LoadingRequest>&) override {
        if (!queue->isCurrent()) onQueue = false;
        ++cancels;
    }
};

struct LoaderFixture : ::testing::Test {
    std::shared_ptr<AssetResourceLoader> loader = AssetResourceLoader::create();
    std::shared_ptr<ScriptedDelegate> delegate = std::make_shared<ScriptedDelegate>();
    Outcomes outcomes;

    void SetUp() override { loader->setDelegate(delegate, delegate->queue); }
};

TEST_F(LoaderFixture, RequestFailsWhenTheDelegateDeclinesUnlessAnsweredBeforeDeclining) {
    delegate->answer = [](const auto&) { return false; };
    Outcomes declined;
    loader->load(declined.request());
    EXPECT_EQ(declined.first().error.value_or(Error{}).code, loaderErrorNoDelegate);
    delegate->answer = [](const std::shared_ptr<LoadingRequest>& request) {
        request->dataRequest()->respond("data");
        request->finishLoading();
        return false;
    };
    loader->load(outcomes.request());
    EXPECT_EQ(std::tuple(outcomes.first().kind, outcomes.first().data), std::tuple(Kind::data, "data"));
}

TEST_F(LoaderFixture, DelegateIsCalledOnItsQueueAndHeldWeakly) {
    delegate->answer = [](const std::shared_ptr<LoadingRequest>& request) {
        DispatchQueue::global()->async([request] { request->finishLoading(); });
        return true;
    };
    loader->load(outcomes.request());
    EXPECT_EQ(std::tuple(outcomes.first().kind, delegate->onQueue.load()), std::tuple(Kind::data, true));

    std::weak_ptr<ScriptedDelegate> weak = delegate;
    delegate->queue->sync([] {}); // the loader's block has let go of it
    delegate.reset();
    EXPECT_TRUE(weak.expired());
    Outcomes orphaned;
    loader->load(orphaned.request());
    EXPECT_EQ(orphaned.first().error->code, loaderErrorNoDelegate);
}

TEST_F(LoaderFixture, CancellingTellsTheDelegateOnItsQueue) {
    delegate->answer = [](const auto&) { return true; }; // taken on, never answered
    auto request = outcomes.request();
    loader->load(request);
    delegate->queue->sync([] {}); // the delegate has seen it
    loader->cancel(request);
    EXPECT_EQ(outcomes.first().kind, Kind::cancelled);
    delegate->queue->sync([] {});
    EXPECT_EQ(std::tuple(delegate->cancels.load(), delegate->onQueue.load()), std::tuple(1, true));
}

// MARK: - Playback

// Records what an item reports, in order: observed changes ("status=readyToPlay",
// "playbackBufferEmpty=true", …) and notifications (by name), each with the clock at that moment.
struct ItemWatcher {
    struct Event {
        std::string what;
        double clock = 0;
        std::map<std::string, std::any> userInfo;
    };
    static constexpr const char* paths[] = {"status", "playbackLikelyToKeepUp", "playbackBufferFull",
                                            "playbackBufferEmpty", "loadedTimeRanges"};

    explicit ItemWatcher(std::shared_ptr<PlayerItem> watched)
        : item(std::move(watched)) {
        for (const char* path : paths) {
            item->addObserver(
                this, path, &context,
                [this](const std::string& keyPath, const KeyValueChange& change, auto observed) {
                    EXPECT_EQ(observed, &context);
                    record(keyPath + describe(change.newValue), {});
                });
        }
        for (const char* name :
             {playerItemDidPlayToEndTimeNotification, playerItemTimeJumpedNotification,
              playerItemFailedToPlayToEndTimeNotification, playerItemNewAccessLogEntryNotification,
              playerItemNewErrorLogEntryNotification}) {
            tokens.push_back(NotificationCenter::defaultCenter().addObserver(
                name, item, [this](const Notification& note) { record(note.name, note.userInfo); }));
        }
    }
    ~ItemWatcher() {
        for (const char* path : paths)
            item->removeObserver(this, path, &context);
        for (auto token : tokens)
            NotificationCenter::defaultCenter().removeObserver(token);
    }

    std::vector<Event> events() const {
        std::lock_guard lock(mutex);
        return all;
    }
    bool saw(const std::string& what) const {
        return std::ranges::any_of(events(), [&](const Event& event) { return event.what == what; });
    }
    bool waitFor(const std::string& what) const {
        return waitUntil([&] { return saw(what); });
    }
    static std::string describe(const std::any& value) {
        using enum PlayerItem::Status;
        if (const auto* status = std::any_cast<PlayerItem::Status>(&value))
            return *status == readyToPlay ? "=readyToPlay" : *status == failed ? "=failed" : "=unknown";
        if (const auto* flag = std::any_cast<bool>(&value)) return *flag ? "=true" : "=false";
        return "";
    }
    void record(std::string what, std::map<std::string, std::any> userInfo) {
        const double clock = item->currentTime().seconds();
        std::lock_guard lock(mutex);
        all.push_back({std::move(what), clock, std::move(userInfo)});
    }

    std::shared_ptr<PlayerItem> item;
    int context = 0;
    mutable std::mutex mutex;
    std::vector<Event> all;
    std::vector<NotificationCenter::Token> tokens;
};

// A resource-loader delegate as the library's is shaped: playlists are served from memory (the
// origin's), segments are answered with a redirect and a synthetic 302 to the origin, key
// requests with key bytes. Answers are given from the global queue, as resources do. Requests
// whose URL ends with `failSuffix` are finished with `error`, those ending with `silentSuffix`
// taken on and never finished (both set before the first request).
struct TestDelegate : ResourceLoaderDelegate, std::enable_shared_from_this<TestDelegate> {
    explicit TestDelegate(std::shared_ptr<const HlsOrigin> origin)
        : origin_(std::move(origin)) {}

    std::string failSuffix, silentSuffix;
    Error error{"OvaltoError", 0x8400, "PlayList is not received.", {}};

    bool shouldWaitForLoadingOfRequestedResource(AssetResourceLoader&,
                                                 const std::shared_ptr<LoadingRequest>& request) override {
        const Url url = request->request().url;
        const std::string text = url.absoluteString();
        std::lock_guard lock(mutex_);
        requests_.push_back(text);
        if (!failSuffix.empty() && text.ends_with(failSuffix))
            DispatchQueue::global()->async([request, error = error] { request->finishLoading(error); });
        else if (!silentSuffix.empty() && text.ends_with(silentSuffix))
            silent_.push_back(request); // never answered
        else
            DispatchQueue::global()->async(
                [self = shared_from_this(), request, url] { self->answer(*request, url); });
        return true;
    }
    std::vector<std::string> requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }
    void answer(LoadingRequest& request, const Url& url) {
        const std::string path = url.path();
        if (url.scheme() == "skd") {
            // A key stored earlier for the asset: the one kind of answer a test can make alone.
            ContentKey key{std::string(16, 'k'), std::string(16, 'i'), url.host().value_or(""), 0};
            if (auto* information = request.contentInformationRequest())
                information->setContentType(streamingKeyDeliveryPersistentContentKeyType);
            if (auto* data = request.dataRequest()) data->respond(std::get<Data>(key.seal()));
        } else if (path.ends_with(".m3u8")) {
            auto body = origin_->body(path);
            if (!body) return request.finishLoading(Error{"TestDelegate", 404, "no playlist " + path, {}});
            request.dataRequest()->respond(*body);
        } else {
            auto target = *Url::parse(origin_->url(path));
            request.setRedirect(UrlRequest(target, CachePolicy::reloadIgnoringLocalCacheData, 30));
            request.setResponse(UrlResponse{target, true, 302, {}, {}, -1});
        }
        request.finishLoading();
    }

    const std::shared_ptr<const HlsOrigin> origin_;
    mutable std::mutex mutex_;
    std::vector<std::string> requests_;
    std::vector<std::shared_ptr<LoadingRequest>> silent_;
};

// An item, its watcher and its player, made in that order so that the watcher hears everything.
struct Playback {
    std::shared_ptr<PlayerItem> item;
    ItemWatcher watcher{item};
    std::shared_ptr<Player> player;

    Playback(std::shared_ptr<PlayerItem> playerItem, const PlayerSettings& settings, double rate)
        : item(std::move(playerItem))
        , player(Player::create(item, settings)) {
        player->setRate(rate);
    }
    bool playToEnd() const { return watcher.waitFor(playerItemDidPlayToEndTimeNotification); }
};

// The sums over an item's access log.
AccessLogEvent totals(const PlayerItem& item) {
    AccessLogEvent sum;
    for (const auto& event : item.accessLog().value_or(AccessLog{}).events) {
        sum.numberOfMediaRequests += event.numberOfMediaRequests;
        sum.numberOfBytesTransferred += event.numberOfBytesTransferred;
        sum.numberOfStalls += event.numberOfStalls;
    }
    return sum;
}

std::vector<ErrorLogEvent> errorLog(const PlayerItem& item) {
    return item.errorLog().value_or(ErrorLog{}).events;
}

double bufferedEnd(const PlayerItem& item) {
    const auto ranges = item.loadedTimeRanges();
    return ranges.empty() ? 0 : ranges.back().start.seconds() + ranges.back().duration.seconds();
}

// Presentations of a loopback origin, opened over HTTP or through a TestDelegate, and a player
// with short buffers and retries.
struct PlayerTest : ::testing::Test {
    std::shared_ptr<HlsOrigin> origin = std::make_shared<HlsOrigin>();
    std::shared_ptr<TestDelegate> delegate = std::make_shared<TestDelegate>(origin);
    std::shared_ptr<DispatchQueue> resourceQueue = DispatchQueue::serial("test.resource");
    PlayerSettings settings{.minimumBufferDuration = 1.0,
                            .retryDelay = 20ms,
                            .maximumRetryDelay = 160ms,
                            .retryWindow = 1000ms,
                            .tickInterval = 5ms};

    // The presentation at `path` of the origin, over HTTP or as test://media<path> through the delegate.
    std::shared_ptr<Asset> asset(const std::string& path, bool throughDelegate = false,
                                 AssetOptions options = {}) {
        auto asset = Asset::create(*Url::parse(throughDelegate ? "test://media" + path : origin->url(path)),
                                   std::move(options));
        if (throughDelegate) asset->resourceLoader()->setDelegate(delegate, resourceQueue);
        return asset;
    }
    std::shared_ptr<PlayerItem> item(const std::string& path, bool throughDelegate = false) {
        return PlayerItem::create(asset(path, throughDelegate));
    }
    // Loads "playable" and waits for it.
    static Asset::ValueStatus loadPlayable(const std::shared_ptr<Asset>& asset) {
        std::atomic<bool> done{false};
        asset->loadValuesAsynchronously({Asset::playableKey}, [&] { done = true; });
        EXPECT_TRUE(waitUntil([&] { return done.load(); }));
        return asset->statusOfValue(Asset::playableKey);
    }
    // Media requests the origin answered, in order.
    std::vector<HlsOrigin::Exchange> media() const {
        auto served = origin->requests();
        std::erase_if(served, [](const HlsOrigin::Exchange& s) { return !HlsOrigin::isMedia(s.path); });
        return served;
    }
    std::size_t servedCount(const std::string& text) const {
        return std::ranges::count_if(origin->requests(),
                                     [&](const auto& s) { return s.path.find(text) != s.path.npos; });
    }
};

// MARK: - Assets

TEST_F(PlayerTest, SelectionGroupsHaveOneOptionPerNameInSourceOrder) {
    origin->serve("/sel/master.m3u8", R"(#EXTM3U
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="lo",NAME="English",LANGUAGE="en",DEFAULT=YES,URI="a/en-lo.m3u8"
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="lo",NAME="Japanese",LANGUAGE="ja",URI="a/ja-lo.m3u8"
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="hi",NAME="English",LANGUAGE="en",DEFAULT=YES,URI="a/en-hi.m3u8"
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="hi",NAME="Japanese",LANGUAGE="ja",URI="a/ja-hi.m3u8"
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",NAME="English",LANGUAGE="en",URI="s/en.m3u8"
#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID="cc",NAME="CC1",INSTREAM-ID="CC1"
#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID="800000",NAME="800000",DEFAULT=NO,URI="1/800000/media.m3u8"
#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID="800000",NAME="2000000",DEFAULT=YES,URI="1/800000/media.m3u8"
#EXT-X-STREAM-INF:BANDWIDTH=800000,AUDIO="lo",VIDEO="800000",SUBTITLES="subs",CLOSED-CAPTIONS="cc"
v/800000.m3u8
#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID="2000000",NAME="800000",DEFAULT=NO,URI="1/800000/media.m3u8"
#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID="2000000",NAME="2000000",DEFAULT=YES,URI="1/2000000/media.m3u8"
#EXT-X-STREAM-INF:BANDWIDTH=2000000,AUDIO="hi",VIDEO="2000000"
v/2000000.m3u8
)");
    origin->publishMedia("sel/1/800000", 1, 1.0, 10); // the first variant plays its default VIDEO rendition
    auto selection = asset("/sel/master.m3u8");
    EXPECT_FALSE(
        selection->mediaSelectionGroup(MediaCharacteristic::audible)); // nothing known before loading
    ASSERT_EQ(loadPlayable(selection).status, KeyValueStatus::loaded);
    ASSERT_TRUE(selection->isPlayable());

    const struct {
        MediaCharacteristic characteristic;
        std::vector<std::string> options; // title and media type of each
        std::optional<std::string> defaultOption;
    } cases[] = {
        {MediaCharacteristic::audible, {"English audio", "Japanese audio"}, "English"},
        {MediaCharacteristic::legible, {"English subtitles", "CC1 closedCaptions"}, std::nullopt},
        {MediaCharacteristic::visual, {"800000 video", "2000000 video"}, "2000000"},
    };
    for (const auto& c : cases) {
        const auto group = selection->mediaSelectionGroup(c.characteristic);
        ASSERT_TRUE(group);
        std::vector<std::string> options;
        for (const auto& option : group->options)
            for (const auto& item : option.commonMetadata)
                if (item.commonKey == "title")
                    options.push_back(item.stringValue.value_or("") + " " + option.mediaType);
        EXPECT_EQ(std::tuple(options, group->defaultOption ? std::optional(group->defaultOption->displayName)
                                                           : std::nullopt),
                  std::tuple(c.options, c.defaultOption));
    }
    EXPECT_EQ(selection->mediaSelectionGroup(MediaCharacteristic::audible)->options[1].extendedLanguageTag,
              "ja");

    // A media playlist alone has no renditions to choose from.
    origin->publishMedia("plain", 2, 1.0, 10);
    auto plain = asset("/plain/media.m3u8");
    ASSERT_EQ(loadPlayable(plain).status, KeyValueStatus::loaded);
    for (auto characteristic :
         {MediaCharacteristic::audible, MediaCharacteristic::legible, MediaCharacteristic::visual})
        EXPECT_FALSE(plain->mediaSelectionGroup(characteristic));
}

TEST_F(PlayerTest, PlayableFollowsWhatTheResourceTurnsOutToBe) {
    origin->serve("/clip.mp4", std::string(1000, 'm'));
    origin->serve("/empty.m3u8", "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXT-X-ENDLIST\n");
    origin->serve("/garbled.m3u8", "#EXTM3U\nseg.ts\n");
    origin->serve("/orphan.m3u8", "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\ngone.m3u8\n");
    delegate->failSuffix = "/err.m3u8";
    delegate->silentSuffix = "/silent.m3u8";
    const auto file =
        std::filesystem::temp_directory_path() / ("player-asset-" + std::to_string(::getpid()) + ".m3u8");
    std::ofstream(file) << "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1,\nseg.ts\n#EXT-X-ENDLIST\n";
    auto timingOut = asset("/silent.m3u8", true);
    timingOut->resourceLoader()->setLoadingTimeout(100ms);

    using ErrorId = std::optional<std::pair<std::string, std::int64_t>>; // domain, code
    const ErrorId notFound{{httpStatusErrorDomain, 404}},
        noDelegate{{Error::loaderDomain, loaderErrorNoDelegate}};
    const struct {
        std::shared_ptr<Asset> asset;
        KeyValueStatus status;
        bool playable;
        ErrorId error;
    } cases[] = {
        {asset("/clip.mp4"), KeyValueStatus::loaded, true, std::nullopt}, // not HLS, but readable
        {asset("/missing.m3u8"), KeyValueStatus::failed, false, notFound},
        {asset("/empty.m3u8"), KeyValueStatus::loaded, false, std::nullopt},
        {asset("/garbled.m3u8"), KeyValueStatus::loaded, false, std::nullopt},
        {asset("/orphan.m3u8"), KeyValueStatus::failed, false, notFound},
        {Asset::create(Url::fileUrl(file.string())), KeyValueStatus::loaded, true, std::nullopt},
        {Asset::create(*Url::parse("test://media/clip.mp4")), KeyValueStatus::failed, false, noDelegate},
        {asset("/clip.mp4", true), KeyValueStatus::loaded, false, std::nullopt}, // only HLS comes that way
        {asset("/err.m3u8", true), KeyValueStatus::failed, false, {{"OvaltoError", 0x8400}}},
        {timingOut, KeyValueStatus::failed, false, {{Error::urlDomain, urlErrorTimedOut}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.asset->url().absoluteString());
        const auto status = loadPlayable(c.asset);
        EXPECT_EQ(
            std::tuple(status.status, c.asset->isPlayable(),
                       status.error ? ErrorId({status.error->domain, status.error->code}) : std::nullopt),
            std::tuple(c.status, c.playable, c.error));
    }
    std::filesystem::remove(file);
}

TEST_F(PlayerTest, CompletionRunsOnceForEveryCallerAndUnknownKeysFail) {
    origin->publishMedia("twice", 1, 1.0, 10);
    auto twice = asset("/twice/media.m3u8");
    std::atomic<int> calls{0};
    for (int i = 0; i < 3; ++i)
        twice->loadValuesAsynchronously({Asset::playableKey}, [&] { ++calls; });
    ASSERT_TRUE(waitUntil([&] { return calls == 3; }));
    twice->loadValuesAsynchronously({Asset::playableKey}, [&] { ++calls; }); // already loaded
    ASSERT_TRUE(waitUntil([&] { return calls == 4; }));
    // Loaded once; a key the asset does not know fails.
    EXPECT_EQ(std::tuple(origin->requests().size(), twice->statusOfValue("duration").status),
              std::tuple(1u, KeyValueStatus::failed));
}

TEST_F(PlayerTest, TheAssetsCookiesGoWithEveryRequestOfItsPlayer) {
    origin->publishMedia("cookies", 2, 0.5, 100);
    auto cookie = Cookie::make("session", "abc123", "127.0.0.1");
    ASSERT_TRUE(cookie);
    Playback playback(PlayerItem::create(asset("/cookies/media.m3u8", false, {std::vector<Cookie>{*cookie}})),
                      settings, 8);
    ASSERT_TRUE(playback.playToEnd());
    const auto served = origin->requests();
    ASSERT_EQ(served.size(), 3u);
    for (const auto& request : served)
        EXPECT_NE(request.cookie.value_or("").find("session=abc123"), std::string::npos) << request.path;
}

// MARK: - Playing to the end

struct PlayToEnd : PlayerTest, ::testing::WithParamInterface<bool> {};

TEST_P(PlayToEnd, EveryVariantShapePlaysToTheEndAndTheAccessLogCountsWhatWasServed) {
    origin->publish("vod", {.segments = 6,
                            .segmentDuration = 0.5,
                            .audio = {"English", "Japanese"},
                            .byteRanges = true,
                            .keyUris = {}});
    const bool throughDelegate = GetParam();
    auto item = this->item("/vod/master.m3u8", throughDelegate);
    ItemWatcher watcher(item);
    auto player = Player::create(nullptr, settings);
    std::mutex traceMutex;
    std::vector<RequestTraceLine> trace;
    player->setRequestTrace([&](const RequestTraceLine& line) {
        std::lock_guard lock(traceMutex);
        trace.push_back(line);
    });
    player->replaceCurrentItem(item);
    player->setRate(8);

    ASSERT_TRUE(watcher.waitFor(playerItemDidPlayToEndTimeNotification));
    EXPECT_EQ(std::tuple(item->status(), player->rate()), std::tuple(PlayerItem::Status::readyToPlay, 0.0));
    EXPECT_NEAR(item->currentTime().seconds(), 3.0, 1e-3);
    EXPECT_NEAR(item->duration().seconds(), 3.0, 1e-3);
    EXPECT_FALSE(watcher.saw(playerItemNewErrorLogEntryNotification));

    const auto served = media();
    std::int64_t bytes = 0;
    for (const auto& s : served) {
        EXPECT_EQ(s.status, s.range ? 206 : 200) << s.path;
        bytes += static_cast<std::int64_t>(s.bytes);
    }
    const AccessLogEvent sum = totals(*item);
    EXPECT_EQ(std::tuple(sum.numberOfMediaRequests, sum.numberOfBytesTransferred),
              std::tuple(static_cast<std::int64_t>(served.size()), bytes));
    // Every video and audio segment came once (byte ranges of main.mp4 included), none twice.
    EXPECT_GE(served.size(), 12u + 2u);
    EXPECT_EQ(item->accessLog().value_or(AccessLog{}).events.at(0).playbackSessionID,
              item->playbackSessionID());
    EXPECT_EQ(servedCount("/audio/1/"), 0u); // the default rendition only

    // A trace line for every request, the playlists included, telling how it went.
    player.reset();
    std::lock_guard lock(traceMutex);
    EXPECT_EQ(trace.size(), throughDelegate ? delegate->requests().size() : origin->requests().size());
    for (const auto& line : trace)
        EXPECT_EQ(std::tuple(line.viaDelegate, line.redirectedTo.has_value(),
                             line.text().find(line.url) != std::string::npos),
                  std::tuple(throughDelegate, throughDelegate && HlsOrigin::isMedia(line.url), true))
            << line.text();
    if (throughDelegate) {
        const auto requests = delegate->requests();
        // Segments came through the delegate too: each one it redirected was fetched once.
        EXPECT_EQ(std::tuple(requests.front(), std::ranges::count_if(requests, HlsOrigin::isMedia)),
                  std::tuple("test://media/vod/master.m3u8", static_cast<std::ptrdiff_t>(served.size())));
    }
}

INSTANTIATE_TEST_SUITE_P(HttpAndDelegate, PlayToEnd, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "ThroughDelegate" : "Http"; });

TEST_F(PlayerTest, VariantChoiceStartsWithTheFirstListedAndFollowsThroughputUnderTheCap) {
    // Segments large enough that latency does not dominate the throughput measured.
    origin->publish("abr", {.bandwidths = {800000, 400000, 3000000},
                            .segments = 8,
                            .segmentDuration = 0.5,
                            .audio = {},
                            .segmentBytes = 200000,
                            .keyUris = {}});
    const struct {
        double peak;
        std::vector<double> expected; // indicated bitrates of the access log, in order
    } cases[] = {{0, {800000, 3000000}}, {1000000, {800000}}, {500000, {400000}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.peak);
        auto item = this->item("/abr/master.m3u8");
        item->setPreferredPeakBitRate(c.peak);
        Playback playback(item, settings, 16);
        ASSERT_TRUE(playback.playToEnd());
        std::vector<double> bitrates;
        for (const auto& event : item->accessLog().value_or(AccessLog{}).events)
            bitrates.push_back(event.indicatedBitrate);
        EXPECT_EQ(bitrates, c.expected);
    }
}

TEST_F(PlayerTest, ASegmentSlowerThanPlaybackStallsTheClockUntilTheBufferRefills) {
    origin->publishMedia("slow", 6, 1.0, 2000);
    origin->throttle("/slow/seg3.ts", 800ms);
    settings.minimumBufferDuration = 2.0;
    Playback playback(item("/slow/media.m3u8"), settings, 8);
    ASSERT_TRUE(playback.playToEnd());

    // ready -> buffer empty -> ready, with the clock standing at the end of segment 2 meanwhile.
    std::vector<std::pair<std::string, double>> sequence;
    for (const auto& e : playback.watcher.events())
        if (e.what == "status=readyToPlay" || e.what == "playbackBufferEmpty=true")
            sequence.emplace_back(e.what, e.clock);
    ASSERT_EQ(sequence.size(), 3u);
    EXPECT_NEAR(sequence[1].second, 3.0, 1e-3);
    EXPECT_EQ(sequence, (decltype(sequence){{"status=readyToPlay", sequence[0].second},
                                            {"playbackBufferEmpty=true", sequence[1].second},
                                            {"status=readyToPlay", sequence[1].second}}));
    EXPECT_TRUE(playback.watcher.saw("playbackLikelyToKeepUp=false"));
    EXPECT_EQ(playback.item->accessLog()->events.back().numberOfStalls, 1);
}

// MARK: - Selection and seeking

TEST_F(PlayerTest, SelectingAnotherRenditionMidwaySwitchesWhatIsDownloaded) {
    // Plays at rate 2 to the 1 s mark with 1 s of forward buffer, selects `name`, plays to the end.
    const auto playSelecting = [&](const std::string& path, MediaCharacteristic characteristic,
                                   const std::string& name) {
        auto item = this->item(path);
        item->setPreferredForwardBufferDuration(1.0);
        Playback playback(item, settings, 2);
        ASSERT_TRUE(waitUntil([&] { return item->currentTime().seconds() >= 1.0; }));
        const auto group = item->asset()->mediaSelectionGroup(characteristic);
        ASSERT_TRUE(group);
        const auto option = std::find_if(group->options.begin(), group->options.end(),
                                         [&](const auto& o) { return o.displayName == name; });
        ASSERT_NE(option, group->options.end());
        item->select(*option, *group);
        EXPECT_EQ(item->selectedMediaOption(*group), *option);
        playback.player->setRate(8);
        ASSERT_TRUE(playback.playToEnd());
    };

    origin->publish("sel", {.bandwidths = {800000},
                            .segments = 8,
                            .segmentDuration = 0.5,
                            .audio = {"English", "Japanese"},
                            .keyUris = {}});
    playSelecting("/sel/master.m3u8", MediaCharacteristic::audible, "Japanese");
    const auto [english, japanese] =
        std::pair(servedCount("/sel/audio/0/seg"), servedCount("/sel/audio/1/seg"));
    EXPECT_EQ(std::tuple(servedCount("/sel/audio/1/media.m3u8"), japanese >= 1, english < 8,
                         english + japanese >= 8),
              std::tuple(1u, true, true, true));

    // A VIDEO rendition replaces the variant's own playlist.
    origin->serve("/vis/master.m3u8",
                  "#EXTM3U\n"
                  "#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID=\"v\",NAME=\"Wide\",DEFAULT=YES,URI=\"wide/media.m3u8\"\n"
                  "#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID=\"v\",NAME=\"Close\",URI=\"close/media.m3u8\"\n"
                  "#EXT-X-STREAM-INF:BANDWIDTH=800000,VIDEO=\"v\"\nown/media.m3u8\n");
    for (const char* angle : {"vis/wide", "vis/close", "vis/own"})
        origin->publishMedia(angle, 8, 0.5, 200);
    playSelecting("/vis/master.m3u8", MediaCharacteristic::visual, "Close");
    // The close angle is taken up where the clock was, not from its start.
    EXPECT_EQ(std::tuple(servedCount("/vis/own/"), servedCount("/vis/wide/seg") >= 2,
                         servedCount("/vis/close/seg") >= 1, servedCount("/vis/close/seg0.ts")),
              std::tuple(0u, true, true, 0u));
}

TEST_F(PlayerTest, SeekPostsTimeJumpedAndLoadsFromTheNewPlace) {
    origin->publishMedia("seek", 10, 0.5, 500);
    auto item = this->item("/seek/media.m3u8");
    item->setPreferredForwardBufferDuration(1.0);
    Playback playback(item, settings, 0); // paused
    ASSERT_TRUE(playback.watcher.waitFor("status=readyToPlay"));
    const auto before = media().size();

    std::atomic<int> finished{-1};
    playback.player->seek(MediaTime::makeWithSeconds(4.0, 1000), [&](bool done) { finished = done; });
    ASSERT_TRUE(waitUntil([&] { return finished != -1; }));
    EXPECT_EQ(std::tuple(finished.load(), playback.watcher.saw(playerItemTimeJumpedNotification)),
              std::tuple(1, true));
    // Paused: the clock stays where it was put.
    EXPECT_NEAR(playback.player->currentTime().seconds(), 4.0, 1e-3);
    EXPECT_EQ(media().at(before).path, "/seek/seg8.ts");

    playback.player->setRate(8);
    ASSERT_TRUE(playback.playToEnd());
    EXPECT_EQ(servedCount("/seek/seg5.ts"), 0u); // skipped over
    EXPECT_NEAR(item->currentTime().seconds(), 5.0, 1e-3);
}

// MARK: - Live

TEST_F(PlayerTest, LivePlaylistIsReloadedEveryTargetDurationAndPlaybackFollowsTheWindow) {
    origin->publishLive("live", 0.5, 8, 300); // target duration 1 s, window 4 s
    Playback playback(item("/live/live.m3u8"), settings, 1);
    const auto& item = playback.item;
    ASSERT_TRUE(playback.watcher.waitFor("status=readyToPlay"));
    const double start = item->currentTime().seconds();
    ASSERT_TRUE(waitUntil(
        [&] { return servedCount("/live/live.m3u8") >= 3 && item->currentTime().seconds() >= start + 2.0; }));

    EXPECT_EQ(std::tuple(item->duration().isIndefinite(), item->status()),
              std::tuple(true, PlayerItem::Status::readyToPlay));
    std::vector<std::chrono::steady_clock::time_point> reloads;
    int newest = -1;
    for (const auto& served : origin->requests()) {
        if (served.path == "/live/live.m3u8") reloads.push_back(served.at);
        if (served.path.starts_with("/live/seg")) newest = std::max(newest, std::stoi(served.path.substr(9)));
    }
    ASSERT_GE(reloads.size(), 3u);
    // Never sooner than half a target duration (an unchanged playlist), normally one.
    for (std::size_t i = 1; i < reloads.size(); ++i)
        EXPECT_GE(std::chrono::duration<double>(reloads[i] - reloads[i - 1]).count(), 0.4);
    EXPECT_GE(newest, 8); // segments that were not in the first window
    EXPECT_FALSE(playback.watcher.saw(playerItemFailedToPlayToEndTimeNotification));
    EXPECT_GT(start, 0.0); // it started near the live edge, not at the window's first segment
}

// MARK: - Keys

struct KeyRequests : PlayerTest, ::testing::WithParamInterface<bool> {};

TEST_P(KeyRequests, EachSkdKeyReachesTheDelegateOnceBeforeItsSegments) {
    // Segments 0-1 and 2-3 take a key each, in both variants.
    origin->publish(
        "keys",
        {.segments = 4, .segmentDuration = 0.5, .audio = {}, .keyUris = {"skd://key1", "skd://key2"}});
    auto keys = asset("/keys/master.m3u8", true);
    const bool preload = GetParam();
    keys->resourceLoader()->setPreloadsEligibleContentKeys(preload);
    Playback playback(PlayerItem::create(keys), settings, 8);
    ASSERT_TRUE(playback.playToEnd());

    const auto requests = delegate->requests();
    const auto first = [&](const std::string& suffix) {
        return std::ranges::find_if(requests, [&](auto& url) { return url.ends_with(suffix); }) -
               requests.begin();
    };
    EXPECT_EQ(
        std::tuple(std::ranges::count(requests, "skd://key1"), std::ranges::count(requests, "skd://key2")),
        std::tuple(1, 1));
    EXPECT_LT(first("skd://key1"), first("seg0.m4s"));
    EXPECT_LT(first("skd://key2"), first("seg2.m4s"));
    // Preloaded keys are asked for when the playlist is read.
    EXPECT_LT(first("skd://key2"), preload ? first("seg0.m4s") : first("seg2.m4s"));
}

INSTANTIATE_TEST_SUITE_P(OnDemandAndPreloaded, KeyRequests, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Preloaded" : "OnDemand"; });

TEST_F(PlayerTest, ResourceThatIsNotHlsIsFetchedWholeAndEndsAtOnce) {
    origin->serve("/clip.mp4", std::string(5000, 'm'));
    Playback playback(item("/clip.mp4"), settings, 1);
    ASSERT_TRUE(playback.playToEnd());
    const auto sum = totals(*playback.item);
    EXPECT_EQ(std::tuple(sum.numberOfMediaRequests, sum.numberOfBytesTransferred), std::tuple(1, 5000));
}

// MARK: - Observers

TEST_F(PlayerTest, RemovedObserverHearsNothingMoreAndRemovalWaitsForARunningCallback) {
    origin->publishMedia("observe", 2, 0.5, 100);
    auto item = this->item("/observe/media.m3u8");
    int context = 0, removed = 0;
    std::atomic<bool> entered{false}, returned{false};
    item->addObserver(&entered, "status", &context, [&](const std::string&, const KeyValueChange&, auto) {
        entered = true;
        std::this_thread::sleep_for(200ms); // widens the window, asserts nothing
        returned = true;
    });
    // Same key path and context, another observer: only that one goes.
    item->addObserver(&removed, "status", &context,
                      [&](const std::string&, const KeyValueChange&, auto) { ++removed; });
    item->removeObserver(&removed, "status", &context);
    auto player = Player::create(item, settings);
    ASSERT_TRUE(waitUntil([&] { return entered.load(); }));
    item->removeObserver(&entered, "status", &context);
    EXPECT_TRUE(returned); // the observer may go now
    player.reset();
    EXPECT_EQ(removed, 0);
}

// MARK: - Failures

TEST_F(PlayerTest, DelegateErrorFailsTheItemWithThatError) {
    delegate->failSuffix = "/err/media.m3u8";
    Playback playback(item("/err/media.m3u8", true), settings, 1);
    ASSERT_TRUE(playback.watcher.waitFor("status=failed"));
    const Error error = playback.item->error().value_or(Error{});
    EXPECT_EQ(std::tuple(error.domain, error.code), std::tuple("OvaltoError", 0x8400));
}

TEST_F(PlayerTest, MissingSegmentFillsTheErrorLogAndPostsFailedToPlayToEnd) {
    origin->publishMedia("missing", 4, 0.5, 300);
    origin->remove("/missing/seg2.ts");
    Playback playback(item("/missing/media.m3u8"), settings, 8);
    const auto& item = playback.item;
    ASSERT_TRUE(playback.watcher.waitFor(playerItemFailedToPlayToEndTimeNotification));

    EXPECT_EQ(std::tuple(item->status(), item->error().value_or(Error{}).domain),
              std::tuple(PlayerItem::Status::failed, httpStatusErrorDomain));
    const auto log = errorLog(*item);
    ASSERT_EQ(log.size(), 1u); // a 404 is not tried again
    EXPECT_EQ(std::tuple(log[0].errorStatusCode, log[0].isFatal, log[0].serverAddress,
                         log[0].playbackSessionID, log[0].date.has_value()),
              std::tuple(404, true, "127.0.0.1", item->playbackSessionID(), true));
    EXPECT_EQ(std::tuple(log[0].URI.value_or("").ends_with("/missing/seg2.ts"),
                         servedCount("/missing/seg3.ts"),
                         playback.watcher.saw(playerItemDidPlayToEndTimeNotification)),
              std::tuple(true, 0u, false));
    EXPECT_LE(item->currentTime().seconds(), 1.0 + 1e-3); // stopped where the media ran out
    for (const auto& event : playback.watcher.events())
        if (event.what == playerItemFailedToPlayToEndTimeNotification) {
            EXPECT_EQ(std::any_cast<Error>(event.userInfo.at(playerItemFailedToPlayToEndTimeErrorKey)).code,
                      404);
        }
}

TEST_F(PlayerTest, ShortOutagePlaysOnFromTheBufferALongerOneFailsWithTheNetworkError) {
    origin->publishLive("live", 1.0, 10, 300); // starts three segments behind the edge
    Playback playback(item("/live/live.m3u8"), settings, 1);
    const auto& item = playback.item;
    ASSERT_TRUE(playback.watcher.waitFor("status=readyToPlay"));
    const double start = item->currentTime().seconds();
    ASSERT_TRUE(waitUntil([&] { return item->currentTime().seconds() >= start + 0.5; }));

    origin->setDown(true);
    std::this_thread::sleep_for(1500ms);
    origin->setDown(false);
    const double back = item->currentTime().seconds();
    ASSERT_TRUE(waitUntil([&] { return item->currentTime().seconds() >= back + 3; }));

    EXPECT_EQ(std::tuple(item->status(), playback.watcher.saw(playerItemFailedToPlayToEndTimeNotification),
                         totals(*item).numberOfStalls <= 1),
              std::tuple(PlayerItem::Status::readyToPlay, false, true));
    const auto log = errorLog(*item);
    EXPECT_FALSE(log.empty()); // the reloads during the outage failed
    for (const auto& event : log)
        EXPECT_EQ(std::tuple(event.isFatal,
                             event.errorComment.value_or("").find("Trying again in") != std::string::npos),
                  std::tuple(false, true));

    // Longer than the buffer and the player's patience.
    ASSERT_TRUE(waitUntil([&] { return bufferedEnd(*item) > item->currentTime().seconds() + 2; }));
    origin->setDown(true);
    const double buffered = bufferedEnd(*item);
    ASSERT_TRUE(playback.watcher.waitFor(playerItemFailedToPlayToEndTimeNotification));

    const Error error = item->error().value_or(Error{});
    EXPECT_EQ(std::tuple(item->status(), error.domain, error.localizedDescription.empty()),
              std::tuple(PlayerItem::Status::failed, Error::urlDomain, false));
    EXPECT_GE(item->currentTime().seconds(), buffered - 0.01); // it played what it had
    const auto all = errorLog(*item);
    ASSERT_GE(all.size(), log.size() + 3);
    for (std::size_t i = 0; i < all.size(); ++i)
        EXPECT_EQ(all[i].isFatal, i + 1 == all.size()) << i;
}

TEST_F(PlayerTest, SegmentStatusesThatCannotChangeFailAtOnceOthersAreRetried) {
    const struct {
        std::vector<Reply> replies; // for the second segment
        bool plays;
        int requests; // of the second segment; 0: more than one
    } rows[] = {
        {{{403}}, false, 1},
        {{{404}}, false, 1},
        {{{410}}, false, 1},
        {{{408}, {200}}, true, 2},
        {{{429}, {200}}, true, 2},
        {{{503}, {502}, {200}}, true, 3},
        {{{200, {}, ovalto::tool::Origin::Fault::drop}, {200}}, true, 2},
        {{{500}}, false, 0}, // gives up once the buffer is empty and the window is over
    };
    for (std::size_t r = 0; r < std::size(rows); ++r) {
        const auto& row = rows[r];
        const int status = row.replies.front().status;
        SCOPED_TRACE("row " + std::to_string(r) + ", first answer " + std::to_string(status));
        const std::string name = "/status" + std::to_string(r);
        origin->publishMedia(name.substr(1), 3, 0.5, 300);
        origin->script(name + "/seg1.ts", row.replies);
        Playback playback(item(name + "/media.m3u8"), settings, 4);
        ASSERT_TRUE(playback.watcher.waitFor(row.plays ? playerItemDidPlayToEndTimeNotification
                                                       : playerItemFailedToPlayToEndTimeNotification));
        EXPECT_EQ(playback.watcher.saw(playerItemDidPlayToEndTimeNotification), row.plays);
        const int requests = origin->requestCount(name + "/seg1.ts");
        EXPECT_TRUE(row.requests > 0 ? requests == row.requests : requests > 1) << requests;
        if (!row.plays) {
            EXPECT_EQ(std::tuple(playback.item->error().value_or(Error{}).code,
                                 origin->requestCount(name + "/seg2.ts")),
                      std::tuple(status, 0));
        }
        EXPECT_EQ(errorLog(*playback.item).size(), static_cast<std::size_t>(requests - (row.plays ? 1 : 0)));
    }
}

TEST_F(PlayerTest, RetriesOfASegmentComeFurtherAndFurtherApart) {
    settings.retryDelay = 60ms;
    settings.maximumRetryDelay = 2000ms;
    settings.retryWindow = 10000ms;
    origin->publishMedia("spaced", 3, 0.5, 300);
    origin->script("/spaced/seg1.ts", {{503}, {503}, {503}, {503}, {200}});
    Playback playback(item("/spaced/media.m3u8"), settings, 1);
    ASSERT_TRUE(playback.playToEnd());

    const auto requests = origin->requests("/spaced/seg1.ts");
    ASSERT_EQ(requests.size(), 5u);
    // Each wait at least 1.6 times the one before it, even at the ends of the jitter.
    for (std::size_t i = 2; i < requests.size(); ++i)
        EXPECT_GT(requests[i].at - requests[i - 1].at, requests[i - 1].at - requests[i - 2].at) << i;
}

TEST_F(PlayerTest, LivePlaylistThatStopsChangingIsReportedStalledAndResumes) {
    const auto playlist = [](int segments) {
        std::string text = "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXT-X-MEDIA-SEQUENCE:0\n";
        for (int i = 0; i < segments; ++i)
            text += "#EXTINF:1.0,\nseg" + std::to_string(i) + ".ts\n";
        return text;
    };
    for (int i = 0; i < 6; ++i)
        origin->serve("/frozen/seg" + std::to_string(i) + ".ts", std::string(300, 'x'));
    origin->serve("/frozen/live.m3u8", playlist(4));
    Playback playback(item("/frozen/live.m3u8"), settings, 1);
    const auto& item = playback.item;
    const auto stalled = [&] {
        return std::ranges::any_of(errorLog(*item), [](const ErrorLogEvent& event) {
            return event.errorDomain == playerErrorDomain && !event.isFatal;
        });
    };
    ASSERT_TRUE(waitUntil([&] { return stalled() && item->isPlaybackBufferEmpty(); }));
    const double held = item->currentTime().seconds();

    origin->serve("/frozen/live.m3u8", playlist(6));
    ASSERT_TRUE(waitUntil([&] { return item->currentTime().seconds() > held + 1; }));
    // One report for the whole stall.
    EXPECT_EQ(std::tuple(item->status(), errorLog(*item).size()),
              std::tuple(PlayerItem::Status::readyToPlay, 1u));
}

} // namespace
