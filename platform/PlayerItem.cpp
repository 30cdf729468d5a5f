#include "platform/PlayerItem.h"

#include "platform/Asset.h"
#include "platform/NotificationCenter.h"

#include <algorithm>
#include <cstdio>
#include <random>

namespace ovalto::platform {

struct PlayerItem::Key {};

namespace {

std::string newSessionId() {
    std::random_device device;
    std::mt19937_64 generator((static_cast<std::uint64_t>(device()) << 32) ^ device());
    const std::uint64_t high = generator();
    const std::uint64_t low = generator();
    char text[40];
    std::snprintf(text, sizeof text, "%08llX-%04llX-%04llX-%04llX-%012llX",
                  static_cast<unsigned long long>(high >> 32),
                  static_cast<unsigned long long>((high >> 16) & 0xffff),
                  static_cast<unsigned long long>(high & 0xffff), static_cast<unsigned long long>(low >> 48),
                  static_cast<unsigned long long>(low & 0xffffffffffffULL));
    return text;
}

bool sameRanges(const std::vector<TimeRange>& a, const std::vector<TimeRange>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const TimeRange& x, const TimeRange& y) {
        return x.start == y.start && x.duration == y.duration;
    });
}

} // namespace

std::shared_ptr<PlayerItem> PlayerItem::create(std::shared_ptr<Asset> asset) {
    return std::make_shared<PlayerItem>(Key{}, std::move(asset));
}

PlayerItem::PlayerItem(const Key&, std::shared_ptr<Asset> asset)
    : asset_(std::move(asset))
    , playbackSessionID_(newSessionId()) {}

PlayerItem::Status PlayerItem::status() const {
    std::lock_guard lock(mutex_);
    return status_;
}

std::optional<Error> PlayerItem::error() const {
    std::lock_guard lock(mutex_);
    return error_;
}

bool PlayerItem::isPlaybackLikelyToKeepUp() const {
    std::lock_guard lock(mutex_);
    return likelyToKeepUp_;
}

bool PlayerItem::isPlaybackBufferFull() const {
    std::lock_guard lock(mutex_);
    return bufferFull_;
}

bool PlayerItem::isPlaybackBufferEmpty() const {
    std::lock_guard lock(mutex_);
    return bufferEmpty_;
}

std::vector<TimeRange> PlayerItem::loadedTimeRanges() const {
    std::lock_guard lock(mutex_);
    return loadedTimeRanges_;
}

double PlayerItem::clockSeconds() const {
    std::lock_guard lock(mutex_);
    double seconds = clock_.anchor;
    if (clock_.rate != 0) {
        const double elapsed =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - clock_.wall).count();
        seconds = std::min(clock_.anchor + elapsed * clock_.rate, std::max(clock_.limit, clock_.anchor));
    }
    return seconds;
}

MediaTime PlayerItem::currentTime() const {
    return MediaTime::makeWithSeconds(clockSeconds(), 1000);
}

MediaTime PlayerItem::duration() const {
    std::lock_guard lock(mutex_);
    return duration_;
}

std::optional<AccessLog> PlayerItem::accessLog() const {
    std::lock_guard lock(mutex_);
    return accessLog_;
}

std::optional<ErrorLog> PlayerItem::errorLog() const {
    std::lock_guard lock(mutex_);
    return errorLog_;
}

void PlayerItem::addObserver(const void* observer, const std::string& keyPath, Context context,
                             Observer callback) {
    auto registration = std::make_shared<Registration>();
    registration->observer = observer;
    registration->keyPath = keyPath;
    registration->context = context;
    registration->callback = std::move(callback);
    std::lock_guard lock(mutex_);
    observers_.push_back(std::move(registration));
}

void PlayerItem::removeObserver(const void* observer, const std::string& keyPath, Context context) {
    std::shared_ptr<Registration> removed;
    {
        std::lock_guard lock(mutex_);
        // One registration per call, the latest first, as observers pair additions with removals.
        auto found = std::find_if(observers_.rbegin(), observers_.rend(), [&](const auto& registration) {
            return registration->observer == observer && registration->keyPath == keyPath &&
                   registration->context == context;
        });
        if (found == observers_.rend()) return;
        removed = *found;
        observers_.erase(std::next(found).base());
    }
    // Waits for a delivery in progress on the player's thread, so the observer may go afterwards.
    std::lock_guard delivering(removed->delivering);
    removed->removed = true;
}

void PlayerItem::select(const MediaSelectionOption& option, const MediaSelectionGroup& group) {
    if (option.characteristic != group.characteristic ||
        std::find(group.options.begin(), group.options.end(), option) == group.options.end()) {
        return;
    }
    std::function<void(MediaCharacteristic)> handler;
    {
        std::lock_guard lock(mutex_);
        selections_[group.characteristic] = option.displayName;
        handler = selectionHandler_;
    }
    if (handler) handler(group.characteristic);
}

std::optional<MediaSelectionOption> PlayerItem::selectedMediaOption(const MediaSelectionGroup& group) const {
    const auto name = selectedName(group.characteristic);
    if (!name) return group.defaultOption;
    auto found =
        std::find_if(group.options.begin(), group.options.end(),
                     [&](const MediaSelectionOption& option) { return option.displayName == *name; });
    if (found == group.options.end()) return group.defaultOption;
    return *found;
}

std::optional<std::string> PlayerItem::selectedName(MediaCharacteristic characteristic) const {
    std::lock_guard lock(mutex_);
    auto found = selections_.find(characteristic);
    if (found == selections_.end()) return std::nullopt;
    return found->second;
}

double PlayerItem::preferredPeakBitRate() const {
    std::lock_guard lock(mutex_);
    return preferredPeakBitRate_;
}

void PlayerItem::setPreferredPeakBitRate(double bitsPerSecond) {
    std::lock_guard lock(mutex_);
    preferredPeakBitRate_ = std::max(0.0, bitsPerSecond);
}

double PlayerItem::preferredForwardBufferDuration() const {
    std::lock_guard lock(mutex_);
    return preferredForwardBufferDuration_;
}

void PlayerItem::setPreferredForwardBufferDuration(double seconds) {
    std::lock_guard lock(mutex_);
    preferredForwardBufferDuration_ = std::max(0.0, seconds);
}

void PlayerItem::announceStatus(Status status, std::optional<Error> error) {
    Status old;
    {
        std::lock_guard lock(mutex_);
        old = status_;
        status_ = status;
        if (error) error_ = std::move(error);
    }
    // Announced even when unchanged: a second readyToPlay tells that playback resumed.
    notify("status", old, status);
}

void PlayerItem::setBool(const char* keyPath, bool value) {
    const std::string path = keyPath;
    bool old;
    {
        std::lock_guard lock(mutex_);
        bool& field = path == "playbackLikelyToKeepUp" ? likelyToKeepUp_
                      : path == "playbackBufferFull"   ? bufferFull_
                                                       : bufferEmpty_;
        old = field;
        if (old == value) return;
        field = value;
    }
    notify(path, old, value);
}

void PlayerItem::setLoadedTimeRanges(std::vector<TimeRange> ranges) {
    std::vector<TimeRange> old;
    {
        std::lock_guard lock(mutex_);
        if (sameRanges(loadedTimeRanges_, ranges)) return;
        old = std::exchange(loadedTimeRanges_, ranges);
    }
    notify("loadedTimeRanges", old, ranges);
}

void PlayerItem::setClock(const Clock& clock) {
    std::lock_guard lock(mutex_);
    clock_ = clock;
}

void PlayerItem::setDuration(MediaTime duration) {
    std::lock_guard lock(mutex_);
    duration_ = duration;
}

void PlayerItem::addAccessLogEvent(AccessLogEvent event) {
    {
        std::lock_guard lock(mutex_);
        if (!accessLog_) accessLog_.emplace();
        accessLog_->events.push_back(std::move(event));
    }
    post(playerItemNewAccessLogEntryNotification);
}

void PlayerItem::updateAccessLogEvent(const std::function<void(AccessLogEvent&)>& update) {
    std::lock_guard lock(mutex_);
    if (accessLog_ && !accessLog_->events.empty()) update(accessLog_->events.back());
}

void PlayerItem::addErrorLogEvent(ErrorLogEvent event) {
    {
        std::lock_guard lock(mutex_);
        if (!errorLog_) errorLog_.emplace();
        errorLog_->events.push_back(std::move(event));
    }
    post(playerItemNewErrorLogEntryNotification);
}

void PlayerItem::setSelectionHandler(std::function<void(MediaCharacteristic)> handler) {
    std::lock_guard lock(mutex_);
    selectionHandler_ = std::move(handler);
}

void PlayerItem::post(const char* name, std::map<std::string, std::any> userInfo) {
    NotificationCenter::defaultCenter().post(name, shared_from_this(), std::move(userInfo));
}

void PlayerItem::notify(const std::string& keyPath, const std::any& oldValue, const std::any& newValue) {
    std::vector<std::shared_ptr<Registration>> matching;
    {
        std::lock_guard lock(mutex_);
        for (const auto& registration : observers_) {
            if (registration->keyPath == keyPath) matching.push_back(registration);
        }
    }
    const KeyValueChange change{oldValue, newValue};
    for (const auto& registration : matching) {
        std::lock_guard delivering(registration->delivering);
        if (!registration->removed) registration->callback(keyPath, change, registration->context);
    }
}

} // namespace ovalto::platform
