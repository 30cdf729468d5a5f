#pragma once

#include "platform/Error.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <random>

namespace ovalto::platform {

// How the player spaces its attempts at a download that failed: the wait doubles from `first` up
// to `maximum`, each one scaled by a random factor in [0.8, 1.2] so that many players cut off by
// the same outage do not come back in step. Attempts go on while media is buffered, and for
// `starvedWindow` once the buffer is empty.
class RetryBackoff {
public:
    using Clock = std::chrono::steady_clock;

    RetryBackoff(std::chrono::milliseconds first, std::chrono::milliseconds maximum,
                 std::chrono::milliseconds starvedWindow, std::uint32_t seed);

    // Whether trying again can help: an HTTP 4xx answer other than 408 and 429 and an
    // unreadable playlist will not change.
    static bool isTransient(const Error& error);

    // After the `failures`-th failure in a row (1 for the first), with `buffered` telling whether
    // media is still buffered ahead of the clock: the wait before the next attempt, or none when
    // the download should be given up. `starvedSince` is the caller's record of when the buffer
    // ran empty during this run of failures.
    std::optional<Clock::duration> next(int failures, bool buffered,
                                        std::optional<Clock::time_point>& starvedSince,
                                        Clock::time_point now = Clock::now());

private:
    const std::chrono::milliseconds first_;
    const std::chrono::milliseconds maximum_;
    const std::chrono::milliseconds starvedWindow_;
    std::minstd_rand random_;
};

} // namespace ovalto::platform
