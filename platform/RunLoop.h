#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace ovalto::platform {

// The main run loop: the thread that calls run…() drains the main queue and fires timers.
// Applications, the command-line tool and tests drive it; nothing runs on the main queue
// while nobody does.
class RunLoop {
public:
    using Clock = std::chrono::steady_clock;

    static RunLoop& main();

    // Runs until stop() is called.
    void run();
    // Runs until `done` returns true (checked after every block and timer) or the deadline
    // passes; returns the last value of `done`.
    bool runUntil(const std::function<bool()>& done, Clock::time_point deadline);
    bool runFor(Clock::duration duration, const std::function<bool()>& done = {});
    // Makes the running run…() call return after the current block.
    void stop();

private:
    RunLoop() = default;
};

// A repeating timer on the main run loop. It keeps its block (and what the block captures)
// alive until invalidate() is called.
class Timer : public std::enable_shared_from_this<Timer> {
public:
    static std::shared_ptr<Timer> scheduledTimer(std::chrono::steady_clock::duration interval, bool repeats,
                                                 std::function<void(Timer&)> block);
    void invalidate();
    bool isValid() const;
    std::chrono::steady_clock::duration interval() const;

    struct State;
    explicit Timer(std::shared_ptr<State> state)
        : state_(std::move(state)) {}

private:
    std::shared_ptr<State> state_;
};

} // namespace ovalto::platform
