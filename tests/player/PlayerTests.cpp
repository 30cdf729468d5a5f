#include "ItemWatcher.h"
#include "TestDelegate.h"

#include "platform/Asset.h"
#include "platform/DispatchQueue.h"
#include "platform/Player.h"
#include "platform/PlayerItem.h"
#include "support/HlsOrigin.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <thread>

using namespace ovalto::platform;
using ovalto::test::HlsOrigin;
using ovalto::test::ItemWatcher;
using ovalto::test::TestDelegate;

namespace {

struct PlaybackTest : ::testing::Test {
    std::shared_ptr<HlsOrigin> origin = std::make_shared<HlsOrigin>();
    std::shared_ptr<TestDelegate> delegate = std::make_shared<TestDelegate>(origin);
    std::shared_ptr<DispatchQueue> resourceQueue = DispatchQueue::serial("test.resource");
    PlayerSettings settings = [] {
        PlayerSettings s;
        s.minimumBufferDuration = 1.0;
        s.retryDelay = std::chrono::milliseconds(20);
        s.tickInterval = std::chrono::milliseconds(5);
        return s;
    }();

    // The presentation at `path` of the origin, over HTTP or through the delegate.
    std::shared_ptr<Asset> asset(const std::string& path, bool throughDelegate = false) {
        if (!throughDelegate) return Asset::create(*Url::parse(origin->url(path)));
        auto asset = Asset::create(*Url::parse("test://media" + path));
        asset->resourceLoader()->setDelegate(delegate, resourceQueue);
        return asset;
    }

    // Media requests the origin answered, in order.
    std::vector<HlsOrigin::Served> media() const {
        std::vector<HlsOrigin::Served> result;
        for (const auto& served : origin->served()) {
            if (HlsOrigin::isMedia(served.path)) result.push_back(served);
        }
        return result;
    }
    std::size_t servedCount(const std::string& text) const {
        const auto all = origin->served();
        return std::count_if(all.begin(), all.end(), [&](const HlsOrigin::Served& s) {
            return s.path.find(text) != std::string::npos;
        });
    }
};

AccessLogEvent totals(const PlayerItem& item) {
    AccessLogEvent sum;
    if (auto log = item.accessLog()) {
        for (const auto& event : log->events) {
            sum.numberOfMediaRequests += event.numberOfMediaRequests;
            sum.numberOfBytesTransferred += event.numberOfBytesTransferred;
        }
    }
    return sum;
}

std::optional<MediaSelectionOption> option(const Asset& asset, MediaCharacteristic characteristic,
                                           const std::string& name) {
    auto group = asset.mediaSelectionGroup(characteristic);
    if (!group) return std::nullopt;
    for (const auto& option : group->options) {
        if (option.displayName == name) return option;
    }
    return std::nullopt;
}

} // namespace

// MARK: - Playing to the end

struct PlayToEnd : PlaybackTest, ::testing::WithParamInterface<bool> {};

TEST_P(PlayToEnd, EveryVariantShapePlaysToTheEndAndTheAccessLogCountsWhatWasServed) {
    HlsOrigin::Vod vod;
    vod.segments = 6;
    vod.segmentDuration = 0.5;
    vod.audio = {"English", "Japanese"};
    vod.byteRanges = true;
    origin->publish("vod", vod);
    const bool throughDelegate = GetParam();
    auto item = PlayerItem::create(asset("/vod/master.m3u8", throughDelegate));
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
    EXPECT_EQ(item->status(), PlayerItem::Status::readyToPlay);
    EXPECT_NEAR(item->currentTime().seconds(), 3.0, 1e-3);
    EXPECT_NEAR(item->duration().seconds(), 3.0, 1e-3);
    EXPECT_EQ(player->rate(), 0);
    EXPECT_FALSE(watcher.saw(playerItemNewErrorLogEntryNotification));

    const auto served = media();
    std::int64_t bytes = 0;
    for (const auto& s : served) {
        EXPECT_EQ(s.status, s.range ? 206 : 200) << s.path;
        bytes += static_cast<std::int64_t>(s.bytes);
    }
    const AccessLogEvent sum = totals(*item);
    EXPECT_EQ(sum.numberOfMediaRequests, static_cast<std::int64_t>(served.size()));
    EXPECT_EQ(sum.numberOfBytesTransferred, bytes);
    // Every video and audio segment came once (byte ranges of main.mp4 included), none twice.
    EXPECT_GE(served.size(), 12u + 2u);
    const auto log = item->accessLog();
    ASSERT_TRUE(log);
    EXPECT_EQ(log->events.front().indicatedBitrate, 800000); // the first variant listed
    EXPECT_EQ(log->events.front().playbackSessionID, item->playbackSessionID());
    for (std::size_t i = 1; i < log->events.size(); ++i) {
        EXPECT_NE(log->events[i].indicatedBitrate, log->events[i - 1].indicatedBitrate);
    }
    EXPECT_EQ(servedCount("/audio/1/"), 0u); // the default rendition only

    // A trace line for every request, the playlists included, telling how it went.
    player.reset();
    std::lock_guard lock(traceMutex);
    EXPECT_EQ(trace.size(), throughDelegate ? delegate->requests().size() : origin->served().size());
    for (const auto& line : trace) {
        EXPECT_EQ(line.viaDelegate, throughDelegate) << line.text();
        EXPECT_EQ(line.redirectedTo.has_value(), throughDelegate && HlsOrigin::isMedia(line.url))
            << line.text();
        EXPECT_NE(line.text().find(line.url), std::string::npos);
    }
    if (throughDelegate) {
        const auto requests = delegate->requests();
        EXPECT_EQ(requests.front(), "test://media/vod/master.m3u8");
        EXPECT_TRUE(delegate->calledOnDelegateQueue());
        // Segments came through the delegate too: each one it redirected was fetched once.
        const auto redirected = std::count_if(requests.begin(), requests.end(),
                                              [](const std::string& url) { return HlsOrigin::isMedia(url); });
        EXPECT_EQ(static_cast<std::size_t>(redirected), served.size());
    }
}

INSTANTIATE_TEST_SUITE_P(HttpAndDelegate, PlayToEnd, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "ThroughDelegate" : "Http"; });

TEST_F(PlaybackTest, VariantChoiceStartsWithTheFirstListedAndFollowsThroughputUnderTheCap) {
    HlsOrigin::Vod vod;
    vod.bandwidths = {800000, 400000, 3000000};
    vod.segments = 8;
    vod.segmentDuration = 0.5;
    vod.segmentBytes = 200000; // large enough that latency does not dominate the throughput measured
    vod.audio = {};
    origin->publish("abr", vod);
    struct Case {
        double peak;
        std::vector<double> expected; // indicated bitrates of the access log, in order
    };
    for (const Case& c : {Case{0, {800000, 3000000}}, Case{1000000, {800000}}, Case{500000, {400000}}}) {
        auto item = PlayerItem::create(asset("/abr/master.m3u8"));
        item->setPreferredPeakBitRate(c.peak);
        ItemWatcher watcher(item);
        auto player = Player::create(item, settings);
        player->setRate(16);
        ASSERT_TRUE(watcher.waitFor(playerItemDidPlayToEndTimeNotification)) << c.peak;
        std::vector<double> bitrates;
        const auto log = item->accessLog();
        ASSERT_TRUE(log);
        for (const auto& event : log->events)
            bitrates.push_back(event.indicatedBitrate);
        EXPECT_EQ(bitrates, c.expected) << c.peak;
    }
}

// MARK: - Buffering

TEST_F(PlaybackTest, ASegmentSlowerThanPlaybackStallsTheClockUntilTheBufferRefills) {
    origin->publishMedia("slow", 6, 1.0, 2000);
    origin->throttle("/slow/seg3.ts", std::chrono::milliseconds(800));
    settings.minimumBufferDuration = 2.0;
    auto item = PlayerItem::create(asset("/slow/media.m3u8"));
    ItemWatcher watcher(item);
    auto player = Player::create(item, settings);
    player->setRate(8);
    ASSERT_TRUE(watcher.waitFor(playerItemDidPlayToEndTimeNotification));

    // ready -> buffer empty -> ready, with the clock standing at the end of segment 2 meanwhile.
    std::vector<ItemWatcher::Event> sequence;
    for (const auto& event : watcher.events()) {
        if (event.what == "status=readyToPlay" || event.what == "playbackBufferEmpty=true")
            sequence.push_back(event);
    }
    ASSERT_EQ(sequence.size(), 3u);
    EXPECT_EQ(sequence[0].what, "status=readyToPlay");
    EXPECT_EQ(sequence[1].what, "playbackBufferEmpty=true");
    EXPECT_EQ(sequence[2].what, "status=readyToPlay");
    EXPECT_NEAR(sequence[1].clock, 3.0, 1e-3);
    EXPECT_EQ(sequence[2].clock, sequence[1].clock);
    EXPECT_TRUE(watcher.saw("playbackLikelyToKeepUp=false"));
    EXPECT_EQ(item->accessLog()->events.back().numberOfStalls, 1);
}

// MARK: - Selection and seeking

TEST_F(PlaybackTest, SelectingAnotherAudioRenditionSwitchesWhatIsDownloaded) {
    HlsOrigin::Vod vod;
    vod.bandwidths = {800000};
    vod.segments = 8;
    vod.segmentDuration = 0.5;
    vod.audio = {"English", "Japanese"};
    origin->publish("sel", vod);
    auto item = PlayerItem::create(asset("/sel/master.m3u8"));
    item->setPreferredForwardBufferDuration(1.0);
    ItemWatcher watcher(item);
    auto player = Player::create(item, settings);
    player->setRate(2);
    ASSERT_TRUE(ItemWatcher::waitUntil([&] { return item->currentTime().seconds() >= 1.0; }));

    auto japanese = option(*item->asset(), MediaCharacteristic::audible, "Japanese");
    ASSERT_TRUE(japanese);
    item->select(*japanese, *item->asset()->mediaSelectionGroup(MediaCharacteristic::audible));
    EXPECT_EQ(item->selectedMediaOption(*item->asset()->mediaSelectionGroup(MediaCharacteristic::audible)),
              japanese);
    player->setRate(8);
    ASSERT_TRUE(watcher.waitFor(playerItemDidPlayToEndTimeNotification));

    EXPECT_EQ(servedCount("/sel/audio/1/media.m3u8"), 1u);
    EXPECT_GE(servedCount("/sel/audio/1/seg"), 1u);
    EXPECT_LT(servedCount("/sel/audio/0/seg"), 8u);
    EXPECT_GE(servedCount("/sel/audio/0/seg") + servedCount("/sel/audio/1/seg"), 8u);
}

TEST_F(PlaybackTest, VideoRenditionReplacesTheVariantsPlaylistAndSelectionSwitchesIt) {
    origin->serve("/vis/master.m3u8",
                  "#EXTM3U\n"
                  "#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID=\"v\",NAME=\"Wide\",DEFAULT=YES,URI=\"wide/media.m3u8\"\n"
                  "#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID=\"v\",NAME=\"Close\",URI=\"close/media.m3u8\"\n"
                  "#EXT-X-STREAM-INF:BANDWIDTH=800000,VIDEO=\"v\"\nown/media.m3u8\n");
    for (const char* angle : {"vis/wide", "vis/close", "vis/own"})
        origin->publishMedia(angle, 8, 0.5, 200);
    auto item = PlayerItem::create(asset("/vis/master.m3u8"));
    item->setPreferredForwardBufferDuration(1.0);
    ItemWatcher watcher(item);
    auto player = Player::create(item, settings);
    player->setRate(2);
    ASSERT_TRUE(ItemWatcher::waitUntil([&] { return item->currentTime().seconds() >= 1.0; }));
    const auto visual = item->asset()->mediaSelectionGroup(MediaCharacteristic::visual);
    ASSERT_TRUE(visual);
    item->select(*option(*item->asset(), MediaCharacteristic::visual, "Close"), *visual);
    player->setRate(8);
    ASSERT_TRUE(watcher.waitFor(playerItemDidPlayToEndTimeNotification));

    EXPECT_EQ(servedCount("/vis/own/"), 0u);
    EXPECT_GE(servedCount("/vis/wide/seg"), 2u);
    EXPECT_GE(servedCount("/vis/close/seg"), 1u);
    EXPECT_EQ(servedCount("/vis/close/seg0.ts"), 0u); // taken up where the clock was
}

TEST_F(PlaybackTest, SeekPostsTimeJumpedAndLoadsFromTheNewPlace) {
    origin->publishMedia("seek", 10, 0.5, 500);
    auto item = PlayerItem::create(asset("/seek/media.m3u8"));
    item->setPreferredForwardBufferDuration(1.0);
    ItemWatcher watcher(item);
    auto player = Player::create(item, settings); // paused
    ASSERT_TRUE(watcher.waitFor("status=readyToPlay"));
    const auto before = media().size();

    std::atomic<int> finished{-1};
    player->seek(MediaTime::makeWithSeconds(4.0, 1000), [&](bool done) { finished = done ? 1 : 0; });
    ASSERT_TRUE(ItemWatcher::waitUntil([&] { return finished != -1; }));
    EXPECT_EQ(finished, 1);
    EXPECT_TRUE(watcher.saw(playerItemTimeJumpedNotification));
    EXPECT_NEAR(player->currentTime().seconds(), 4.0, 1e-3); // paused: the clock stays where it was put
    const auto afterSeek = media();
    ASSERT_GT(afterSeek.size(), before);
    EXPECT_EQ(afterSeek[before].path, "/seek/seg8.ts");

    player->setRate(8);
    ASSERT_TRUE(watcher.waitFor(playerItemDidPlayToEndTimeNotification));
    EXPECT_EQ(servedCount("/seek/seg5.ts"), 0u); // skipped over
    EXPECT_NEAR(item->currentTime().seconds(), 5.0, 1e-3);
}

// MARK: - Live

TEST_F(PlaybackTest, LivePlaylistIsReloadedEveryTargetDurationAndPlaybackFollowsTheWindow) {
    origin->publishLive("live", 0.5, 8, 300); // target duration 1 s, window 4 s
    auto item = PlayerItem::create(asset("/live/live.m3u8"));
    ItemWatcher watcher(item);
    auto player = Player::create(item, settings);
    player->play();
    ASSERT_TRUE(watcher.waitFor("status=readyToPlay"));
    const double start = item->currentTime().seconds();
    const auto playlistRequests = [&] {
        const auto served = origin->served();
        return std::count_if(served.begin(), served.end(),
                             [](const auto& s) { return s.path == "/live/live.m3u8"; });
    };
    ASSERT_TRUE(ItemWatcher::waitUntil(
        [&] { return playlistRequests() >= 3 && item->currentTime().seconds() >= start + 2.0; }));

    EXPECT_TRUE(item->duration().isIndefinite());
    EXPECT_EQ(item->status(), PlayerItem::Status::readyToPlay);
    std::vector<std::chrono::steady_clock::time_point> reloads;
    int newest = -1;
    for (const auto& served : origin->served()) {
        if (served.path == "/live/live.m3u8") reloads.push_back(served.at);
        if (served.path.starts_with("/live/seg")) newest = std::max(newest, std::stoi(served.path.substr(9)));
    }
    ASSERT_GE(reloads.size(), 3u);
    for (std::size_t i = 1; i < reloads.size(); ++i) {
        // Never sooner than half a target duration (an unchanged playlist), normally one.
        EXPECT_GE(std::chrono::duration<double>(reloads[i] - reloads[i - 1]).count(), 0.4);
    }
    EXPECT_GE(newest, 8); // segments that were not in the first window
    EXPECT_FALSE(watcher.saw(playerItemFailedToPlayToEndTimeNotification));
    EXPECT_GT(start, 0.0); // it started near the live edge, not at the window's first segment
}

// MARK: - Keys

struct KeyRequests : PlaybackTest, ::testing::WithParamInterface<bool> {};

TEST_P(KeyRequests, EachSkdKeyReachesTheDelegateOnceBeforeItsSegments) {
    HlsOrigin::Vod vod;
    vod.segments = 4;
    vod.segmentDuration = 0.5;
    vod.audio = {};
    vod.keyUris = {"skd://key1", "skd://key2"}; // segments 0-1 and 2-3, in both variants
    origin->publish("keys", vod);
    auto media = asset("/keys/master.m3u8", true);
    const bool preload = GetParam();
    media->resourceLoader()->setPreloadsEligibleContentKeys(preload);
    auto item = PlayerItem::create(media);
    ItemWatcher watcher(item);
    auto player = Player::create(item, settings);
    player->setRate(8);
    ASSERT_TRUE(watcher.waitFor(playerItemDidPlayToEndTimeNotification));

    const auto requests = delegate->requests();
    const auto first = [&](const std::string& suffix) {
        return std::find_if(requests.begin(), requests.end(),
                            [&](const auto& url) { return url.ends_with(suffix); }) -
               requests.begin();
    };
    EXPECT_EQ(std::count(requests.begin(), requests.end(), "skd://key1"), 1);
    EXPECT_EQ(std::count(requests.begin(), requests.end(), "skd://key2"), 1);
    EXPECT_LT(first("skd://key1"), first("seg0.m4s"));
    EXPECT_LT(first("skd://key2"), first("seg2.m4s"));
    if (preload) {
        EXPECT_LT(first("skd://key2"), first("seg0.m4s")); // asked for when the playlist was read
    }
}

INSTANTIATE_TEST_SUITE_P(OnDemandAndPreloaded, KeyRequests, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Preloaded" : "OnDemand"; });

TEST_F(PlaybackTest, ResourceThatIsNotHlsIsFetchedWholeAndEndsAtOnce) {
    origin->serve("/clip.mp4", std::string(5000, 'm'));
    auto item = PlayerItem::create(asset("/clip.mp4"));
    ItemWatcher watcher(item);
    auto player = Player::create(item, settings);
    player->play();
    ASSERT_TRUE(watcher.waitFor(playerItemDidPlayToEndTimeNotification));
    EXPECT_EQ(totals(*item).numberOfMediaRequests, 1);
    EXPECT_EQ(totals(*item).numberOfBytesTransferred, 5000);
}

TEST_F(PlaybackTest, RemovedObserverHearsNothingMore) {
    origin->publishMedia("observe", 2, 0.5, 100);
    auto item = PlayerItem::create(asset("/observe/media.m3u8"));
    int kept = 0;
    int removed = 0;
    std::atomic<bool> ready{false};
    int context = 0;
    item->addObserver(&kept, "status", &context, [&](const std::string&, const KeyValueChange& change, auto) {
        ++kept;
        ready = std::any_cast<PlayerItem::Status>(change.newValue) == PlayerItem::Status::readyToPlay;
    });
    item->addObserver(&removed, "status", &context,
                      [&](const std::string&, const KeyValueChange&, auto) { ++removed; });
    item->removeObserver(&removed, "status", &context);
    auto player = Player::create(item, settings);
    ASSERT_TRUE(ItemWatcher::waitUntil([&] { return ready.load(); }));
    player.reset();
    EXPECT_EQ(removed, 0);
    EXPECT_GE(kept, 1);
    item->removeObserver(&kept, "status", &context);
}

TEST_F(PlaybackTest, RemovingAnObserverWaitsForItsCallbackToReturn) {
    origin->publishMedia("busy", 2, 0.5, 100);
    auto item = PlayerItem::create(asset("/busy/media.m3u8"));
    std::atomic<bool> entered{false};
    std::atomic<bool> returned{false};
    int context = 0;
    item->addObserver(&context, "status", &context, [&](const std::string&, const KeyValueChange&, auto) {
        entered = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(200)); // widens the window, asserts nothing
        returned = true;
    });
    auto player = Player::create(item, settings);
    ASSERT_TRUE(ItemWatcher::waitUntil([&] { return entered.load(); }));
    item->removeObserver(&context, "status", &context);
    EXPECT_TRUE(returned); // the observer may go now
}

// MARK: - Failures

TEST_F(PlaybackTest, DelegateErrorMakesLoadingPlayableFailWithThatError) {
    origin->publishMedia("err", 2, 0.5, 100);
    delegate->failRequests("/err/media.m3u8", Error{"OvaltoError", 0x8400, "PlayList is not received.", {}});
    auto media = asset("/err/media.m3u8", true);
    std::atomic<bool> loaded{false};
    media->loadValuesAsynchronously({Asset::playableKey}, [&] { loaded = true; });
    ASSERT_TRUE(ItemWatcher::waitUntil([&] { return loaded.load(); }));
    const auto status = media->statusOfValue(Asset::playableKey);
    EXPECT_EQ(status.status, KeyValueStatus::failed);
    ASSERT_TRUE(status.error);
    EXPECT_EQ(status.error->domain, "OvaltoError");
    EXPECT_EQ(status.error->code, 0x8400);
    EXPECT_FALSE(media->isPlayable());

    auto item = PlayerItem::create(media);
    ItemWatcher watcher(item);
    auto player = Player::create(item, settings);
    ASSERT_TRUE(watcher.waitFor("status=failed"));
    EXPECT_EQ(item->error()->code, 0x8400);
}

TEST_F(PlaybackTest, RequestTheDelegateNeverFinishesTimesOut) {
    delegate->ignoreRequests("/silent/media.m3u8");
    auto media = asset("/silent/media.m3u8", true);
    media->resourceLoader()->setLoadingTimeout(std::chrono::milliseconds(100));
    std::atomic<bool> loaded{false};
    media->loadValuesAsynchronously({Asset::playableKey}, [&] { loaded = true; });
    ASSERT_TRUE(ItemWatcher::waitUntil([&] { return loaded.load(); }));
    const auto status = media->statusOfValue(Asset::playableKey);
    EXPECT_EQ(status.status, KeyValueStatus::failed);
    EXPECT_EQ(status.error->domain, Error::urlDomain);
    EXPECT_EQ(status.error->code, urlErrorTimedOut);
}

TEST_F(PlaybackTest, MissingSegmentFillsTheErrorLogAndPostsFailedToPlayToEnd) {
    origin->publishMedia("missing", 4, 0.5, 300);
    origin->remove("/missing/seg2.ts");
    auto item = PlayerItem::create(asset("/missing/media.m3u8"));
    ItemWatcher watcher(item);
    auto player = Player::create(item, settings);
    player->setRate(8);
    ASSERT_TRUE(watcher.waitFor(playerItemFailedToPlayToEndTimeNotification));

    EXPECT_EQ(item->status(), PlayerItem::Status::failed);
    ASSERT_TRUE(item->error());
    EXPECT_EQ(item->error()->domain, httpStatusErrorDomain);
    const auto log = item->errorLog();
    ASSERT_TRUE(log);
    ASSERT_EQ(log->events.size(), static_cast<std::size_t>(settings.attempts)); // one per attempt
    for (const auto& event : log->events) {
        EXPECT_EQ(event.errorStatusCode, 404);
        EXPECT_TRUE(event.URI && event.URI->ends_with("/missing/seg2.ts"));
        EXPECT_EQ(event.serverAddress, "127.0.0.1");
        EXPECT_EQ(event.playbackSessionID, item->playbackSessionID());
        EXPECT_TRUE(event.date);
    }
    EXPECT_EQ(servedCount("/missing/seg3.ts"), 0u);
    EXPECT_FALSE(watcher.saw(playerItemDidPlayToEndTimeNotification));
    EXPECT_LE(item->currentTime().seconds(), 1.0 + 1e-3); // stopped where the media ran out
    for (const auto& event : watcher.events()) {
        if (event.what == playerItemFailedToPlayToEndTimeNotification) {
            const auto error =
                std::any_cast<Error>(event.userInfo.at(playerItemFailedToPlayToEndTimeErrorKey));
            EXPECT_EQ(error.code, 404);
        }
    }
}

// MARK: - A longer run

TEST_F(PlaybackTest, ThirtySecondsPlayAtRateFour) {
    origin->publishMedia("long", 30, 1.0, 200);
    auto item = PlayerItem::create(asset("/long/media.m3u8"));
    ItemWatcher watcher(item);
    auto player = Player::create(item, settings);
    player->setRate(4);
    // The deadline guards against a hang; 30 s at rate 4 take 7.5 s.
    ASSERT_TRUE(watcher.waitFor(playerItemDidPlayToEndTimeNotification, std::chrono::seconds(15)));
    EXPECT_NEAR(item->currentTime().seconds(), 30.0, 1e-3);
    EXPECT_EQ(totals(*item).numberOfMediaRequests, 30);
}
