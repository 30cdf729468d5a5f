#include "support/LogCapture.h"

#include "platform/SystemLog.h"

#include <algorithm>
#include <mutex>

namespace ovalto::test {

using platform::SystemLog;

struct LogCapture::State {
    mutable std::mutex mutex;
    std::vector<std::string> lines;
};

LogCapture::LogCapture()
    : state_(std::make_shared<State>())
    , previousEcho_(SystemLog::echoesToStandardError()) {
    SystemLog::setEchoToStandardError(false);
    token_ = SystemLog::addSink([state = state_](const std::string& line) {
        std::lock_guard lock(state->mutex);
        state->lines.push_back(line);
    });
}

LogCapture::~LogCapture() {
    SystemLog::removeSink(token_);
    SystemLog::setEchoToStandardError(previousEcho_);
}

std::vector<std::string> LogCapture::lines() const {
    std::lock_guard lock(state_->mutex);
    return state_->lines;
}

bool LogCapture::contains(std::string_view text) const {
    std::lock_guard lock(state_->mutex);
    return std::any_of(state_->lines.begin(), state_->lines.end(),
                       [&](const std::string& line) { return line.find(text) != std::string::npos; });
}

void LogCapture::clear() {
    std::lock_guard lock(state_->mutex);
    state_->lines.clear();
}

} // namespace ovalto::test
