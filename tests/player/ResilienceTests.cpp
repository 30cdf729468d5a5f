// The player against an origin that fails: it plays on from its buffer while it retries, gives
// up with the error when the buffer and its patience are spent, and does not retry what cannot
// change.
#include "PlayerFixture.h"

using namespace ovalto::platform;
using ovalto::test::HlsOrigin;
using ovalto::test::Playback;
using ovalto::test::waitUntil;
using Reply = ovalto::tool::Origin::Reply;

namespace {

using ResilienceTest = ovalto::test::PlayerTest;

double bufferedEnd(const PlayerItem& item) {
    const auto ranges = item.loadedTimeRanges();
    return ranges.empty() ? 0 : ranges.back().start.seconds() + ranges.back().duration.seconds();
}

std::vector<ErrorLogEvent> errorLog(const PlayerItem& item) {
    const auto log = item.errorLog();
    return log ? log->events : std::vector<ErrorLogEvent>{};
}

std::int64_t stalls(const PlayerItem& item) {
    std::int64_t count = 0;
    for (const auto& event : item.accessLog() ? item.accessLog()->events : std::vector<AccessLogEvent>{})
        count += event.numberOfStalls;
    return count;
}

} // namespace

TEST_F(ResilienceTest, ShortOutageDuringLivePlaybackPlaysOnFromTheBuffer) {
    origin->publishLive("live", 1.0, 10, 300); // starts three segments behind the edge
    Playback playback(item("/live/live.m3u8"), settings, 1);
    const auto& item = playback.item;
    ASSERT_TRUE(playback.watcher.waitFor("status=readyToPlay"));
    const double start = item->currentTime().seconds();
    ASSERT_TRUE(waitUntil([&] { return item->currentTime().seconds() >= start + 0.5; }));

    origin->setDown(true);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    origin->setDown(false);
    const double back = item->currentTime().seconds();
    ASSERT_TRUE(waitUntil([&] { return item->currentTime().seconds() >= back + 3; }));

    EXPECT_EQ(item->status(), PlayerItem::Status::readyToPlay);
    EXPECT_FALSE(playback.watcher.saw(playerItemFailedToPlayToEndTimeNotification));
    EXPECT_LE(stalls(*item), 1);
    const auto log = errorLog(*item);
    EXPECT_FALSE(log.empty()); // the reloads during the outage failed
    for (const auto& event : log) {
        EXPECT_FALSE(event.isFatal);
        EXPECT_NE(event.errorComment.value_or("").find("Trying again in"), std::string::npos);
    }
}

TEST_F(ResilienceTest, OutageLongerThanBufferAndPatienceFailsWithTheNetworkError) {
    origin->publishLive("live", 1.0, 10, 300);
    Playback playback(item("/live/live.m3u8"), settings, 1);
    const auto& item = playback.item;
    ASSERT_TRUE(playback.watcher.waitFor("status=readyToPlay"));
    ASSERT_TRUE(waitUntil([&] { return bufferedEnd(*item) > item->currentTime().seconds() + 2; }));
    origin->setDown(true);
    const double buffered = bufferedEnd(*item);
    ASSERT_TRUE(playback.watcher.waitFor(playerItemFailedToPlayToEndTimeNotification));

    EXPECT_EQ(item->status(), PlayerItem::Status::failed);
    ASSERT_TRUE(item->error());
    EXPECT_EQ(item->error()->domain, Error::urlDomain);
    EXPECT_FALSE(item->error()->localizedDescription.empty());
    EXPECT_GE(item->currentTime().seconds(), buffered - 0.01); // it played what it had
    const auto log = errorLog(*item);
    ASSERT_GE(log.size(), 3u);
    EXPECT_TRUE(log.back().isFatal);
    for (std::size_t i = 0; i + 1 < log.size(); ++i)
        EXPECT_FALSE(log[i].isFatal);
}

TEST_F(ResilienceTest, SegmentStatusesThatCannotChangeFailAtOnceOthersAreRetried) {
    struct Row {
        std::vector<Reply> replies; // for the second segment
        bool plays;
        int requests; // of the second segment; 0: more than one
    };
    const std::vector<Row> rows = {
        {{{403}}, false, 1},
        {{{404}}, false, 1},
        {{{410}}, false, 1},
        {{{408}, {200}}, true, 2},
        {{{429}, {200}}, true, 2},
        {{{503}, {502}, {200}}, true, 3},
        {{{200, {}, ovalto::tool::Origin::Fault::drop}, {200}}, true, 2},
        {{{500}}, false, 0}, // gives up once the buffer is empty and the window is over
    };
    for (std::size_t r = 0; r < rows.size(); ++r) {
        const Row& row = rows[r];
        const int status = row.replies.front().status;
        SCOPED_TRACE("row " + std::to_string(r) + ", first answer " + std::to_string(status));
        const std::string name = "status" + std::to_string(r);
        origin->publishMedia(name, 3, 0.5, 300);
        origin->script("/" + name + "/seg1.ts", row.replies);
        Playback playback(item("/" + name + "/media.m3u8"), settings, 4);
        ASSERT_TRUE(waitUntil([&] {
            return playback.watcher.saw(playerItemDidPlayToEndTimeNotification) ||
                   playback.watcher.saw(playerItemFailedToPlayToEndTimeNotification);
        }));
        EXPECT_EQ(playback.watcher.saw(playerItemDidPlayToEndTimeNotification), row.plays);
        const int requests = origin->requestCount("/" + name + "/seg1.ts");
        if (row.requests > 0) {
            EXPECT_EQ(requests, row.requests);
        } else {
            EXPECT_GT(requests, 1);
        }
        if (!row.plays) {
            ASSERT_TRUE(playback.item->error());
            EXPECT_EQ(playback.item->error()->code, status);
            EXPECT_EQ(origin->requestCount("/" + name + "/seg2.ts"), 0);
        }
        const auto log = errorLog(*playback.item);
        EXPECT_EQ(log.size(), static_cast<std::size_t>(requests - (row.plays ? 1 : 0)));
    }
}

TEST_F(ResilienceTest, RetriesOfASegmentComeFurtherAndFurtherApart) {
    settings.retryDelay = std::chrono::milliseconds(60);
    settings.maximumRetryDelay = std::chrono::milliseconds(2000);
    settings.retryWindow = std::chrono::milliseconds(10000);
    origin->publishMedia("spaced", 3, 0.5, 300);
    origin->script("/spaced/seg1.ts", {{503}, {503}, {503}, {503}, {200}});
    Playback playback(item("/spaced/media.m3u8"), settings, 1);
    ASSERT_TRUE(playback.playToEnd());

    const auto requests = origin->requests("/spaced/seg1.ts");
    ASSERT_EQ(requests.size(), 5u);
    for (std::size_t i = 2; i < requests.size(); ++i) {
        // Each wait at least 1.6 times the one before it, even at the ends of the jitter.
        EXPECT_GT(requests[i].at - requests[i - 1].at, requests[i - 1].at - requests[i - 2].at) << i;
    }
}

TEST_F(ResilienceTest, LivePlaylistThatStopsChangingIsReportedStalledAndResumes) {
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
        const auto log = errorLog(*item);
        return std::any_of(log.begin(), log.end(), [](const ErrorLogEvent& event) {
            return event.errorDomain == playerErrorDomain && !event.isFatal;
        });
    };
    ASSERT_TRUE(waitUntil([&] { return stalled() && item->isPlaybackBufferEmpty(); }));
    const double held = item->currentTime().seconds();

    origin->serve("/frozen/live.m3u8", playlist(6));
    ASSERT_TRUE(waitUntil([&] { return item->currentTime().seconds() > held + 1; }));
    EXPECT_EQ(item->status(), PlayerItem::Status::readyToPlay);
    EXPECT_EQ(errorLog(*item).size(), 1u); // one report for the whole stall
}
