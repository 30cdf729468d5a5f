#include "platform/DispatchQueue.h"

#include "platform/DelayScheduler.h"
#include "platform/MainLoop.h"
#include "platform/NoDestructor.h"
#include "platform/SystemLog.h"
#include "platform/ThreadPool.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>

namespace ovalto::platform {

namespace {

// A serial queue's own worker: started by the first block, gone once the queue has been idle
// for a while or has been released and drained. Blocks never share a thread with other queues,
// so a blocked serial queue cannot hold up the global pool, nor the other way round.
struct SerialState {
    std::string label;
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<DispatchQueue::Block> blocks;
    bool workerRunning = false;
    bool released = false;
};

constexpr auto serialIdleTimeout = std::chrono::seconds(5);

thread_local const SerialState* currentSerial = nullptr;

void serialWorker(const std::shared_ptr<SerialState>& state) {
    currentSerial = state.get();
    setCurrentThreadName(state->label);
    std::unique_lock lock(state->mutex);
    for (;;) {
        if (state->blocks.empty() && !state->released) {
            state->wake.wait_for(lock, serialIdleTimeout,
                                 [&] { return !state->blocks.empty() || state->released; });
        }
        if (state->blocks.empty()) break;
        {
            auto block = std::move(state->blocks.front());
            state->blocks.pop_front();
            lock.unlock();
            block();
        }
        lock.lock();
    }
    // Cleared under the lock, so the next async() starts a new worker only once this one has
    // run its last block.
    state->workerRunning = false;
}

class SerialQueue final : public DispatchQueue {
public:
    explicit SerialQueue(std::string label)
        : DispatchQueue(label)
        , state_(std::make_shared<SerialState>()) {
        state_->label = std::move(label);
    }

    ~SerialQueue() override {
        // Pending blocks still run; the worker leaves as soon as they are done.
        std::lock_guard lock(state_->mutex);
        state_->released = true;
        state_->wake.notify_all();
    }

    void async(Block block) override {
        if (!block) return;
        std::unique_lock lock(state_->mutex);
        state_->blocks.push_back(std::move(block));
        if (state_->workerRunning) {
            // Woken once the lock is free, so that the worker does not wake only to wait for it.
            lock.unlock();
            state_->wake.notify_one();
            return;
        }
        try {
            std::thread([state = state_] { serialWorker(state); }).detach();
            state_->workerRunning = true;
        } catch (const std::system_error& error) {
            // The block stays queued; the next async() tries again.
            SystemLog::write("DispatchQueue " + state_->label + ": cannot start a thread: " + error.what());
        }
    }

    bool isCurrent() const override { return currentSerial == state_.get(); }

private:
    // Shared with the detached worker, which drains the queue even after the last handle is gone.
    std::shared_ptr<SerialState> state_;
};

class GlobalQueue final : public DispatchQueue {
public:
    GlobalQueue()
        : DispatchQueue("global")
        , pool_("ovalto.global") {}
    void async(Block block) override { pool_.submit(std::move(block)); }
    bool isCurrent() const override { return pool_.runsOnCurrentThread(); }

private:
    ThreadPool pool_;
};

class MainQueue final : public DispatchQueue {
public:
    MainQueue()
        : DispatchQueue("main")
        , loop_(MainLoop::shared()) {}
    void async(Block block) override { loop_->enqueue(std::move(block)); }
    // The main queue has no thread of its own: the thread driving the run loop is its thread.
    bool isCurrent() const override { return loop_->isDrivenByCurrentThread(); }

private:
    std::shared_ptr<MainLoop> loop_;
};

} // namespace

std::shared_ptr<DispatchQueue> DispatchQueue::serial(std::string label) {
    return std::make_shared<SerialQueue>(std::move(label));
}

std::shared_ptr<DispatchQueue> DispatchQueue::global() {
    static NoDestructor<const std::shared_ptr<DispatchQueue>> queue(std::make_shared<GlobalQueue>());
    return *queue;
}

std::shared_ptr<DispatchQueue> DispatchQueue::main() {
    static NoDestructor<const std::shared_ptr<DispatchQueue>> queue(std::make_shared<MainQueue>());
    return *queue;
}

void DispatchQueue::async(const std::shared_ptr<DispatchWorkItem>& item) {
    if (!item) return;
    async([item] { item->perform(); });
}

std::shared_ptr<DispatchWorkItem> DispatchQueue::asyncAfter(Clock::duration delay, Block block) {
    auto item = std::make_shared<DispatchWorkItem>(std::move(block));
    asyncAfter(delay, item);
    return item;
}

void DispatchQueue::asyncAfter(Clock::duration delay, const std::shared_ptr<DispatchWorkItem>& item) {
    if (!item) return;
    if (delay <= Clock::duration::zero()) {
        async(item);
        return;
    }
    auto now = Clock::now();
    auto deadline = delay > Clock::time_point::max() - now ? Clock::time_point::max() : now + delay;
    DelayScheduler::shared().schedule(deadline, shared_from_this(), item);
}

void DispatchQueue::sync(Block block) {
    if (!block) return;
    DispatchSemaphore done;
    async([&] {
        block();
        done.signal();
    });
    done.wait();
}

// MARK: - DispatchWorkItem

struct DispatchWorkItem::State {
    mutable std::mutex mutex;
    bool cancelled = false;
    // Shared with a perform() in progress, so that cancel() can drop the captures at once
    // without destroying a running block.
    std::shared_ptr<const std::function<void()>> block;
};

DispatchWorkItem::DispatchWorkItem(std::function<void()> block)
    : state_(std::make_shared<State>()) {
    if (block) state_->block = std::make_shared<const std::function<void()>>(std::move(block));
}

void DispatchWorkItem::perform() {
    std::shared_ptr<const std::function<void()>> block;
    {
        std::lock_guard lock(state_->mutex);
        if (state_->cancelled) return;
        block = state_->block;
    }
    if (block) (*block)();
}

void DispatchWorkItem::cancel() {
    std::shared_ptr<const std::function<void()>> block;
    std::lock_guard lock(state_->mutex);
    state_->cancelled = true;
    block = std::move(state_->block); // destroyed after the lock is released
}

bool DispatchWorkItem::isCancelled() const {
    std::lock_guard lock(state_->mutex);
    return state_->cancelled;
}

// MARK: - DispatchSemaphore

struct DispatchSemaphore::State {
    std::mutex mutex;
    std::condition_variable available;
    long value = 0;
};

DispatchSemaphore::DispatchSemaphore(long value)
    : state_(std::make_unique<State>()) {
    state_->value = value;
}

DispatchSemaphore::~DispatchSemaphore() = default;

void DispatchSemaphore::signal() {
    std::lock_guard lock(state_->mutex);
    ++state_->value;
    // Notified under the lock: a waiter may destroy the semaphore as soon as it wakes.
    state_->available.notify_one();
}

void DispatchSemaphore::wait() {
    std::unique_lock lock(state_->mutex);
    state_->available.wait(lock, [&] { return state_->value > 0; });
    --state_->value;
}

bool DispatchSemaphore::wait(std::chrono::steady_clock::duration timeout) {
    using Clock = std::chrono::steady_clock;
    auto now = Clock::now();
    // Saturated, so that a "forever" timeout does not wrap around into the past.
    auto deadline = timeout > Clock::time_point::max() - now ? Clock::time_point::max() : now + timeout;
    std::unique_lock lock(state_->mutex);
    if (!state_->available.wait_until(lock, deadline, [&] { return state_->value > 0; })) return false;
    --state_->value;
    return true;
}

} // namespace ovalto::platform
