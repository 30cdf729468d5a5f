#include "platform/MainLoop.h"

#include "platform/NoDestructor.h"

#include <algorithm>

namespace ovalto::platform {

namespace {

using Clock = MainLoop::Clock;

// Waits in bounded steps so that "forever" (time_point::max()) never overflows a clock conversion.
void waitUntil(std::condition_variable& cv, std::unique_lock<std::mutex>& lock, Clock::time_point deadline) {
    auto now = Clock::now();
    auto limit = now + std::chrono::hours(1);
    cv.wait_until(lock, std::min(deadline, limit));
}

// t + d, saturated: a timer interval of "forever" must not wrap around into the past.
Clock::time_point later(Clock::time_point t, Clock::duration d) {
    return d > Clock::time_point::max() - t ? Clock::time_point::max() : t + d;
}

} // namespace

const std::shared_ptr<MainLoop>& MainLoop::shared() {
    static NoDestructor<const std::shared_ptr<MainLoop>> instance(std::make_shared<MainLoop>());
    return *instance;
}

void MainLoop::enqueue(Block block) {
    if (!block) return;
    std::lock_guard lock(mutex_);
    blocks_.push_back(std::move(block));
    wake_.notify_all();
}

bool MainLoop::isDrivenByCurrentThread() const {
    std::lock_guard lock(mutex_);
    return depth_ > 0 && driver_ == std::this_thread::get_id();
}

bool MainLoop::becomeDriver(Clock::time_point deadline) {
    auto self = std::this_thread::get_id();
    std::unique_lock lock(mutex_);
    while (depth_ > 0 && driver_ != self) {
        if (Clock::now() >= deadline) return false;
        waitUntil(wake_, lock, deadline);
    }
    driver_ = self;
    ++depth_;
    return true;
}

void MainLoop::leaveDriver() {
    std::lock_guard lock(mutex_);
    if (--depth_ == 0) {
        driver_ = {};
        stopRequested_ = false;
        wake_.notify_all(); // a thread may be waiting for its turn to drive
    }
}

MainLoop::Work MainLoop::takeWorkLocked(Clock::time_point now) {
    Work work;
    if (!timers_.empty() && timers_.begin()->first.first <= now) {
        auto node = timers_.extract(timers_.begin());
        work.timer = std::move(node.mapped());
        Timer::State& state = *work.timer.state;
        work.timerBlock = state.block;
        if (state.repeats) {
            // Missed firings (nobody drove the loop) collapse into one.
            auto next = later(state.key.first, state.interval);
            if (next <= now) next = later(now, state.interval);
            state.key = {next, nextTimerSequence_++};
            node.key() = state.key;
            node.mapped() = work.timer;
            timers_.insert(std::move(node));
        } else {
            state.valid = false;
            state.block.reset();
        }
        return work;
    }
    if (!blocks_.empty()) {
        work.block = std::move(blocks_.front());
        blocks_.pop_front();
    }
    return work;
}

bool MainLoop::runUntil(const std::function<bool()>& done, Clock::time_point deadline) {
    if (!becomeDriver(deadline)) return false;
    struct Leave {
        MainLoop& loop;
        ~Leave() { loop.leaveDriver(); }
    } leave{*this};

    bool lastDone = done && done();
    std::unique_lock lock(mutex_);
    while (!lastDone) {
        if (stopRequested_) {
            stopRequested_ = false;
            break;
        }
        auto now = Clock::now();
        if (now >= deadline) break;
        if (Work work = takeWorkLocked(now)) {
            lock.unlock();
            if (work.block) {
                work.block();
            } else if (*work.timerBlock) {
                (*work.timerBlock)(*work.timer.timer);
            }
            // Captures and the last reference to a timer are released unlocked: their
            // destructors may use the loop.
            work = {};
            lastDone = done && done();
            lock.lock();
            continue;
        }
        auto wakeAt = deadline;
        if (!timers_.empty()) wakeAt = std::min(wakeAt, timers_.begin()->first.first);
        waitUntil(wake_, lock, wakeAt);
    }
    return lastDone;
}

void MainLoop::stop() {
    std::lock_guard lock(mutex_);
    // Only a running loop stops; a stop() before run() does not make the next run return.
    if (depth_ == 0) return;
    stopRequested_ = true;
    wake_.notify_all();
}

void MainLoop::schedule(std::shared_ptr<Timer> timer, Timer::State& state) {
    std::lock_guard lock(mutex_);
    if (!state.valid) return;
    state.key = {later(Clock::now(), state.interval), nextTimerSequence_++};
    timers_.emplace(state.key, ScheduledTimer{std::move(timer), &state});
    wake_.notify_all();
}

void MainLoop::invalidate(Timer::State& state) {
    ScheduledTimer removed;
    std::shared_ptr<std::function<void(Timer&)>> block;
    {
        std::lock_guard lock(mutex_);
        if (!state.valid) return;
        state.valid = false;
        if (auto it = timers_.find(state.key); it != timers_.end()) {
            removed = std::move(it->second);
            timers_.erase(it);
        }
        block = std::move(state.block);
    }
    // Released here, unlocked; if the block is running, it dies when that firing ends.
}

bool MainLoop::isValid(const Timer::State& state) const {
    std::lock_guard lock(mutex_);
    return state.valid;
}

} // namespace ovalto::platform
