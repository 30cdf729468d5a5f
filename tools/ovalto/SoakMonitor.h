#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ovalto::tool {

// The resource figures of a long playback, sampled at intervals, and the judgement on them: the
// resident memory may not grow by more than `rssAllowance` once the first `warmUp` seconds are
// over (caches fill up at first), and open descriptors and threads may not grow at all.
class SoakMonitor {
public:
    struct Sample {
        double seconds = 0; // since the start of the soak
        std::int64_t rssBytes = 0;
        int descriptors = 0;
        int threads = 0;
        std::int64_t playlists = 0; // reloaded so far
        std::int64_t segments = 0;  // fetched so far
        std::string threadNames;    // "2 ovalto.global, 1 ovalto.timers", to tell which one grew
    };

    explicit SoakMonitor(double warmUp = 60, std::int64_t rssAllowance = 5 << 20);

    // The figures of this process now (from /proc/self).
    static Sample measure(double seconds, std::int64_t playlists, std::int64_t segments);
    static std::string describe(const Sample& sample);

    void add(const Sample& sample);
    // The first sample at or after the warm-up: what later ones are compared against.
    std::optional<Sample> baseline() const;
    // Why the soak failed, or nothing when the figures stayed flat. Descriptors and threads are
    // judged on their median over the first and the last sixth of the samples after the warm-up
    // (three at least), so that a connection or a worker caught in passing is no leak.
    std::optional<std::string> failure() const;

private:
    const double warmUp_;
    const std::int64_t rssAllowance_;
    std::vector<Sample> samples_;
};

} // namespace ovalto::tool
