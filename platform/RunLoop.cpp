#include "platform/RunLoop.h"

#include "platform/MainLoop.h"

namespace ovalto::platform {

namespace {

RunLoop::Clock::time_point deadlineAfter(RunLoop::Clock::duration duration) {
    auto now = RunLoop::Clock::now();
    if (duration > RunLoop::Clock::time_point::max() - now) return RunLoop::Clock::time_point::max();
    return now + duration;
}

} // namespace

RunLoop& RunLoop::main() {
    static RunLoop loop;
    return loop;
}

void RunLoop::run() {
    MainLoop::shared()->runUntil({}, Clock::time_point::max());
}

bool RunLoop::runUntil(const std::function<bool()>& done, Clock::time_point deadline) {
    return MainLoop::shared()->runUntil(done, deadline);
}

bool RunLoop::runFor(Clock::duration duration, const std::function<bool()>& done) {
    return MainLoop::shared()->runUntil(done, deadlineAfter(duration));
}

void RunLoop::stop() {
    MainLoop::shared()->stop();
}

std::shared_ptr<Timer> Timer::scheduledTimer(std::chrono::steady_clock::duration interval, bool repeats,
                                             std::function<void(Timer&)> block) {
    auto state = std::make_shared<State>();
    // A repeating timer without an interval would starve the loop.
    state->interval = std::max<std::chrono::steady_clock::duration>(interval, std::chrono::microseconds(100));
    state->repeats = repeats;
    auto timer = std::make_shared<Timer>(state);
    if (!block) {
        state->valid = false;
        return timer;
    }
    state->block = std::make_shared<std::function<void(Timer&)>>(std::move(block));
    MainLoop::shared()->schedule(timer, *state);
    return timer;
}

void Timer::invalidate() {
    MainLoop::shared()->invalidate(*state_);
}

bool Timer::isValid() const {
    return MainLoop::shared()->isValid(*state_);
}

std::chrono::steady_clock::duration Timer::interval() const {
    return state_->interval;
}

} // namespace ovalto::platform
