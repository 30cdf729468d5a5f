#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace ovalto::platform {

// The threads behind the global queue. A block that blocks (a licence request, a synchronous
// download) keeps its thread, so the pool starts another thread whenever work is waiting and no
// thread is idle, up to a cap; a thread that stays idle for a while exits.
class ThreadPool {
public:
    static constexpr std::size_t maxThreads = 64;

    explicit ThreadPool(std::string threadName,
                        std::chrono::steady_clock::duration idleTimeout = std::chrono::seconds(10));
    // Blocks already submitted still run; idle threads exit. Does not wait for running blocks.
    ~ThreadPool();
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    void submit(std::function<void()> block);
    // True on the pool's own threads.
    bool runsOnCurrentThread() const;
    std::size_t threadCount() const;

    struct State;

private:
    // Shared with the worker threads, which are detached and may outlive the pool.
    std::shared_ptr<State> state_;
};

// Names the calling thread (shown by debuggers and top); long names are cut to fit.
void setCurrentThreadName(const std::string& name);

} // namespace ovalto::platform
