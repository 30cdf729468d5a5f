#include "platform/ThreadPool.h"

#include "platform/SystemLog.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <pthread.h>
#include <system_error>
#include <thread>

namespace ovalto::platform {

struct ThreadPool::State {
    std::string threadName;
    std::chrono::steady_clock::duration idleTimeout;
    mutable std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::function<void()>> blocks;
    std::size_t threads = 0;
    std::size_t idle = 0;
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
            ++state->idle;
            state->wake.wait_for(lock, state->idleTimeout,
                                 [&] { return !state->blocks.empty() || state->closed; });
            --state->idle;
            if (state->blocks.empty()) break; // idle for too long, or the pool is gone
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
    state_->wake.notify_all();
}

void ThreadPool::submit(std::function<void()> block) {
    if (!block) return;
    bool wakeIdle = false;
    bool startThread = false;
    {
        std::lock_guard lock(state_->mutex);
        state_->blocks.push_back(std::move(block));
        wakeIdle = state_->idle > 0;
        // Threads that are not idle may be blocked for a long time: never let work wait on them.
        startThread = state_->blocks.size() > state_->idle && state_->threads < maxThreads;
        if (startThread) ++state_->threads;
    }
    // Woken once the lock is free, so that the idle thread does not wake only to wait for it.
    if (wakeIdle) state_->wake.notify_one();
    if (!startThread) return;
    try {
        std::thread([state = state_] { workerLoop(state); }).detach();
    } catch (const std::system_error& error) {
        // The blocks wait for a running thread instead.
        {
            std::lock_guard lock(state_->mutex);
            --state_->threads;
        }
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
