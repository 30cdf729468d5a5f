#include "platform/AssetResourceLoader.h"
#include "platform/DispatchQueue.h"
#include "platform/LoadingRequest.h"
#include "platform/ResourceLoaderDelegate.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <thread>

using namespace ovalto::platform;
using Kind = LoadingOutcome::Kind;

namespace {

// Makes requests and collects the outcomes their completions receive, from any thread.
class Outcomes {
public:
    std::shared_ptr<LoadingRequest> request(LoadingRequest::Parts parts = {}) {
        return LoadingRequest::create(UrlRequest(*Url::parse("cplp://local/master.m3u8")), parts,
                                      [this](const LoadingOutcome& outcome) {
                                          std::lock_guard lock(mutex_);
                                          outcomes_.push_back(outcome);
                                          changed_.notify_all();
                                      });
    }
    // Waits (as a hang guard) for the first outcome.
    LoadingOutcome first() {
        std::unique_lock lock(mutex_);
        EXPECT_TRUE(changed_.wait_for(lock, std::chrono::seconds(10), [this] { return !outcomes_.empty(); }));
        return outcomes_.empty() ? LoadingOutcome{} : outcomes_.front();
    }
    std::size_t count() {
        std::lock_guard lock(mutex_);
        return outcomes_.size();
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<LoadingOutcome> outcomes_;
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
    EXPECT_EQ(std::tuple(outcomes.count(), outcomes.first().data), std::tuple(1u, "one"));
    EXPECT_TRUE(log.contains("finished twice"));
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
    EXPECT_EQ(declined.first().error->code, loaderErrorNoDelegate);

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
    EXPECT_EQ(outcomes.first().kind, Kind::data);
    EXPECT_TRUE(delegate->onQueue);

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
    EXPECT_EQ(delegate->cancels, 1);
    EXPECT_TRUE(delegate->onQueue);
}

} // namespace
