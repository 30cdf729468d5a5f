#include "PlayList/Presentation.h"
#include "ResourceTestSupport.h"
#include "Resources/OVAResourceLoader.h"
#include "support/LogCapture.h"
#include "support/TestOrigin.h"

#include <gtest/gtest.h>

#include <atomic>

namespace ovalto::test {
namespace {

using Kind = platform::LoadingOutcome::Kind;

// Segment requests read the model while reloads of the same media playlist rewrite it, the
// listener replaces fragment URLs and the fragment function reads attributes: every request is
// still finished exactly once, and no segment request sees a half-replaced segment list.
TEST(ResourceConcurrencyTest, SegmentRequestsDuringReloadsOfTheSamePlayList) {
    TestOrigin origin;
    origin.serve("/live/master.m3u8", masterPlayList);
    for (const char* media : {"/live/hd/index.m3u8", "/live/sd/index.m3u8", "/live/audio/en.m3u8"})
        origin.serve(media, mediaPlayList);

    auto sink = std::make_shared<RecordingSink>();
    OVAResourceLoader loader{sink};
    std::atomic<int> reported{0};
    loader.configurations.set(Configurations{
        {ConfigurationKey::contentUrl, *platform::Url::parse(origin.url("/live/master.m3u8"))},
        {ConfigurationKey::httpHeaders, Headers{{"X-Session", "1"}}},
        {ConfigurationKey::function, FragmentFunction([&](std::any value) {
             const auto fragment = std::any_cast<std::shared_ptr<Fragment>>(value);
             if (fragment->attributes.get().count("Bitrate") == 1) ++reported;
         })},
    });
    auto listener = std::make_shared<TestListener>();
    listener->fragmentRequest = [](RequestInfo& info) { info.headers.emplace_back("X-Fragment", "1"); };
    loader.pluginListener.set(listener);
    loader.presentation->edgeList.set({{1, origin.url("/edge")}});

    auto fetch = [&](const std::string& url) {
        PlayerRequest request(url);
        EXPECT_TRUE(loader.load(request.request()));
        return request.wait();
    };
    ASSERT_EQ(fetch("cplp://local/master.m3u8").kind, Kind::data);
    ASSERT_EQ(fetch("cplp://local/1/800000/media.m3u8").kind, Kind::data);

    LogCapture log;
    constexpr int segments = 500;
    constexpr int reloads = 25;
    std::vector<std::unique_ptr<PlayerRequest>> segmentRequests, reloadRequests;
    for (int i = 0; i < segments; ++i) {
        if (i % (segments / reloads) == 0) {
            reloadRequests.push_back(std::make_unique<PlayerRequest>("cplp://local/1/800000/media.m3u8"));
            ASSERT_TRUE(loader.load(reloadRequests.back()->request()));
        }
        const char* number[] = {"120", "121", "-1"};
        segmentRequests.push_back(
            std::make_unique<PlayerRequest>(std::string("rdtp://local/1/800000/") + number[i % 3] + ".ts"));
        ASSERT_TRUE(loader.load(segmentRequests.back()->request()));
    }

    int redirects = 0;
    for (const auto& request : segmentRequests) {
        const auto outcome = request->wait();
        EXPECT_EQ(request->finishCount(), 1);
        EXPECT_EQ(outcome.kind, Kind::redirect) << request->request()->request().url.absoluteString() << ": "
                                                << (outcome.error ? outcome.error->localizedDescription : "");
        redirects += outcome.kind == Kind::redirect;
    }
    for (const auto& request : reloadRequests) {
        EXPECT_EQ(request->wait().kind, Kind::data);
        EXPECT_EQ(request->finishCount(), 1);
    }
    EXPECT_EQ(redirects, segments);
    EXPECT_EQ(reported.load(), segments - segments / 3); // every one but the initialisation sections
    EXPECT_EQ(origin.requestCount("/live/sd/index.m3u8"), reloads + 1);
    EXPECT_TRUE(sink->errors().empty());
    EXPECT_FALSE(log.contains("second completion"));
}

} // namespace
} // namespace ovalto::test
