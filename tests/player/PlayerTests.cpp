#include "PlayerFixture.h"

using namespace ovalto::platform;
using ovalto::test::HlsOrigin;
using ovalto::test::ItemWatcher;
using ovalto::test::Playback;
using ovalto::test::waitUntil;

namespace {

using PlaybackTest = ovalto::test::PlayerTest;

AccessLogEvent totals(const PlayerItem& item) {
    AccessLogEvent sum;
    for (const auto& event : item.accessLog() ? item.accessLog()->events : std::vector<AccessLogEvent>{}) {
        sum.numberOfMediaRequests += event.numberOfMediaRequests;
        sum.numberOfBytesTransferred += event.numberOfBytesTransferred;
    }
    return sum;
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
    for (std::size_t i = 1; i < log->events.size(); ++i)
        EXPECT_NE(log->events[i].indicatedBitrate, log->events[i - 1].indicatedBitrate);
    EXPECT_EQ(servedCount("/audio/1/"), 0u); // the default rendition only

    // A trace line for every request, the playlists included, telling how it went.
    player.reset();
    std::lock_guard lock(traceMutex);
    EXPECT_EQ(trace.size(), throughDelegate ? delegate->requests().size() : origin->requests().size());
    for (const auto& line : trace) {
        EXPECT_EQ(line.viaDelegate, throughDelegate) << line.text();
        EXPECT_EQ(line.redirectedTo.has_value(), throughDelegate && HlsOrigin::isMedia(line.url))
            << line.text();
        EXPECT_NE(line.text().find(line.url), std::string::npos);
    }
    if (throughDelegate) {
        const auto requests = delegate->requests();
        EXPECT_EQ(requests.front(), "test://media/vod/master.m3u8");
        // Segments came through the delegate too: each one it redirected was fetched once.
        EXPECT_EQ(std::count_if(requests.begin(), requests.end(),
                                [](auto& url) { return HlsOrigin::isMedia(url); }),
                  static_cast<std::ptrdiff_t>(served.size()));
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
        SCOPED_TRACE(c.peak);
        auto item = this->item("/abr/master.m3u8");
        item->setPreferredPeakBitRate(c.peak);
        Playback playback(item, settings, 16);
        ASSERT_TRUE(playback.playToEnd());
        const auto log = item->accessLog();
        ASSERT_TRUE(log);
        std::vector<double> bitrates;
        for (const auto& event : log->events)
            bitrates.push_back(event.indicatedBitrate);
        EXPECT_EQ(bitrates, c.expected);
    }
}

TEST_F(PlaybackTest, ASegmentSlowerThanPlaybackStallsTheClockUntilTheBufferRefills) {
    origin->publishMedia("slow", 6, 1.0, 2000);
    origin->throttle("/slow/seg3.ts", std::chrono::milliseconds(800));
    settings.minimumBufferDuration = 2.0;
    Playback playback(item("/slow/media.m3u8"), settings, 8);
    ASSERT_TRUE(playback.playToEnd());

    // ready -> buffer empty -> ready, with the clock standing at the end of segment 2 meanwhile.
    std::vector<ItemWatcher::Event> sequence = playback.watcher.events();
    std::erase_if(sequence, [](const auto& e) {
        return e.what != "status=readyToPlay" && e.what != "playbackBufferEmpty=true";
    });
    ASSERT_EQ(sequence.size(), 3u);
    EXPECT_EQ(sequence[0].what, "status=readyToPlay");
    EXPECT_EQ(sequence[1].what, "playbackBufferEmpty=true");
    EXPECT_EQ(sequence[2].what, "status=readyToPlay");
    EXPECT_NEAR(sequence[1].clock, 3.0, 1e-3);
    EXPECT_EQ(sequence[2].clock, sequence[1].clock);
    EXPECT_TRUE(playback.watcher.saw("playbackLikelyToKeepUp=false"));
    EXPECT_EQ(playback.item->accessLog()->events.back().numberOfStalls, 1);
}

// MARK: - Selection and seeking

TEST_F(PlaybackTest, SelectingAnotherRenditionMidwaySwitchesWhatIsDownloaded) {
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

    HlsOrigin::Vod vod;
    vod.bandwidths = {800000};
    vod.segments = 8;
    vod.segmentDuration = 0.5;
    vod.audio = {"English", "Japanese"};
    origin->publish("sel", vod);
    playSelecting("/sel/master.m3u8", MediaCharacteristic::audible, "Japanese");
    EXPECT_EQ(servedCount("/sel/audio/1/media.m3u8"), 1u);
    EXPECT_GE(servedCount("/sel/audio/1/seg"), 1u);
    EXPECT_LT(servedCount("/sel/audio/0/seg"), 8u);
    EXPECT_GE(servedCount("/sel/audio/0/seg") + servedCount("/sel/audio/1/seg"), 8u);

    // A VIDEO rendition replaces the variant's own playlist.
    origin->serve("/vis/master.m3u8",
                  "#EXTM3U\n"
                  "#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID=\"v\",NAME=\"Wide\",DEFAULT=YES,URI=\"wide/media.m3u8\"\n"
                  "#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID=\"v\",NAME=\"Close\",URI=\"close/media.m3u8\"\n"
                  "#EXT-X-STREAM-INF:BANDWIDTH=800000,VIDEO=\"v\"\nown/media.m3u8\n");
    for (const char* angle : {"vis/wide", "vis/close", "vis/own"})
        origin->publishMedia(angle, 8, 0.5, 200);
    playSelecting("/vis/master.m3u8", MediaCharacteristic::visual, "Close");
    EXPECT_EQ(servedCount("/vis/own/"), 0u);
    EXPECT_GE(servedCount("/vis/wide/seg"), 2u);
    EXPECT_GE(servedCount("/vis/close/seg"), 1u);
    EXPECT_EQ(servedCount("/vis/close/seg0.ts"), 0u); // taken up where the clock was
}

TEST_F(PlaybackTest, SeekPostsTimeJumpedAndLoadsFromTheNewPlace) {
    origin->publishMedia("seek", 10, 0.5, 500);
    auto item = this->item("/seek/media.m3u8");
    item->setPreferredForwardBufferDuration(1.0);
    Playback playback(item, settings, 0); // paused
    ASSERT_TRUE(playback.watcher.waitFor("status=readyToPlay"));
    const auto before = media().size();

    std::atomic<int> finished{-1};
    playback.player->seek(MediaTime::makeWithSeconds(4.0, 1000), [&](bool done) { finished = done ? 1 : 0; });
    ASSERT_TRUE(waitUntil([&] { return finished != -1; }));
    EXPECT_EQ(finished, 1);
    EXPECT_TRUE(playback.watcher.saw(playerItemTimeJumpedNotification));
    EXPECT_NEAR(playback.player->currentTime().seconds(), 4.0,
                1e-3); // paused: the clock stays where it was put
    const auto afterSeek = media();
    ASSERT_GT(afterSeek.size(), before);
    EXPECT_EQ(afterSeek[before].path, "/seek/seg8.ts");

    playback.player->setRate(8);
    ASSERT_TRUE(playback.playToEnd());
    EXPECT_EQ(servedCount("/seek/seg5.ts"), 0u); // skipped over
    EXPECT_NEAR(item->currentTime().seconds(), 5.0, 1e-3);
}

// MARK: - Live

TEST_F(PlaybackTest, LivePlaylistIsReloadedEveryTargetDurationAndPlaybackFollowsTheWindow) {
    origin->publishLive("live", 0.5, 8, 300); // target duration 1 s, window 4 s
    Playback playback(item("/live/live.m3u8"), settings, 1);
    const auto& item = playback.item;
    ASSERT_TRUE(playback.watcher.waitFor("status=readyToPlay"));
    const double start = item->currentTime().seconds();
    ASSERT_TRUE(waitUntil(
        [&] { return servedCount("/live/live.m3u8") >= 3 && item->currentTime().seconds() >= start + 2.0; }));

    EXPECT_TRUE(item->duration().isIndefinite());
    EXPECT_EQ(item->status(), PlayerItem::Status::readyToPlay);
    std::vector<std::chrono::steady_clock::time_point> reloads;
    int newest = -1;
    for (const auto& served : origin->requests()) {
        if (served.path == "/live/live.m3u8") reloads.push_back(served.at);
        if (served.path.starts_with("/live/seg")) newest = std::max(newest, std::stoi(served.path.substr(9)));
    }
    ASSERT_GE(reloads.size(), 3u);
    for (std::size_t i = 1; i < reloads.size(); ++i) {
        // Never sooner than half a target duration (an unchanged playlist), normally one.
        EXPECT_GE(std::chrono::duration<double>(reloads[i] - reloads[i - 1]).count(), 0.4);
    }
    EXPECT_GE(newest, 8); // segments that were not in the first window
    EXPECT_FALSE(playback.watcher.saw(playerItemFailedToPlayToEndTimeNotification));
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
    auto keys = asset("/keys/master.m3u8", true);
    const bool preload = GetParam();
    keys->resourceLoader()->setPreloadsEligibleContentKeys(preload);
    Playback playback(PlayerItem::create(keys), settings, 8);
    ASSERT_TRUE(playback.playToEnd());

    const auto requests = delegate->requests();
    const auto first = [&](const std::string& suffix) {
        return std::find_if(requests.begin(), requests.end(),
                            [&](auto& url) { return url.ends_with(suffix); }) -
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
    Playback playback(item("/clip.mp4"), settings, 1);
    ASSERT_TRUE(playback.playToEnd());
    EXPECT_EQ(totals(*playback.item).numberOfMediaRequests, 1);
    EXPECT_EQ(totals(*playback.item).numberOfBytesTransferred, 5000);
}

// MARK: - Observers

TEST_F(PlaybackTest, RemovedObserverHearsNothingMoreAndRemovalWaitsForARunningCallback) {
    origin->publishMedia("observe", 2, 0.5, 100);
    auto item = this->item("/observe/media.m3u8");
    int context = 0, removed = 0;
    std::atomic<bool> entered{false}, returned{false};
    item->addObserver(&entered, "status", &context, [&](const std::string&, const KeyValueChange&, auto) {
        entered = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(200)); // widens the window, asserts nothing
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

TEST_F(PlaybackTest, DelegateErrorFailsTheItemWithThatError) {
    delegate->failRequests("/err/media.m3u8", Error{"OvaltoError", 0x8400, "PlayList is not received.", {}});
    Playback playback(item("/err/media.m3u8", true), settings, 1);
    ASSERT_TRUE(playback.watcher.waitFor("status=failed"));
    ASSERT_TRUE(playback.item->error());
    EXPECT_EQ(playback.item->error()->domain, "OvaltoError");
    EXPECT_EQ(playback.item->error()->code, 0x8400);
}

TEST_F(PlaybackTest, MissingSegmentFillsTheErrorLogAndPostsFailedToPlayToEnd) {
    origin->publishMedia("missing", 4, 0.5, 300);
    origin->remove("/missing/seg2.ts");
    Playback playback(item("/missing/media.m3u8"), settings, 8);
    const auto& item = playback.item;
    ASSERT_TRUE(playback.watcher.waitFor(playerItemFailedToPlayToEndTimeNotification));

    EXPECT_EQ(item->status(), PlayerItem::Status::failed);
    ASSERT_TRUE(item->error());
    EXPECT_EQ(item->error()->domain, httpStatusErrorDomain);
    const auto log = item->errorLog();
    ASSERT_TRUE(log);
    ASSERT_EQ(log->events.size(), 1u); // a 404 is not tried again
    for (const auto& event : log->events) {
        EXPECT_EQ(event.errorStatusCode, 404);
        EXPECT_TRUE(event.isFatal);
        EXPECT_TRUE(event.URI && event.URI->ends_with("/missing/seg2.ts"));
        EXPECT_EQ(event.serverAddress, "127.0.0.1");
        EXPECT_EQ(event.playbackSessionID, item->playbackSessionID());
        EXPECT_TRUE(event.date);
    }
    EXPECT_EQ(servedCount("/missing/seg3.ts"), 0u);
    EXPECT_FALSE(playback.watcher.saw(playerItemDidPlayToEndTimeNotification));
    EXPECT_LE(item->currentTime().seconds(), 1.0 + 1e-3); // stopped where the media ran out
    for (const auto& event : playback.watcher.events()) {
        if (event.what == playerItemFailedToPlayToEndTimeNotification) {
            EXPECT_EQ(std::any_cast<Error>(event.userInfo.at(playerItemFailedToPlayToEndTimeErrorKey)).code,
                      404);
        }
    }
}
