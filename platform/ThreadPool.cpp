#include "platform/ThreadPool.h"

#include "platform/SystemLog.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <pthread.h>
#include <system_error>
#include <thread>
#include <vector>

namespace ovalto::platform {

namespace {

// An idle worker, parked on its own condition variable so that work goes to the one that became
// idle last. Waking the most recent one first lets the others stay idle long enough to exit; a
// shared condition variable would hand the work round all of them, and a pool that once grew in a
// burst would never shrink while a trickle of work arrives.
struct IdleWorker {
    std::condition_variable wake;
    bool handed = false; // popped by submit(): there is a block for it
};

} // namespace

struct ThreadPool::State {
    std::string threadName;
    std::chrono::steady_clock::duration idleTimeout;
    mutable std::mutex mutex;
    std::deque<std::function<void()>> blocks;
    std::vector<IdleWorker*> idle; // most recently idle last; entries live on the workers' stacks
    std::size_t threads = 0;
    bool closed = false;
};

namespace {

thread_local const ThreadPool::State* currentPool = nullptr;

void workerLoop(const std::shared_ptr<ThreadPool::State>& state) {
    currentPool = state.get();
    setCurrentThreadName(state->threadName);
    std::unique_lock lock(state->mutex);
    for (;;) {
        if (state->blocks.empty()) {
            if (state->closed) break;
            IdleWorker self;
            state->idle.push_back(&self);
            self.wake.wait_for(lock, state->idleTimeout, [&] { return self.handed || state->closed; });
            if (!self.handed) std::erase(state->idle, &self);
            if (state->blocks.empty()) {
                if (self.handed) continue; // a running worker took the block first
                break;                     // idle for too long, or the pool is gone
            }
        }
        {
            auto block = std::move(state->blocks.front());
            state->blocks.pop_front();
            lock.unlock();
            block();
            // The block's captures die here, unlocked: their destructors may submit more work.
        }
        lock.lock();
    }
    --state->threads;
}

} // namespace

ThreadPool::ThreadPool(std::string threadName, std::chrono::steady_clock::duration idleTimeout)
    : state_(std::make_shared<State>()) {
    state_->threadName = std::move(threadName);
    state_->idleTimeout = idleTimeout;
}

ThreadPool::~ThreadPool() {
    std::lock_guard lock(state_->mutex);
    state_->closed = true;
    for (IdleWorker* worker : state_->idle)
        worker->wake.notify_one();
}

void ThreadPool::submit(std::function<void()> block) {
    if (!block) return;
    std::lock_guard lock(state_->mutex);
    state_->blocks.push_back(std::move(block));
    if (!state_->idle.empty()) {
        IdleWorker* worker = state_->idle.back();
        state_->idle.pop_back();
        worker->handed = true;
        worker->wake.notify_one();
        return;
    }
    // Threads that are not idle may be blocked for a long time: never let work wait on them.
    if (state_->threads >= maxThreads) return;
    try {
        std::thread([state = state_] { workerLoop(state); }).detach();
        ++state_->threads;
    } catch (const std::system_error& error) {
        // The blocks wait for a running thread instead.
        SystemLog::write("ThreadPool " + state_->threadName + ": cannot start a thread: " + error.what());
    }
}

bool ThreadPool::runsOnCurrentThread() const {
    return currentPool == state_.get();
}

std::size_t ThreadPool::threadCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->threads;
}

void setCurrentThreadName(const std::string& name) {
    // The kernel keeps 15 characters and the terminating zero.
    std::string shortName = name.substr(0, 15);
    pthread_setname_np(pthread_self(), shortName.c_str());
}

} // namespace ovalto::platform
