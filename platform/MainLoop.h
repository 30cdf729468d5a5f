#pragma once

#include "platform/RunLoop.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

namespace ovalto::platform {

// What the main run loop knows of a timer; guarded by the loop's mutex.
struct Timer::State {
    std::chrono::steady_clock::duration interval{};
    bool repeats = false;
    bool valid = true;
    // Shared with a firing in progress, so that invalidate() from inside the block does not
    // destroy the block while it runs.
    std::shared_ptr<std::function<void(Timer&)>> block;
    std::pair<std::chrono::steady_clock::time_point, std::uint64_t> key{};
};

// The state behind RunLoop::main() and DispatchQueue::main(): the main queue's blocks and the
// timers, served by whichever thread drives the loop. One thread drives it at a time; a second
// one waits for its turn.
class MainLoop {
public:
    using Clock = std::chrono::steady_clock;
    using Block = std::function<void()>;

    static const std::shared_ptr<MainLoop>& shared();

    void enqueue(Block block);
    // True while the calling thread is inside a run…() call.
    bool isDrivenByCurrentThread() const;

    bool runUntil(const std::function<bool()>& done, Clock::time_point deadline);
    void stop();

    void schedule(std::shared_ptr<Timer> timer, Timer::State& state);
    void invalidate(Timer::State& state);
    bool isValid(const Timer::State& state) const;

private:
    using TimerKey = std::pair<Clock::time_point, std::uint64_t>;
    struct ScheduledTimer {
        std::shared_ptr<Timer> timer; // the loop keeps a scheduled timer alive
        Timer::State* state = nullptr;
    };
    // One unit of work taken from the loop under its lock and run without it.
    struct Work {
        Block block;
        ScheduledTimer timer;
        std::shared_ptr<std::function<void(Timer&)>> timerBlock;
        explicit operator bool() const { return block || timerBlock; }
    };

    bool becomeDriver(Clock::time_point deadline);
    void leaveDriver();
    Work takeWorkLocked(Clock::time_point now);

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Block> blocks_;
    std::map<TimerKey, ScheduledTimer> timers_;
    std::uint64_t nextTimerSequence_ = 0;
    std::thread::id driver_;
    int depth_ = 0;
    bool stopRequested_ = false;
};

} // namespace ovalto::platform
