#include "platform/SystemLog.h"

#include "platform/NoDestructor.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unistd.h>
#include <vector>

namespace ovalto::platform {

namespace {

struct Sinks {
    // Recursive so that a sink may log or remove itself; held while sinks run so that a removed
    // sink is never called once removeSink() has returned.
    std::recursive_mutex mutex;
    std::map<int, std::shared_ptr<SystemLog::Sink>> sinks;
    int nextToken = 1;
    std::atomic<int> count{0};
    std::atomic<bool> echo{true};
};

Sinks& sinks() {
    static NoDestructor<Sinks> instance;
    return *instance;
}

// "2024-05-01T12:34:56.789+02:00": local time, so that lines match the machine's other logs.
void appendTimestamp(std::string& out) {
    auto now = std::chrono::system_clock::now();
    auto sinceEpoch = now.time_since_epoch();
    auto seconds = std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch);
    auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch - seconds).count();
    std::time_t t = seconds.count();
    std::tm local{};
    localtime_r(&t, &local);

    char buffer[64];
    std::size_t n = std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%S", &local);
    long offsetMinutes = local.tm_gmtoff / 60;
    char sign = offsetMinutes < 0 ? '-' : '+';
    if (offsetMinutes < 0) offsetMinutes = -offsetMinutes;
    std::snprintf(buffer + n, sizeof buffer - n, ".%03d%c%02ld:%02ld", static_cast<int>(millis), sign,
                  offsetMinutes / 60, offsetMinutes % 60);
    out += buffer;
}

void writeAll(int fd, const std::string& line) {
    const char* data = line.data();
    std::size_t left = line.size();
    // One write() for the whole line keeps lines of concurrent threads apart; the loop only
    // matters for a short write to a full pipe or an interrupted call.
    while (left > 0) {
        ssize_t written = ::write(fd, data, left);
        if (written < 0) {
            if (errno == EINTR) continue;
            return;
        }
        data += written;
        left -= static_cast<std::size_t>(written);
    }
}

} // namespace

void SystemLog::write(std::string_view text) {
    Sinks& registry = sinks();
    bool hasSinks = registry.count.load(std::memory_order_acquire) > 0;

    if (!hasSinks || registry.echo.load(std::memory_order_relaxed)) {
        std::string line;
        line.reserve(text.size() + 64);
        appendTimestamp(line);
        line += " ovalto[";
        line += std::to_string(::getpid());
        line += ':';
        line += std::to_string(::gettid());
        line += "] ";
        line += text;
        line += '\n';
        writeAll(STDERR_FILENO, line);
    }

    if (hasSinks) {
        std::string copy(text);
        std::lock_guard lock(registry.mutex);
        // A snapshot, so that a sink may add or remove sinks while it runs.
        std::vector<std::shared_ptr<Sink>> current;
        current.reserve(registry.sinks.size());
        for (const auto& [token, sink] : registry.sinks)
            current.push_back(sink);
        for (const auto& sink : current)
            (*sink)(copy);
    }
}

int SystemLog::addSink(Sink sink) {
    Sinks& registry = sinks();
    std::lock_guard lock(registry.mutex);
    int token = registry.nextToken++;
    registry.sinks.emplace(token, std::make_shared<Sink>(std::move(sink)));
    registry.count.store(static_cast<int>(registry.sinks.size()), std::memory_order_release);
    return token;
}

void SystemLog::removeSink(int token) {
    Sinks& registry = sinks();
    std::shared_ptr<Sink> removed;
    std::lock_guard lock(registry.mutex);
    auto it = registry.sinks.find(token);
    if (it == registry.sinks.end()) return;
    removed = std::move(it->second);
    registry.sinks.erase(it);
    registry.count.store(static_cast<int>(registry.sinks.size()), std::memory_order_release);
}

void SystemLog::setEchoToStandardError(bool echo) {
    sinks().echo.store(echo, std::memory_order_relaxed);
}

bool SystemLog::echoesToStandardError() {
    return sinks().echo.load(std::memory_order_relaxed);
}

} // namespace ovalto::platform
