#include "RetryReporter.h"

#include "platform/PlayerItem.h"

namespace ovalto::tool {

RetryReporter::RetryReporter(Timeline& timeline, std::shared_ptr<platform::PlayerItem> item)
    : timeline_(timeline)
    , item_(std::move(item)) {
    if (auto log = item_->errorLog()) seen_ = log->events.size();
    token_ = platform::NotificationCenter::defaultCenter().addObserver(
        platform::playerItemNewErrorLogEntryNotification, item_,
        [this](const platform::Notification&) { entryAdded(); });
}

RetryReporter::~RetryReporter() {
    platform::NotificationCenter::defaultCenter().removeObserver(token_);
}

void RetryReporter::entryAdded() {
    const auto log = item_->errorLog();
    if (!log) return;
    for (; seen_ < log->events.size(); ++seen_) {
        const auto& entry = log->events[seen_];
        if (entry.isFatal) continue; // the failure itself is reported when playback fails
        const bool stalled = entry.errorDomain == platform::playerErrorDomain;
        if (!stalled) ++retries_;
        const std::string uri = entry.URI.value_or("");
        timeline_.event(stalled ? "stalled" : "retry", uri + ": " + entry.errorComment.value_or(""),
                        {{"uri", uri},
                         {"status", entry.errorStatusCode},
                         {"domain", entry.errorDomain},
                         {"comment", entry.errorComment.value_or("")}});
    }
}

} // namespace ovalto::tool
