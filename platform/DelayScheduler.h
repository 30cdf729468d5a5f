#pragma once

#include <chrono>
#include <memory>

namespace ovalto::platform {

class DispatchQueue;
class DispatchWorkItem;

// Hands delayed work items to their queues when their deadlines pass: a deadline heap served by
// one thread, started with the first delayed item.
class DelayScheduler {
public:
    using Clock = std::chrono::steady_clock;

    static DelayScheduler& shared();

    // The queue is kept alive until the item is handed over; a cancelled item is dropped then.
    void schedule(Clock::time_point deadline, std::shared_ptr<DispatchQueue> queue,
                  std::shared_ptr<DispatchWorkItem> item);

    DelayScheduler();
    ~DelayScheduler();
    DelayScheduler(const DelayScheduler&) = delete;
    DelayScheduler& operator=(const DelayScheduler&) = delete;

    struct State;

private:
    // Shared with the detached timer thread.
    std::shared_ptr<State> state_;
};

} // namespace ovalto::platform
