#pragma once

#include "ovalto/ConfigurationKey.h"
#include "ovalto/Cue.h"
#include "ovalto/EdgeServer.h"
#include "ovalto/MediaType.h"
#include "ovalto/OVALog.h"
#include "ovalto/PluginListener.h"
#include "platform/MediaTime.h"
#include "platform/Url.h"

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace nivora {
class Nivora;
}

namespace ovalto {

namespace platform {
class PlayerItem;
class View;
} // namespace platform
class OvaltoInternal;

// Module constants.
inline constexpr double OvaltoVersionNumber = 1.0;
inline constexpr char OvaltoVersionString[] = "@(#)PROGRAM:Ovalto  PROJECT:Ovalto-1\n";

// The object an application talks to. Fill `configurations`, call prepare(), wait for
// OvaltoPreparationNotification (or OvaltoErrorNotification) with this object as the
// notification's object, then play playerItem() with a player. Releasing the last reference ends
// the session: the listener is concluded and the engine reset. Nothing here throws; failures
// arrive as error notifications.
class Ovalto : public std::enable_shared_from_this<Ovalto> {
public:
    using MediaType = ovalto::MediaType;
    using MimeType = ovalto::MimeType;

    // Threshold of OVALog; lines below it are dropped. The value lives with the log.
    static inline std::atomic<OVALogLevel>& logLevel = OVALogThreshold;
    static inline std::string version = "1.0.0";
    // Result slot of the host application's own integrity check; the library never reads it.
    static inline std::atomic<bool> isJailBroken{false};

    // A facade without a listener.
    static std::shared_ptr<Ovalto> create();
    // A facade that reports every network step, start-up time and re-buffering to `listener`.
    static std::shared_ptr<Ovalto> create(std::shared_ptr<PluginListener> listener);
    // A facade whose QoE manager hands requests, responses and reports to the plug-in library
    // `nivora` (held weakly: the application keeps it).
    static std::shared_ptr<Ovalto> create(const std::shared_ptr<nivora::Nivora>& nivora);
    ~Ovalto();
    Ovalto(const Ovalto&) = delete;
    Ovalto& operator=(const Ovalto&) = delete;

    // The application's configuration; copied into the engine at each prepare().
    Configurations configurations;

    // Prepares `url` for playback: HLS through the library, anything else directly. Returns at
    // once; the outcome is a notification on the default centre with this object, exactly one per
    // call. A call while an earlier preparation is still loading replaces it: the earlier one then
    // ends with what the later asset gives, and only the later item stays observed.
    void prepare(const platform::Url& url, const std::optional<Headers>& customHeaders = std::nullopt);
    // The item of the last successful preparation; null before.
    std::shared_ptr<platform::PlayerItem> playerItem();
    // The titles of the prepared item's renditions of `type`, in the order selectTrack() takes.
    std::vector<std::string> tracks(MediaType type);
    void selectTrack(long index, MediaType type);
    // Removes a stored persistable content key.
    static void deleteLicense(const std::string& assetId);
    // The delivery servers segments are redirected to; empty, and not settable, before prepare().
    EdgeList edgeList();
    void setEdgeList(EdgeList edgeList);
    // The plug-in the QoE manager reports to from now on; nothing without a QoE manager.
    void setNivora(const std::shared_ptr<nivora::Nivora>& nivora);
    // The view inside which the plug-in's pre-alerts appear (on an overlay of the same size).
    void setPreAlertView(const std::shared_ptr<platform::View>& preAlertView);

    // Side-car subtitles. A document (file or http(s) URL; MIME types "application/x-subrip",
    // "text/vtt", "application/xml+nttml", "application/nttml+xml", "application/smil+xml",
    // "application/x-ass") is read in the background and replaces any earlier one; an unknown
    // MIME type is ignored. While an item plays, the callbacks receive the text (empty: clear the
    // display) and the cue that start at the item's current time, a hundred times a second, on a
    // background thread, never on the main one. Delivery runs from the last preparation on:
    // add the source after prepare() has succeeded.
    void addTimedTextSource(const platform::Url& url, const std::string& mimeType);
    void
    setOnTimedText(std::function<void(const platform::MediaTime& time, const std::string& text)> onTimedText);
    void setOnTimedTextCue(std::function<void(const std::shared_ptr<Cue>& cue)> onTimedTextCue);

    struct Key;
    Ovalto(const Key&, std::shared_ptr<PluginListener> listener);

private:
    friend struct OvaltoAccess;
    std::shared_ptr<OvaltoInternal> impl();

    std::shared_ptr<PluginListener> listener_;
    std::shared_ptr<OvaltoInternal> impl_;
};

} // namespace ovalto
