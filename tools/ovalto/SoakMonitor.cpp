#include "SoakMonitor.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <utility>

namespace ovalto::tool {

SoakMonitor::SoakMonitor(double warmUp, std::int64_t rssAllowance)
    : warmUp_(warmUp)
    , rssAllowance_(rssAllowance) {}

SoakMonitor::Sample SoakMonitor::measure(double seconds, std::int64_t playlists, std::int64_t segments) {
    Sample sample{seconds, 0, 0, 0, playlists, segments, {}};
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) sample.rssBytes = std::atoll(line.c_str() + 6) * 1024;
        if (line.rfind("Threads:", 0) == 0) sample.threads = std::atoi(line.c_str() + 8);
    }
    std::error_code error;
    for (auto it = std::filesystem::directory_iterator("/proc/self/fd", error);
         !error && it != std::filesystem::directory_iterator(); it.increment(error))
        ++sample.descriptors;
    --sample.descriptors; // the one the listing itself holds open
    std::map<std::string, int> names;
    for (auto it = std::filesystem::directory_iterator("/proc/self/task", error);
         !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
        std::ifstream comm(it->path() / "comm");
        std::string name;
        if (std::getline(comm, name)) ++names[name];
    }
    for (const auto& [name, count] : names)
        sample.threadNames += (sample.threadNames.empty() ? "" : ", ") + std::to_string(count) + " " + name;
    return sample;
}

std::string SoakMonitor::describe(const Sample& sample) {
    char text[160];
    std::snprintf(
        text, sizeof text, "%7.0f s  rss %7.2f MB  fds %3d  threads %3d  playlists %6lld  segments %6lld",
        sample.seconds, static_cast<double>(sample.rssBytes) / (1 << 20), sample.descriptors, sample.threads,
        static_cast<long long>(sample.playlists), static_cast<long long>(sample.segments));
    return text;
}

void SoakMonitor::add(const Sample& sample) {
    samples_.push_back(sample);
}

std::optional<SoakMonitor::Sample> SoakMonitor::baseline() const {
    auto found = std::find_if(samples_.begin(), samples_.end(),
                              [this](const Sample& sample) { return sample.seconds >= warmUp_; });
    if (found == samples_.end()) return std::nullopt;
    return *found;
}

std::optional<std::string> SoakMonitor::failure() const {
    const auto base = baseline();
    if (!base) return std::nullopt;
    for (const auto& sample : samples_) {
        if (sample.seconds < base->seconds) continue;
        if (sample.rssBytes - base->rssBytes > rssAllowance_) {
            char text[160];
            std::snprintf(text, sizeof text, "resident memory grew by %.2f MB between %.0f s and %.0f s",
                          static_cast<double>(sample.rssBytes - base->rssBytes) / (1 << 20), base->seconds,
                          sample.seconds);
            return text;
        }
    }
    std::size_t first = 0;
    while (samples_[first].seconds < base->seconds)
        ++first;
    // The typical descriptors and threads of a window of samples: a connection or a worker
    // caught in passing moves a sample, not the median of many.
    const std::size_t window = std::max<std::size_t>(3, (samples_.size() - first) / 6);
    const auto median = [this, window](std::size_t from) {
        std::vector<int> descriptors, threads;
        for (std::size_t i = from; i < std::min(from + window, samples_.size()); ++i) {
            descriptors.push_back(samples_[i].descriptors);
            threads.push_back(samples_[i].threads);
        }
        std::sort(descriptors.begin(), descriptors.end());
        std::sort(threads.begin(), threads.end());
        return std::pair{descriptors[descriptors.size() / 2], threads[threads.size() / 2]};
    };
    const auto before = median(first);
    const auto after = median(std::max(first, samples_.size() >= window ? samples_.size() - window : 0));
    if (after.first > before.first)
        return "open file descriptors grew from " + std::to_string(before.first) + " to " +
               std::to_string(after.first);
    if (after.second > before.second)
        return "threads grew from " + std::to_string(before.second) + " to " + std::to_string(after.second) +
               " (at " + std::to_string(std::lround(base->seconds)) + " s: " + base->threadNames + "; at " +
               std::to_string(std::lround(samples_.back().seconds)) + " s: " + samples_.back().threadNames +
               ")";
    return std::nullopt;
}

} // namespace ovalto::tool
