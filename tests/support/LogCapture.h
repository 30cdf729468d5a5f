#pragma once

#include "Utils/Guarded.h"
#include "platform/SystemLog.h"

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace ovalto::test {

// Captures what is written to the system log while it lives, and keeps it off standard error.
// Safe to read while other threads log.
class LogCapture {
public:
    LogCapture() { platform::SystemLog::setEchoToStandardError(false); }
    ~LogCapture() {
        platform::SystemLog::removeSink(token_);
        platform::SystemLog::setEchoToStandardError(previousEcho_);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> lines() const { return lines_->get(); }
    // True when a captured line contains `text`.
    bool contains(std::string_view text) const {
        return lines_->with([&](const auto& lines) {
            return std::ranges::any_of(
                lines, [&](const std::string& line) { return line.find(text) != std::string::npos; });
        });
    }
    void clear() { lines_->set({}); }

private:
    // Shared with the installed sink, which may outlive a call in progress.
    std::shared_ptr<Guarded<std::vector<std::string>>> lines_ =
        std::make_shared<Guarded<std::vector<std::string>>>();
    bool previousEcho_ = platform::SystemLog::echoesToStandardError();
    int token_ = platform::SystemLog::addSink(
        [lines = lines_](const std::string& line) { lines->with([&](auto& all) { all.push_back(line); }); });
};

} // namespace ovalto::test
