#include "platform/DispatchQueue.h"
#include "platform/ThreadPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using namespace ovalto::platform;
using namespace std::chrono_literals;

namespace {

// Only guards against hangs; never expected to run out.
constexpr auto hangGuard = 30s;

TEST(SerialQueue, RunsBlocksOneAtATimeInSubmissionOrderUnderConcurrentSubmitters) {
    auto queue = DispatchQueue::serial("test.fifo");
    constexpr int submitters = 4, blocksEach = 500;
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    std::vector<std::pair<int, int>> order; // touched only by the queue's blocks
    std::vector<std::thread> threads;
    for (int s = 0; s < submitters; ++s) {
        threads.emplace_back([&, s] {
            for (int i = 0; i < blocksEach; ++i) {
                queue->async([&, s, i] {
                    if (running.fetch_add(1) != 0) overlapped = true;
                    order.emplace_back(s, i);
                    running.fetch_sub(1);
                });
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    queue->sync([] {});

    EXPECT_FALSE(overlapped);
    ASSERT_EQ(order.size(), std::size_t{submitters * blocksEach});
    std::vector<int> next(submitters, 0);
    for (auto [s, i] : order)
        ASSERT_EQ(i, next[s]++) << "submitter " << s;
}

TEST(SerialQueue, DrainsPendingBlocksAfterTheLastHandleIsGone) {
    DispatchSemaphore gate, done;
    std::atomic<int> ran{0};
    {
        auto queue = DispatchQueue::serial("test.released");
        queue->async([&] { gate.wait(); });
        for (int i = 0; i < 10; ++i)
            queue->async([&] { ++ran; });
        queue->async([&] { done.signal(); });
    }
    gate.signal();
    ASSERT_TRUE(done.wait(hangGuard));
    EXPECT_EQ(ran, 10);
}

TEST(DispatchQueue, SyncRunsOnTheQueueWhichIsCurrentOnlyThere) {
    auto queue = DispatchQueue::serial("test.current");
    auto other = DispatchQueue::serial("test.other");
    auto global = DispatchQueue::global();
    EXPECT_FALSE(queue->isCurrent());
    EXPECT_FALSE(global->isCurrent());

    int value = 0;
    queue->async([&] { value = 1; });
    // sync returns after the block ran, behind what was queued before it.
    std::vector<bool> seen;
    queue->sync([&] {
        value *= 10;
        seen = {queue->isCurrent(), other->isCurrent(), global->isCurrent()};
        global->sync([&] { seen.insert(seen.end(), {global->isCurrent(), queue->isCurrent()}); });
    });
    EXPECT_EQ(value, 10);
    EXPECT_EQ(seen, (std::vector<bool>{true, false, false, true, false}));
}

TEST(GlobalQueue, BlockedBlocksDoNotStarveTheNextOne) {
    constexpr int blocked = 32;
    // Shared with the blocks and released on every way out, so that a failure leaves no thread
    // waiting on a dead semaphore.
    struct Gates {
        DispatchSemaphore release, started, ran;
    };
    auto gates = std::make_shared<Gates>();
    const std::shared_ptr<void> releaseOnExit(nullptr, [gates](void*) {
        for (int i = 0; i < blocked; ++i)
            gates->release.signal();
    });
    for (int i = 0; i < blocked; ++i) {
        DispatchQueue::global()->async([gates] {
            gates->started.signal();
            gates->release.wait();
        });
    }
    for (int i = 0; i < blocked; ++i)
        ASSERT_TRUE(gates->started.wait(hangGuard)) << "only " << i << " started";
    DispatchQueue::global()->async([gates] { gates->ran.signal(); });
    EXPECT_TRUE(gates->ran.wait(hangGuard));
}

// A pool that grew in a burst shrinks back although work keeps trickling in faster than the idle
// timeout (the trickle goes to one thread and the others time out), and to nothing once idle.
TEST(ThreadPool, BurstThreadsExitUnderATrickleOfWorkThenAllIdleOnes) {
    ThreadPool pool("test.pool", 100ms);
    DispatchSemaphore release, started;
    for (int i = 0; i < 4; ++i) {
        pool.submit([&] {
            started.signal();
            release.wait();
        });
    }
    for (int i = 0; i < 4; ++i)
        ASSERT_TRUE(started.wait(hangGuard));
    EXPECT_EQ(pool.threadCount(), 4u);
    for (int i = 0; i < 4; ++i)
        release.signal();
    const auto deadline = std::chrono::steady_clock::now() + hangGuard;
    DispatchSemaphore ran;
    while (pool.threadCount() > 1 && std::chrono::steady_clock::now() < deadline) {
        pool.submit([&] { ran.signal(); });
        ASSERT_TRUE(ran.wait(hangGuard));
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_EQ(pool.threadCount(), 1u);
    while (pool.threadCount() > 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(5ms);
    EXPECT_EQ(pool.threadCount(), 0u);
}

TEST(DispatchWorkItem, CancelledItemsNeverRunAndDropTheirCaptures) {
    auto queue = DispatchQueue::serial("test.cancel");
    auto capture = std::make_shared<int>(0);
    std::weak_ptr<int> watch = capture;
    std::atomic<bool> ran{false}, cancelledRan{false}, keptRan{false}, foreverRan{false};
    auto item = std::make_shared<DispatchWorkItem>([&ran, capture] { ran = true; });
    capture.reset();
    item->cancel();
    EXPECT_TRUE(item->isCancelled());
    EXPECT_TRUE(watch.expired());
    queue->async(item);

    // Delayed items reach the queue in deadline order, so once the marker runs the others have.
    DispatchSemaphore marker;
    auto forever = queue->asyncAfter(std::chrono::steady_clock::duration::max(), [&] { foreverRan = true; });
    auto cancelled = queue->asyncAfter(20ms, [&] { cancelledRan = true; });
    auto kept = queue->asyncAfter(30ms, [&] { keptRan = true; });
    cancelled->cancel();
    queue->asyncAfter(80ms, [&] { marker.signal(); });
    ASSERT_TRUE(marker.wait(hangGuard));
    EXPECT_FALSE(ran);
    EXPECT_FALSE(cancelledRan);
    EXPECT_TRUE(keptRan);
    EXPECT_FALSE(kept->isCancelled());
    EXPECT_FALSE(foreverRan); // a "forever" delay must not wrap around into the past
    forever->cancel();
}

TEST(DispatchSemaphore, CountsSignalsAndTimesOut) {
    DispatchSemaphore semaphore(1);
    semaphore.signal();
    semaphore.signal();
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(semaphore.wait(0ms)) << i;
    EXPECT_FALSE(semaphore.wait(10ms));

    // A "forever" timeout must not wrap around into an immediate failure.
    std::thread signaller([&] {
        std::this_thread::sleep_for(20ms);
        semaphore.signal();
    });
    EXPECT_TRUE(semaphore.wait(std::chrono::steady_clock::duration::max()));
    signaller.join();
}

} // namespace
