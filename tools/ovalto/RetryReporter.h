#pragma once

#include "Timeline.h"

#include "platform/NotificationCenter.h"

#include <atomic>
#include <memory>

namespace ovalto::platform {
class PlayerItem;
}

namespace ovalto::tool {

// Puts every non-fatal entry of an item's error log on the timeline as it arrives (a download
// the player tries again, a live playlist that stopped changing) and counts the retries.
class RetryReporter {
public:
    RetryReporter(Timeline& timeline, std::shared_ptr<platform::PlayerItem> item);
    ~RetryReporter();
    RetryReporter(const RetryReporter&) = delete;
    RetryReporter& operator=(const RetryReporter&) = delete;

    int retries() const { return retries_; }

private:
    void entryAdded();

    Timeline& timeline_;
    const std::shared_ptr<platform::PlayerItem> item_;
    platform::NotificationCenter::Token token_;
    std::size_t seen_ = 0; // entries of the log already looked at; only the player's thread adds
    std::atomic<int> retries_{0};
};

} // namespace ovalto::tool
