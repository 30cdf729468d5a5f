#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace ovalto::platform {

class DispatchWorkItem;

// A queue of blocks. Serial queues run one block at a time in FIFO order on a thread of their
// own choosing; the global queue runs blocks concurrently and adds threads (up to 64) when all
// of its threads are blocked; the main queue runs blocks only while a RunLoop drives it.
class DispatchQueue : public std::enable_shared_from_this<DispatchQueue> {
public:
    using Block = std::function<void()>;
    using Clock = std::chrono::steady_clock;

    virtual ~DispatchQueue() = default;

    // A new serial queue. The label shows up in thread names and logs.
    static std::shared_ptr<DispatchQueue> serial(std::string label);
    // The process-wide concurrent queue.
    static std::shared_ptr<DispatchQueue> global();
    // The process-wide main queue, drained by RunLoop::main().
    static std::shared_ptr<DispatchQueue> main();

    const std::string& label() const { return label_; }

    virtual void async(Block block) = 0;
    void async(const std::shared_ptr<DispatchWorkItem>& item);
    // Runs `block` after `delay`; returns the work item so that it can be cancelled.
    std::shared_ptr<DispatchWorkItem> asyncAfter(Clock::duration delay, Block block);
    void asyncAfter(Clock::duration delay, const std::shared_ptr<DispatchWorkItem>& item);
    // Runs `block` and waits for it. Calling it on the queue's own thread deadlocks a serial
    // queue, as with every dispatch library.
    void sync(Block block);

    // True when the calling thread is currently running a block of this queue.
    virtual bool isCurrent() const = 0;

protected:
    explicit DispatchQueue(std::string label)
        : label_(std::move(label)) {}

private:
    std::string label_;
};

// A block that can be cancelled before it starts; a cancelled item never runs.
class DispatchWorkItem {
public:
    explicit DispatchWorkItem(std::function<void()> block);
    void perform();
    void cancel();
    bool isCancelled() const;

private:
    struct State;
    std::shared_ptr<State> state_;
};

// Counting semaphore.
class DispatchSemaphore {
public:
    explicit DispatchSemaphore(long value = 0);
    ~DispatchSemaphore();
    DispatchSemaphore(const DispatchSemaphore&) = delete;
    DispatchSemaphore& operator=(const DispatchSemaphore&) = delete;

    void signal();
    void wait();
    // False when the deadline passed before a signal arrived.
    bool wait(std::chrono::steady_clock::duration timeout);

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace ovalto::platform
