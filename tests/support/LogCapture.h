#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace ovalto::test {

// Captures what is written to the system log while it lives, and keeps it off standard error.
// Safe to read while other threads log.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> lines() const;
    // True when a captured line contains `text`.
    bool contains(std::string_view text) const;
    void clear();

private:
    struct State;
    // Shared with the installed sink.
    std::shared_ptr<State> state_;
    int token_ = 0;
    bool previousEcho_ = true;
};

} // namespace ovalto::test
