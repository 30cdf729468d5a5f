#pragma once

#include "platform/DispatchQueue.h"
#include "platform/RunLoop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>

namespace ovalto::test {

// Drives the main run loop, where the library posts notifications and callbacks, until `done`
// holds or `limit` passes (a guard against hangs, not a measurement). A 10 ms tick re-checks
// conditions that other threads change without posting to the main queue.
inline bool runMainUntil(const std::function<bool()>& done,
                         std::chrono::seconds limit = std::chrono::seconds(20)) {
    auto tick = platform::Timer::scheduledTimer(std::chrono::milliseconds(10), true, [](platform::Timer&) {});
    const bool result = platform::RunLoop::main().runUntil(done, std::chrono::steady_clock::now() + limit);
    tick->invalidate();
    return result;
}

// Runs everything the main queue holds now.
inline void drainMainQueue() {
    std::atomic<bool> done{false};
    platform::DispatchQueue::main()->async([&] { done = true; });
    ASSERT_TRUE(platform::RunLoop::main().runFor(std::chrono::seconds(30), [&] { return done.load(); }));
}

} // namespace ovalto::test
