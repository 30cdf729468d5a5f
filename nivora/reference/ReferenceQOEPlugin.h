#pragma once

#include "nivora/QOEPlugin.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace ovalto::platform {
class UrlSession;
}

namespace nivora::reference {

// Keeps every report: one JSON line per report in a file, and/or a POST of the same line to a
// collector. The line is written before the post, so a collector that is down loses nothing the
// file keeps; a failed post is logged. Raises a pre-alert when a report shows a re-buffering
// period longer than a threshold.
class ReferenceQOEPlugin : public QOEPlugin, public std::enable_shared_from_this<ReferenceQOEPlugin> {
public:
    struct Options {
        std::int32_t interval = 0;               // seconds between reports
        std::optional<std::string> reportPath;   // JSON lines appended here
        std::optional<std::string> collectorUrl; // each report POSTed here
        std::optional<std::int64_t> preAlertAfterMs;
        QOEHighlyCriticalInfo alert{"Playback is unstable", "再生が不安定です",
                                    "The network is slower than the video needs"};
        QOEViewInfo view{"UNDER_RIGHT",
                         {true, false, 18, "#FFFFFF", false},
                         {false, false, 15, "#FFCC00", false},
                         {false, true, 10, "#CCCCCC", true}};
    };

    explicit ReferenceQOEPlugin(Options options);
    ~ReferenceQOEPlugin() override;

    void onConfiguration(Configuration& configuration) override;
    void setOnIntervalListener(OnInterval onInterval) override;
    void setOnPreAlertListener(OnPreAlert onPreAlert) override;
    // Throws when the report file cannot be written.
    void onQOEEvent(const Dictionary& qoeReport) override;

    // Waits until the posts under way have finished; false when `timeout` passed first.
    bool waitForPosts(std::chrono::steady_clock::duration timeout);
    int reportsWritten() const;
    int postsFailed() const;

private:
    void post(const std::string& line);

    const Options options_;
    std::shared_ptr<ovalto::platform::UrlSession> session_;
    mutable std::mutex mutex_;
    std::condition_variable postsChanged_;
    std::ofstream file_;
    OnInterval onInterval_;
    OnPreAlert onPreAlert_;
    int pendingPosts_ = 0;
    int reportsWritten_ = 0;
    int postsFailed_ = 0;
};

} // namespace nivora::reference
