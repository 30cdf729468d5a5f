// What runs where and when: dispatch queues, the thread pool, the main run loop and its timers,
// the notification center and the system log, each under threads that meet.
#include "platform/DispatchQueue.h"
#include "platform/NotificationCenter.h"
#include "platform/RunLoop.h"
#include "platform/SystemLog.h"
#include "platform/ThreadPool.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <latch>
#include <numeric>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

using namespace ovalto::platform;
using namespace std::chrono_literals;

namespace {

// Only guards against hangs; never expected to run out.
constexpr auto hangGuard = 30s;
constexpr auto forever = std::chrono::steady_clock::duration::max();

// Starts `count` threads that all begin `body` together, so that they meet, and joins them.
void together(int count, const std::function<void(int)>& body) {
    std::latch start(count);
    std::vector<std::jthread> threads;
    for (int t = 0; t < count; ++t)
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            body(t);
        });
}

TEST(SerialQueue, RunsBlocksOneAtATimeInSubmissionOrderEvenAfterTheLastHandleIsGone) {
    auto queue = DispatchQueue::serial("test.fifo");
    DispatchSemaphore gate, done;
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    std::vector<std::vector<int>> order(4); // each submitter's blocks as they ran; touched only by them
    queue->async([&] { gate.wait(); });     // holds every block back until the handle is gone
    together(4, [&](int s) {
        for (int i = 0; i < 500; ++i)
            queue->async([&, s, i] {
                if (running.fetch_add(1) != 0) overlapped = true;
                order[s].push_back(i);
                running.fetch_sub(1);
            });
    });
    queue->async([&] { done.signal(); });
    queue.reset();
    gate.signal();
    ASSERT_TRUE(done.wait(hangGuard));
    std::vector<int> submitted(500);
    std::iota(submitted.begin(), submitted.end(), 0);
    EXPECT_EQ(std::tuple(overlapped.load(), order), std::tuple(false, std::vector(4, submitted)));
}

TEST(DispatchQueue, SyncRunsOnTheQueueWhichIsCurrentOnlyThere) {
    auto queue = DispatchQueue::serial("test.current"), other = DispatchQueue::serial("test.other");
    auto global = DispatchQueue::global();
    EXPECT_FALSE(queue->isCurrent() || global->isCurrent());
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
        ASSERT_TRUE(gates->started.wait(hangGuard)) << "only " << i << " started";
    }
    DispatchQueue::global()->async([gates] { gates->ran.signal(); });
    EXPECT_TRUE(gates->ran.wait(hangGuard));
}

// A pool that grew in a burst shrinks back although work keeps trickling in faster than the idle
// timeout (the trickle goes to one thread and the others time out), and to nothing once idle.
TEST(ThreadPool, BurstThreadsExitUnderATrickleOfWorkThenAllIdleOnes) {
    ThreadPool pool("test.pool", 100ms);
    DispatchSemaphore release, started, ran;
    for (int i = 0; i < 4; ++i) { // each one blocked before the next comes
        pool.submit([&] {
            started.signal();
            release.wait();
        });
        ASSERT_TRUE(started.wait(hangGuard));
    }
    EXPECT_EQ(pool.threadCount(), 4u);
    for (int i = 0; i < 4; ++i)
        release.signal();
    const auto deadline = std::chrono::steady_clock::now() + hangGuard;
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
    std::string ran; // touched only by the queue's blocks until the marker has run
    auto capture = std::make_shared<int>(0);
    std::weak_ptr<int> watch = capture;
    auto item = std::make_shared<DispatchWorkItem>([&ran, capture] { ran += "cancelled item "; });
    capture.reset();
    item->cancel();
    EXPECT_TRUE(item->isCancelled() && watch.expired());
    queue->async(item);

    // Delayed items reach the queue in deadline order, so once the marker runs the others have.
    // A "forever" delay must not wrap around into the past.
    DispatchSemaphore marker;
    auto never = queue->asyncAfter(forever, [&] { ran += "forever "; });
    auto cancelled = queue->asyncAfter(20ms, [&] { ran += "cancelled "; });
    auto kept = queue->asyncAfter(30ms, [&] { ran += "kept "; });
    cancelled->cancel();
    queue->asyncAfter(80ms, [&] { marker.signal(); });
    ASSERT_TRUE(marker.wait(hangGuard));
    EXPECT_EQ(std::tuple(ran, kept->isCancelled()), std::tuple("kept ", false));
    never->cancel();
}

TEST(DispatchSemaphore, CountsSignalsAndTimesOut) {
    DispatchSemaphore semaphore(1);
    semaphore.signal();
    semaphore.signal();
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(semaphore.wait(0ms)) << i;
    EXPECT_FALSE(semaphore.wait(10ms));
    // A "forever" timeout must not wrap around into an immediate failure.
    std::jthread signaller([&] {
        std::this_thread::sleep_for(20ms);
        semaphore.signal();
    });
    EXPECT_TRUE(semaphore.wait(forever));
}

TEST(MainQueue, RunsBlocksOnlyOnWhicheverThreadDrivesTheRunLoop) {
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        std::atomic<bool> ran{false};
        std::thread::id ranOn, driver;
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
        EXPECT_FALSE(ran || DispatchQueue::main()->isCurrent());
        const auto drive = [&] {
            driver = std::this_thread::get_id();
            RunLoop::main().runFor(hangGuard, [&] { return ran.load(); });
        };
        round % 2 ? drive() : std::thread(drive).join();
        EXPECT_EQ(std::tuple(ran.load(), ranOn, wasCurrent), std::tuple(true, driver, true));
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
    EXPECT_TRUE(RunLoop::main().runFor(hangGuard, [&] { return order == std::vector{1, 2, 3}; }));
    // runFor tells whether it ended because the condition held or because time ran out.
    EXPECT_FALSE(RunLoop::main().runFor(10ms, [] { return false; }));
}

TEST(Timer, RepeatingOnesStopAtInvalidateFromTheirBlockOrAnotherThreadAndOneShotsFireOnce) {
    auto capture = std::make_shared<int>(0), otherCapture = std::make_shared<int>(0);
    std::weak_ptr<int> watch = capture, otherWatch = otherCapture;
    int fired = 0, oneShotFired = 0;
    bool foreverFired = false;
    std::atomic<int> otherFired{0};
    std::thread::id firedOn;
    auto timer = Timer::scheduledTimer(1ms, true, [&fired, &firedOn, capture](Timer& self) {
        firedOn = std::this_thread::get_id();
        if (++fired == 3) self.invalidate();
    });
    auto other = Timer::scheduledTimer(1ms, true, [&otherFired, otherCapture](Timer&) { ++otherFired; });
    std::weak_ptr<Timer> oneShot = Timer::scheduledTimer(1ms, false, [&](Timer&) { ++oneShotFired; });
    // An interval of "forever" must not wrap around into the past.
    auto never = Timer::scheduledTimer(forever, false, [&](Timer&) { foreverFired = true; });
    // A failed test must not leave a timer firing into its dead locals.
    const std::shared_ptr<void> invalidate(nullptr, [&](void*) {
        for (const auto& each : {timer, other, never})
            each->invalidate();
    });
    capture.reset();
    otherCapture.reset();
    // A timer keeps its block alive while valid; the run loop holds a one-shot one until it fires.
    EXPECT_FALSE(watch.expired() || oneShot.expired());

    ASSERT_TRUE(
        RunLoop::main().runFor(hangGuard, [&] { return fired == 3 && otherFired >= 2 && oneShotFired; }));
    EXPECT_EQ(std::tuple(timer->isValid(), watch.expired(), firedOn),
              std::tuple(false, true, std::this_thread::get_id()));
    std::thread([other] { other->invalidate(); }).join();
    const int otherAtInvalidate = otherFired;
    RunLoop::main().runFor(30ms);
    EXPECT_EQ(std::tuple(fired, otherFired.load(), otherWatch.expired(), oneShotFired, oneShot.expired(),
                         foreverFired, never->isValid()),
              std::tuple(3, otherAtInvalidate, true, 1, true, false, true));
}

TEST(NotificationCenter, FiltersByNameAndObject) {
    auto a = std::make_shared<int>(1), b = std::make_shared<int>(2);
    std::weak_ptr<const void> dead = std::make_shared<int>(3); // an observer of it matches nothing
    // Observed name and object, posted name and object, and whether the post is delivered.
    const std::tuple<const char*, std::weak_ptr<const void>, const char*, std::shared_ptr<int>, bool>
        cases[] = {
            {"ready", {}, "ready", nullptr, true}, {"ready", {}, "ready", a, true},
            {"ready", {}, "stalled", a, false},    {"", {}, "stalled", b, true},
            {"ready", a, "ready", a, true},        {"ready", a, "ready", b, false},
            {"ready", a, "ready", nullptr, false}, {"", a, "anything", a, true},
            {"", a, "anything", b, false},         {"ready", a, "stalled", a, false},
            {"ready", dead, "ready", b, false},    {"ready", dead, "ready", nullptr, false},
        };
    int row = 0;
    for (const auto& [observedName, observedObject, postedName, postedObject, delivered] : cases) {
        NotificationCenter center;
        int calls = 0;
        center.addObserver(observedName, observedObject, [&](const Notification&) { ++calls; });
        center.post(postedName, postedObject);
        EXPECT_EQ(calls, delivered ? 1 : 0) << "row " << row++;
    }
}

TEST(NotificationCenter, DeliversInOrderOfRegistrationAndRemovalTakesEffectEvenDuringAPost) {
    NotificationCenter center;
    std::vector<std::string> calls;
    NotificationCenter::Token self = 0, later = 0;
    self = center.addObserver("tick", {}, [&](const Notification& n) {
        const auto sender = n.objectAs<int>();
        calls.push_back(n.name + " " + std::to_string(sender ? *sender : -1) + " " +
                        std::to_string(std::any_cast<int>(n.userInfo.at("bitrate"))));
        center.removeObserver(self);
        center.removeObserver(later);
    });
    later = center.addObserver("tick", {}, [&](const Notification&) { calls.push_back("later"); });
    auto kept = center.addObserver("tick", {}, [&](const Notification&) { calls.push_back("kept"); });
    center.post("tick", std::make_shared<int>(42), {{"bitrate", 800000}});
    center.post("tick");
    center.removeObserver(kept);
    center.removeObserver(kept); // unknown tokens are ignored
    center.post("tick");
    EXPECT_EQ(calls, (std::vector<std::string>{"tick 42 800000", "kept", "kept"}));
}

TEST(NotificationCenter, PostsAndRegistrationsFromManyThreads) {
    NotificationCenter center;
    std::atomic<int> delivered{0};
    center.addObserver("load", {}, [&](const Notification&) { ++delivered; });
    together(4, [&](int) {
        for (int i = 0; i < 500; ++i) {
            auto token = center.addObserver("other", {}, [](const Notification&) {});
            center.post("load");
            center.removeObserver(token);
        }
    });
    EXPECT_EQ(delivered, 2000);
}

// Runs `body` with file descriptor 2 pointed at a pipe and returns the lines written there that
// contain `marker`, "2024-05-01T12:34:56.789+02:00 ovalto[<pid>:<tid>] <text>" as "<pid>:<tid> <text>"
// (empty when the stamp is off). The reader takes small bites, so writers often find the pipe full
// and wake up together: lines written in pieces would interleave.
std::vector<std::string> standardErrorLines(const std::string& marker, const std::function<void()>& body) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    std::fflush(stderr);
    const int saved = dup(STDERR_FILENO);
    dup2(fds[1], STDERR_FILENO);
    close(fds[1]);
    std::string output;
    std::thread reader([&output, in = fds[0]] {
        char buffer[256];
        for (ssize_t n; (n = read(in, buffer, sizeof buffer)) > 0;)
            output.append(buffer, static_cast<std::size_t>(n));
        close(in);
    });
    body();
    dup2(saved, STDERR_FILENO); // closes the pipe's last write end: the reader sees its end
    close(saved);
    reader.join();
    static const std::regex stamped(
        R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d ovalto\[(\d+:\d+)\] (.*))");
    std::istringstream in(output);
    std::vector<std::string> lines;
    std::smatch match;
    for (std::string line; std::getline(in, line);)
        if (line.find(marker) != std::string::npos)
            lines.push_back(std::regex_match(line, match, stamped) ? match[1].str() + " " + match[2].str()
                                                                   : "");
    return lines;
}

TEST(SystemLog, LinesFromConcurrentThreadsNeverInterleave) {
    const auto lines = standardErrorLines("marker-concurrent", [] {
        together(8, [](int t) {
            for (int i = 0; i < 300; ++i)
                SystemLog::write("marker-concurrent " + std::string(200, static_cast<char>('a' + t)));
        });
    });
    // Every line whole: stamped, then the marker and one thread's 200 letters.
    const std::regex whole(R"(\d+:\d+ marker-concurrent ([a-h])\1{199})");
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [&](const std::string& line) { return std::regex_match(line, whole); }),
              8 * 300);
}

TEST(SystemLog, SinksTakeTheTextOffStandardErrorWhichGetsItStampedAndVerbatimAndMayRemoveThemselves) {
    std::vector<std::string> seen;
    const auto lines = standardErrorLines("marker-sink", [&] {
        {
            ovalto::test::LogCapture log;
            SystemLog::write("marker-sink first");
            std::thread([] { SystemLog::write("marker-sink from a thread"); }).join();
            seen = log.lines();
        }
        SystemLog::write("marker-sink 100% of %s %d %n done");
    });
    EXPECT_EQ(seen, (std::vector<std::string>{"marker-sink first", "marker-sink from a thread"}));
    // Only the line written after the capture ended reached standard error.
    EXPECT_EQ(lines, std::vector<std::string>{std::to_string(getpid()) + ":" + std::to_string(gettid()) +
                                              " marker-sink 100% of %s %d %n done"});

    // A sink that removes itself while called is never called again.
    ovalto::test::LogCapture quiet;
    int calls = 0, token = 0;
    token = SystemLog::addSink([&](const std::string&) {
        ++calls;
        SystemLog::removeSink(token);
    });
    SystemLog::write("one");
    SystemLog::write("two");
    EXPECT_EQ(std::tuple(calls, quiet.lines().size()), std::tuple(1, 2u));
}

} // namespace
