#include "platform/DispatchQueue.h"
#include "platform/RunLoop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace ovalto::platform;
using namespace std::chrono_literals;

namespace {

constexpr auto hangGuard = 30s;

bool runUntil(const std::function<bool()>& done) {
    return RunLoop::main().runFor(hangGuard, done);
}

// A failed test must not leave a timer firing into its dead locals.
struct InvalidateOnExit {
    std::shared_ptr<Timer> timer;
    ~InvalidateOnExit() { timer->invalidate(); }
};

TEST(MainQueue, RunsBlocksOnlyOnWhicheverThreadDrivesTheRunLoop) {
    for (int round = 0; round < 3; ++round) {
        std::atomic<bool> ran{false};
        std::thread::id ranOn;
        bool wasCurrent = false;
        std::thread([&] {
            DispatchQueue::main()->async([&] {
                ranOn = std::this_thread::get_id();
                wasCurrent = DispatchQueue::main()->isCurrent();
                ran = true;
            });
        }).join();
        // Give a wrong implementation every chance to run the block on a thread of its own.
        if (round == 0) std::this_thread::sleep_for(20ms);
        EXPECT_FALSE(ran);
        EXPECT_FALSE(DispatchQueue::main()->isCurrent());

        std::thread::id driver = std::this_thread::get_id();
        if (round % 2 == 0) {
            std::thread([&] {
                driver = std::this_thread::get_id();
                runUntil([&] { return ran.load(); });
            }).join();
        } else {
            runUntil([&] { return ran.load(); });
        }
        ASSERT_TRUE(ran) << "round " << round;
        EXPECT_EQ(ranOn, driver) << "round " << round;
        EXPECT_TRUE(wasCurrent);
    }
}

TEST(RunLoop, StopReturnsAfterTheCurrentBlockAndKeepsTheRestAndRunForReportsTheDeadline) {
    std::vector<int> order;
    DispatchQueue::main()->async([&] { order.push_back(1); });
    DispatchQueue::main()->async([&] {
        order.push_back(2);
        RunLoop::main().stop();
    });
    DispatchQueue::main()->async([&] { order.push_back(3); });
    RunLoop::main().run();
    EXPECT_EQ(order, (std::vector<int>{1, 2}));

    ASSERT_TRUE(runUntil([&] { return order.size() == 3; }));
    EXPECT_EQ(order.back(), 3);
    // runFor tells whether it ended because the condition held or because time ran out.
    EXPECT_FALSE(RunLoop::main().runFor(10ms, [] { return false; }));
}

TEST(Timer, RepeatingTimerStopsAtInvalidateFromItsBlockOrAnotherThreadAndReleasesItsCaptures) {
    auto capture = std::make_shared<int>(0), otherCapture = std::make_shared<int>(0);
    std::weak_ptr<int> watch = capture, otherWatch = otherCapture;
    int fired = 0;
    std::atomic<int> otherFired{0};
    std::thread::id firedOn;
    auto timer = Timer::scheduledTimer(1ms, true, [&fired, &firedOn, capture](Timer& self) {
        firedOn = std::this_thread::get_id();
        if (++fired == 3) self.invalidate();
    });
    auto other = Timer::scheduledTimer(1ms, true, [&otherFired, otherCapture](Timer&) { ++otherFired; });
    InvalidateOnExit guard{timer}, otherGuard{other};
    capture.reset();
    otherCapture.reset();
    EXPECT_FALSE(watch.expired()); // a timer keeps its block alive while valid

    ASSERT_TRUE(runUntil([&] { return fired == 3 && otherFired >= 2; }));
    EXPECT_FALSE(timer->isValid());
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(firedOn, std::this_thread::get_id());
    std::thread([other] { other->invalidate(); }).join();
    const int otherAtInvalidate = otherFired;
    RunLoop::main().runFor(30ms);
    EXPECT_EQ(fired, 3);
    EXPECT_EQ(otherFired, otherAtInvalidate);
    EXPECT_TRUE(otherWatch.expired());
}

TEST(Timer, OneShotTimerFiresOnceAndOutlivesItsHandleAndAForeverOneNever) {
    int fired = 0;
    bool foreverFired = false;
    std::weak_ptr<Timer> watch;
    {
        auto timer = Timer::scheduledTimer(1ms, false, [&](Timer&) { ++fired; });
        watch = timer;
    }
    EXPECT_FALSE(watch.expired()); // the run loop holds it until it fires
    // An interval of "forever" must not wrap around into the past.
    auto forever = Timer::scheduledTimer(std::chrono::steady_clock::duration::max(), false,
                                         [&](Timer&) { foreverFired = true; });
    InvalidateOnExit guard{forever};
    ASSERT_TRUE(runUntil([&] { return fired == 1; }));
    RunLoop::main().runFor(20ms);
    EXPECT_EQ(fired, 1);
    EXPECT_TRUE(watch.expired());
    EXPECT_FALSE(foreverFired);
    EXPECT_TRUE(forever->isValid());
}

} // namespace
