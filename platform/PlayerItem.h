#pragma once

#include "platform/Error.h"
#include "platform/MediaSelectionGroup.h"
#include "platform/MediaTime.h"

#include <any>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace ovalto::platform {

class Asset;

// Posted on NotificationCenter::defaultCenter() with the item as object, on the player's thread.
inline constexpr const char* playerItemDidPlayToEndTimeNotification = "PlayerItemDidPlayToEndTime";
inline constexpr const char* playerItemTimeJumpedNotification = "PlayerItemTimeJumped";
// userInfo[playerItemFailedToPlayToEndTimeErrorKey] holds the Error.
inline constexpr const char* playerItemFailedToPlayToEndTimeNotification = "PlayerItemFailedToPlayToEndTime";
inline constexpr const char* playerItemFailedToPlayToEndTimeErrorKey =
    "PlayerItemFailedToPlayToEndTimeErrorKey";
inline constexpr const char* playerItemNewAccessLogEntryNotification = "PlayerItemNewAccessLogEntry";
inline constexpr const char* playerItemNewErrorLogEntryNotification = "PlayerItemNewErrorLogEntry";

// Errors the player raises itself (a playlist it cannot read, a presentation it cannot play).
inline constexpr const char* playerErrorDomain = "PlayerErrorDomain";

struct TimeRange {
    MediaTime start;
    MediaTime duration;
};

// What was downloaded while one variant played. Counters add up within the event.
struct AccessLogEvent {
    std::int64_t numberOfMediaRequests = 0; // segments and initialisation sections
    std::int64_t numberOfBytesTransferred = 0;
    double transferDuration = 0; // seconds spent on those requests
    double indicatedBitrate = 0; // the variant's BANDWIDTH
    double observedBitrate = 0;
    std::int64_t numberOfStalls = 0;
    std::optional<std::string> serverAddress;
    std::optional<std::string> URI; // the variant's playlist
    std::optional<std::string> playbackSessionID;
    std::optional<std::chrono::system_clock::time_point> playbackStartDate;
};

struct AccessLog {
    std::vector<AccessLogEvent> events;
};

// One failed request or playback failure.
struct ErrorLogEvent {
    std::optional<std::chrono::system_clock::time_point> date;
    std::optional<std::string> URI;
    std::optional<std::string> serverAddress;
    std::optional<std::string> playbackSessionID;
    std::int64_t errorStatusCode = 0; // the HTTP status, or the error's code
    std::string errorDomain;
    std::optional<std::string> errorComment;
    // False when playback goes on: the player tries the download again, or keeps reading a live
    // playlist that has stopped changing.
    bool isFatal = true;
};

struct ErrorLog {
    std::vector<ErrorLogEvent> events;
};

// A change of an observed property. Values: "status" a PlayerItem::Status, the three buffer
// properties a bool, "loadedTimeRanges" a std::vector<TimeRange>.
struct KeyValueChange {
    std::any oldValue;
    std::any newValue;
};

class PlaybackSession;

// The playback state of one asset: what a player reports about playing it. A Player drives it;
// on its own it does nothing. Observers and notifications arrive on the player's thread, at the
// moment of the change; the getters may be called from any thread.
class PlayerItem : public std::enable_shared_from_this<PlayerItem> {
public:
    enum class Status { unknown, readyToPlay, failed };
    using Context = const void*;
    using Observer =
        std::function<void(const std::string& keyPath, const KeyValueChange& change, Context context)>;

    static std::shared_ptr<PlayerItem> create(std::shared_ptr<Asset> asset);

    const std::shared_ptr<Asset>& asset() const { return asset_; }

    Status status() const;
    std::optional<Error> error() const;
    bool isPlaybackLikelyToKeepUp() const;
    bool isPlaybackBufferFull() const;
    bool isPlaybackBufferEmpty() const;
    std::vector<TimeRange> loadedTimeRanges() const;
    // The playback clock. It only moves while the player plays and media is buffered.
    MediaTime currentTime() const;
    // Indefinite for a live presentation, invalid until known.
    MediaTime duration() const;
    // None until the first event.
    std::optional<AccessLog> accessLog() const;
    std::optional<ErrorLog> errorLog() const;
    const std::string& playbackSessionID() const { return playbackSessionID_; }

    // Key paths: "status", "playbackLikelyToKeepUp", "playbackBufferFull", "playbackBufferEmpty",
    // "loadedTimeRanges". `observer` and `context` identify the registration for removal. Once
    // removeObserver returns, the callback is not running and will not run again (unless the
    // callback removes itself, which returns at once).
    void addObserver(const void* observer, const std::string& keyPath, Context context, Observer callback);
    void removeObserver(const void* observer, const std::string& keyPath, Context context);

    // Plays `option` for its characteristic from now on.
    void select(const MediaSelectionOption& option, const MediaSelectionGroup& group);
    std::optional<MediaSelectionOption> selectedMediaOption(const MediaSelectionGroup& group) const;

    // Variants above this bandwidth (bits per second) are not chosen; 0: no limit.
    double preferredPeakBitRate() const;
    void setPreferredPeakBitRate(double bitsPerSecond);
    // How much media the player keeps ahead of the clock; 0: its own choice.
    double preferredForwardBufferDuration() const;
    void setPreferredForwardBufferDuration(double seconds);

    struct Key;
    PlayerItem(const Key&, std::shared_ptr<Asset> asset);

private:
    friend class PlaybackSession;

    struct Registration {
        const void* observer;
        std::string keyPath;
        Context context;
        Observer callback;
        std::recursive_mutex delivering; // held while the callback runs
        bool removed = false;            // under `delivering`
    };
    struct Clock {
        double anchor = 0; // media seconds at `wall`
        std::chrono::steady_clock::time_point wall;
        double rate = 0;  // 0 while the clock stands
        double limit = 0; // the clock never passes buffered media
    };

    // Player side. The setters notify observers on the calling thread.
    void announceStatus(Status status, std::optional<Error> error = {});
    void setBool(const char* keyPath, bool value);
    void setLoadedTimeRanges(std::vector<TimeRange> ranges);
    void setClock(const Clock& clock);
    double clockSeconds() const;
    void setDuration(MediaTime duration);
    void addAccessLogEvent(AccessLogEvent event);
    void updateAccessLogEvent(const std::function<void(AccessLogEvent&)>& update);
    void addErrorLogEvent(ErrorLogEvent event);
    void setSelectionHandler(std::function<void(MediaCharacteristic)> handler);
    std::optional<std::string> selectedName(MediaCharacteristic characteristic) const;
    void post(const char* name, std::map<std::string, std::any> userInfo = {});
    void notify(const std::string& keyPath, const std::any& oldValue, const std::any& newValue);

    const std::shared_ptr<Asset> asset_;
    const std::string playbackSessionID_;

    mutable std::mutex mutex_;
    Status status_ = Status::unknown;
    std::optional<Error> error_;
    bool likelyToKeepUp_ = false;
    bool bufferFull_ = false;
    bool bufferEmpty_ = true;
    std::vector<TimeRange> loadedTimeRanges_;
    Clock clock_;
    MediaTime duration_;
    std::optional<AccessLog> accessLog_;
    std::optional<ErrorLog> errorLog_;
    std::map<MediaCharacteristic, std::string> selections_; // option display names
    std::function<void(MediaCharacteristic)> selectionHandler_;
    double preferredPeakBitRate_ = 0;
    double preferredForwardBufferDuration_ = 0;
    std::vector<std::shared_ptr<Registration>> observers_;
};

} // namespace ovalto::platform
