#pragma once

#include "ovalto/PluginListener.h"

#include <memory>
#include <optional>
#include <string>

namespace nivora::reference {
class ReferenceNivora;
}

namespace ovalto {
class QOEManager;
namespace platform {
class Timer;
class View;
} // namespace platform
} // namespace ovalto

namespace ovalto::tool {

class Timeline;

// What `ovalto play` does for quality-of-experience reporting: the reference plug-in behind a
// QoE manager that sees every event beside the timeline, reports as JSON lines to a file and/or
// a collector, and a picture of the pre-alert overlay when one is shown.
class QoeSession {
public:
    static const char* usage;

    QoeSession() = default;
    QoeSession(QoeSession&&) = default;
    QoeSession& operator=(QoeSession&&) = default;
    // Stops looking at the overlay, which refers to the timeline.
    ~QoeSession();

    // Takes `arg` and its `value` when they are one of the QoE options; `error` says what is
    // wrong with a value.
    bool take(const std::string& arg, const std::string& value, std::string& error);
    bool requested() const;

    // The listener to prepare with: `timeline` alone, or with QoE requested a listener that hands
    // every event to the QoE manager first (so that the timeline shows what the plug-in changed).
    std::shared_ptr<PluginListener> listener(std::shared_ptr<PluginListener> timeline, Timeline& out);
    // After playback: the pictures and posts still due.
    void finish();

private:
    void watchOverlay(Timeline& out);

    std::optional<int> interval_;
    std::optional<std::string> reportPath_;
    std::optional<std::string> collectorUrl_;
    std::optional<std::string> pngPath_;
    std::optional<long> preAlertAfterMs_;

    std::shared_ptr<nivora::reference::ReferenceNivora> nivora_;
    std::shared_ptr<QOEManager> manager_;
    std::shared_ptr<platform::View> screen_;
    std::shared_ptr<platform::Timer> watcher_;
};

} // namespace ovalto::tool
