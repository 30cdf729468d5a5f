#include "platform/DelayScheduler.h"

#include "platform/DispatchQueue.h"
#include "platform/NoDestructor.h"
#include "platform/SystemLog.h"
#include "platform/ThreadPool.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <queue>
#include <system_error>
#include <thread>
#include <vector>

namespace ovalto::platform {

namespace {

struct Entry {
    DelayScheduler::Clock::time_point deadline;
    std::uint64_t sequence; // keeps items with equal deadlines in submission order
    std::shared_ptr<DispatchQueue> queue;
    std::shared_ptr<DispatchWorkItem> item;

    bool operator>(const Entry& other) const {
        return deadline != other.deadline ? deadline > other.deadline : sequence > other.sequence;
    }
};

} // namespace

struct DelayScheduler::State {
    std::mutex mutex;
    std::condition_variable wake;
    std::priority_queue<Entry, std::vector<Entry>, std::greater<>> entries;
    std::uint64_t nextSequence = 0;
    bool threadRunning = false;
    bool closed = false;
};

namespace {

void timerLoop(const std::shared_ptr<DelayScheduler::State>& state) {
    setCurrentThreadName("ovalto.timers");
    std::unique_lock lock(state->mutex);
    while (!state->closed) {
        if (state->entries.empty()) {
            state->wake.wait(lock);
            continue;
        }
        auto deadline = state->entries.top().deadline;
        if (DelayScheduler::Clock::now() < deadline) {
            state->wake.wait_until(lock, deadline);
            continue;
        }
        Entry entry = state->entries.top();
        state->entries.pop();
        lock.unlock();
        if (!entry.item->isCancelled()) entry.queue->async(entry.item);
        entry = {}; // released unlocked: the last reference to a queue may go here
        lock.lock();
    }
    state->threadRunning = false;
}

} // namespace

DelayScheduler& DelayScheduler::shared() {
    static NoDestructor<DelayScheduler> instance;
    return *instance;
}

DelayScheduler::DelayScheduler()
    : state_(std::make_shared<State>()) {}

DelayScheduler::~DelayScheduler() {
    std::lock_guard lock(state_->mutex);
    state_->closed = true;
    state_->wake.notify_all();
}

void DelayScheduler::schedule(Clock::time_point deadline, std::shared_ptr<DispatchQueue> queue,
                              std::shared_ptr<DispatchWorkItem> item) {
    if (!queue || !item) return;
    std::lock_guard lock(state_->mutex);
    state_->entries.push(Entry{deadline, state_->nextSequence++, std::move(queue), std::move(item)});
    state_->wake.notify_all();
    if (state_->threadRunning) return;
    try {
        std::thread([state = state_] { timerLoop(state); }).detach();
        state_->threadRunning = true;
    } catch (const std::system_error& error) {
        SystemLog::write(std::string("DelayScheduler: cannot start the timer thread: ") + error.what());
    }
}

} // namespace ovalto::platform
