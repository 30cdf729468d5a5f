#pragma once

#include "PlayList/Fragment.h"
#include "Resources/ErrorSink.h"
#include "Resources/OVAResourceLoader.h"
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
#include <chrono>
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

    static inline const char* masterUrlString = "cplp://local/master.m3u8";
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
};

} // namespace ovalto
