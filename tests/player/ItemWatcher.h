#pragma once

#include "platform/NotificationCenter.h"
#include "platform/PlayerItem.h"

#include <gtest/gtest.h>

#include <any>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ovalto::test {

// Records what an item reports, in order: observed changes ("status=readyToPlay",
// "playbackBufferEmpty=true", …) and notifications (by name), each with the clock at that moment.
class ItemWatcher {
public:
    struct Event {
        std::string what;
        double clock = 0;
        std::map<std::string, std::any> userInfo;
    };

    explicit ItemWatcher(std::shared_ptr<platform::PlayerItem> item)
        : item_(std::move(item)) {
        for (const char* path : {"status", "playbackLikelyToKeepUp", "playbackBufferFull",
                                 "playbackBufferEmpty", "loadedTimeRanges"}) {
            item_->addObserver(this, path, &context_,
                               [this](const std::string& keyPath, const platform::KeyValueChange& change,
                                      platform::PlayerItem::Context context) {
                                   EXPECT_EQ(context, &context_);
                                   record(keyPath + describe(change.newValue), {});
                               });
        }
        for (const char* name :
             {platform::playerItemDidPlayToEndTimeNotification, platform::playerItemTimeJumpedNotification,
              platform::playerItemFailedToPlayToEndTimeNotification,
              platform::playerItemNewAccessLogEntryNotification,
              platform::playerItemNewErrorLogEntryNotification}) {
            tokens_.push_back(platform::NotificationCenter::defaultCenter().addObserver(
                name, item_, [this](const platform::Notification& notification) {
                    record(notification.name, notification.userInfo);
                }));
        }
    }

    ~ItemWatcher() {
        for (const char* path : {"status", "playbackLikelyToKeepUp", "playbackBufferFull",
                                 "playbackBufferEmpty", "loadedTimeRanges"}) {
            item_->removeObserver(this, path, &context_);
        }
        for (auto token : tokens_)
            platform::NotificationCenter::defaultCenter().removeObserver(token);
    }

    std::vector<Event> events() const {
        std::lock_guard lock(mutex_);
        return events_;
    }
    bool saw(const std::string& what) const {
        for (const auto& event : events()) {
            if (event.what == what) return true;
        }
        return false;
    }
    // Polls `done` until it holds; the deadline only guards against a hang.
    static bool waitUntil(const std::function<bool()>& done,
                          std::chrono::seconds deadline = std::chrono::seconds(15)) {
        const auto end = std::chrono::steady_clock::now() + deadline;
        while (!done()) {
            if (std::chrono::steady_clock::now() > end) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }
    bool waitFor(const std::string& what, std::chrono::seconds deadline = std::chrono::seconds(15)) const {
        return waitUntil([&] { return saw(what); }, deadline);
    }

private:
    static std::string describe(const std::any& value) {
        if (const auto* status = std::any_cast<platform::PlayerItem::Status>(&value)) {
            switch (*status) {
            case platform::PlayerItem::Status::unknown:
                return "=unknown";
            case platform::PlayerItem::Status::readyToPlay:
                return "=readyToPlay";
            case platform::PlayerItem::Status::failed:
                return "=failed";
            }
        }
        if (const auto* flag = std::any_cast<bool>(&value)) return *flag ? "=true" : "=false";
        return "";
    }
    void record(std::string what, std::map<std::string, std::any> userInfo) {
        const double clock = item_->currentTime().seconds();
        std::lock_guard lock(mutex_);
        events_.push_back({std::move(what), clock, std::move(userInfo)});
    }

    std::shared_ptr<platform::PlayerItem> item_;
    int context_ = 0;
    mutable std::mutex mutex_;
    std::vector<Event> events_;
    std::vector<platform::NotificationCenter::Token> tokens_;
};

} // namespace ovalto::test
