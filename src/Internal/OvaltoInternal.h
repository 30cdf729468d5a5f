#pragma once

#include "PlayList/Fragment.h"
#include "PlayList/RewrittenUrl.h"
#include "Resources/ErrorSink.h"
#include "Resources/OVAResourceLoader.h"
#include "TimedText/TimedText.h"
#include "Utils/Guarded.h"
#include "ovalto/ConfigurationKey.h"
#include "ovalto/MediaType.h"
#include "ovalto/PluginListener.h"
#include "platform/Asset.h"
#include "platform/DispatchQueue.h"
#include "platform/NotificationCenter.h"
#include "platform/PlayerItem.h"
#include "platform/RunLoop.h"

#include <any>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace ovalto {

class Ovalto;

// The engine behind the facade: prepares an asset for a URL (through the resource loader for
// HLS), creates and observes the player item, measures start-up time, re-buffering and each
// fragment's download, and lists and selects tracks.
//
// Threads: prepare() runs on the caller's thread and then on `apiQueue`; the platform calls the
// resource loader on `resourceQueue`; prepareInternal() and the item's creation run on the main
// queue; observations arrive on the player's thread and fragment accounting on the threads that
// serve segments. Every field is guarded so that those threads may meet.
class OvaltoInternal : public ErrorSink, public std::enable_shared_from_this<OvaltoInternal> {
public:
    enum class State { unknown, prepare, start, stop, seek };

    static inline const char* masterUrlString = RewrittenUrl::master;
    static constexpr const char* observedKeyPaths[] = {
        "status", "playbackLikelyToKeepUp", "playbackBufferFull", "playbackBufferEmpty", "loadedTimeRanges"};

    // `ovalto` is the facade, held without ownership: it is the object of the notifications, and
    // releasing it ends the session.
    static std::shared_ptr<OvaltoInternal> create(std::weak_ptr<Ovalto> ovalto);
    ~OvaltoInternal() override;

    void prepare(const platform::Url& url, const std::optional<Headers>& customHeaders);
    void prepareInternal(const std::vector<std::string>& keys);
    void reset();
    void notify(const platform::Error& error) override;

    // Observation of the player item.
    void addObservers();
    void addNotifications();
    void removeNotifications();
    void observeValue(const std::string& keyPath, const platform::KeyValueChange& change);
    void onAccessLogEvent(const std::any& fragment);

    // Tracks of the prepared item.
    std::vector<std::string> tracks(MediaType type);
    void selectTrack(long index, MediaType type);

    Guarded<std::weak_ptr<Ovalto>> ovalto;
    Guarded<std::shared_ptr<platform::Asset>> asset;
    Guarded<std::shared_ptr<platform::PlayerItem>> playerItem;
    Guarded<std::shared_ptr<OVAResourceLoader>> resourceLoader;
    Guarded<std::weak_ptr<PluginListener>> pluginListener;
    const platform::Url masterUrl;
    Guarded<std::optional<Configurations>> configurations;
    Guarded<State> state{State::unknown};
    const std::shared_ptr<platform::DispatchQueue> apiQueue;
    const std::shared_ptr<platform::DispatchQueue> resourceQueue;
    Guarded<std::optional<std::chrono::system_clock::time_point>> date;
    Guarded<std::optional<platform::AccessLogEvent>> lastAccessLogEvent;
    Guarded<std::shared_ptr<Fragment>> lastFragment;
    Guarded<std::shared_ptr<platform::Timer>> timer;

    // Side-car subtitles: a source is parsed on the global queue and then polled by a 100 Hz
    // timer on the main run loop, whose ticks look the item's current time up on the global queue
    // (OvaltoInternalTimedText.cpp). A parser is installed only once its parse has finished, so a
    // tick never reads a table that is being filled.
    using TimedTextHandler = std::function<void(const platform::MediaTime& time, const std::string& text)>;
    using TimedTextCueHandler = std::function<void(const std::shared_ptr<Cue>& cue)>;
    void addTimedTextSource(const platform::Url& url, MimeType mimeType);
    void createTimer(double interval);
    void periodicTime();
    // One tick's lookups, on the calling thread.
    void deliverTimedText();
    Guarded<std::shared_ptr<const TimedText>> timedText;
    // Shared, so that a tick takes them without copying the closures.
    Guarded<std::shared_ptr<const TimedTextHandler>> onTimedText;
    Guarded<std::shared_ptr<const TimedTextCueHandler>> onTimedTextCue;

    struct Key;
    OvaltoInternal(const Key&, std::weak_ptr<Ovalto> ovalto);

private:
    void prepareWork(const platform::Url& url, const std::string& scheme,
                     const std::optional<Headers>& customHeaders);
    // Runs prepareInternal() on the main queue once `loading` (or the asset that replaced it) has
    // loaded.
    void finishWhenLoaded(const std::shared_ptr<platform::Asset>& loading);
    void postToFacade(const char* name, std::map<std::string, std::any> userInfo = {});
    void observeStatus(const platform::KeyValueChange& change);

    // The key-value observation context of this engine.
    const void* playerItemContext() const { return &playerItemContextToken_; }
    const int playerItemContextToken_ = 0;
    // The item whose observers and notifications are installed (reset() removes them there).
    Guarded<std::shared_ptr<platform::PlayerItem>> observedItem_;
    Guarded<std::vector<platform::NotificationCenter::Token>> notificationTokens_;
    // Fragment accounting reads and replaces the last access-log pair as one step.
    std::mutex accessLogMutex_;
    // The number of the latest timed-text source: an earlier parse that ends later is dropped.
    std::atomic<std::uint64_t> timedTextSources_{0};
    // Moves on at every reset(), so that a timer whose creation was already queued is not made.
    std::atomic<std::uint64_t> timerGeneration_{0};
};

} // namespace ovalto
