#pragma once

#include "QOEManager/QOEReport.h"
#include "Utils/Guarded.h"
#include "nivora/Nivora.h"
#include "ovalto/PluginListener.h"

#include <cstdint>
#include <memory>
#include <mutex>

namespace ovalto {

namespace platform {
class Timer;
class View;
} // namespace platform
class PreAlertView;

// The listener behind a facade made with a plug-in: hands every manifest and fragment request
// and response to the plug-in's network hook (which may rewrite requests), accumulates the
// session's report and hands it to the plug-in's QoE hook on the interval the plug-in chooses,
// and shows the plug-in's pre-alerts on the overlay.
//
// Threads: the listener calls arrive on the threads of the resources and the player; the report
// timer fires on the main run loop. The report sits behind one lock; the plug-in's hooks are
// called without any lock held, so that a hook may call back (the interval listener does).
class QOEManager : public PluginListener, public std::enable_shared_from_this<QOEManager> {
public:
    using QOEReport = qoe::QOEReport;
    using DeviceInfo = qoe::DeviceInfo;
    using PlaybackInfo = qoe::PlaybackInfo;
    using Buffering = qoe::Buffering;
    using NetworkInfo = qoe::NetworkInfo;
    using Carrier = qoe::Carrier;
    using Track = qoe::Track;
    using Fragment = qoe::Fragment;

    // A manager with a fresh report of this machine.
    QOEManager();
    // A manager that continues `report` (tests give it a device of their own).
    explicit QOEManager(QOEReport report);
    ~QOEManager() override;

    void setNivora(std::weak_ptr<nivora::Nivora> nivora);
    // Creates the hidden overlay on which the plug-in's alerts appear, inside `view`.
    void setPreAlertView(const std::shared_ptr<platform::View>& view);
    std::shared_ptr<PreAlertView> preAlertView() const;

    void prepare(const platform::Url& url) override;
    void conclude() override;
    void onStartupTime(std::uint64_t time) override;
    void onBuffering(std::uint64_t current, std::uint64_t duration, std::int32_t bitrate) override;
    void onManifestRequest(RequestInfo& info) override;
    void onManifestResponse(ResponseInfo& info) override;
    void onFragmentRequest(RequestInfo& info) override;
    void onFragmentResponse(ResponseInfo& info) override;

    // Replaces the report timer; an interval of 0 or less leaves none, since a repeating timer
    // cannot fire without pause. The timer is made on the main queue.
    void createReportTimer(std::int32_t interval);
    // Stamps the report and hands it to the plug-in; start-up time and re-buffering start over.
    void report();
    void addFragment(Track track);

    static nivora::NetworkPlugin::Request toRequest(const RequestInfo& info);
    static void toRequestInfo(const nivora::NetworkPlugin::Request& request, RequestInfo& info);
    static nivora::NetworkPlugin::Response toResponse(const ResponseInfo& info);

    // Runs `f` on the report under its lock.
    template <class F> decltype(auto) withReport(F&& f) {
        std::lock_guard lock(reportMutex_);
        return std::forward<F>(f)(qoeReport_);
    }
    nivora::QOEPlugin::Configuration configuration() const { return configuration_.get(); }
    std::shared_ptr<platform::Timer> timer() const;

private:
    std::shared_ptr<nivora::NetworkPlugin> networkPlugin(const char* function, int line) const;
    std::shared_ptr<nivora::QOEPlugin> qoePlugin(const char* function, int line) const;
    void invalidateTimerLocked();

    Guarded<std::weak_ptr<nivora::Nivora>> nivora_;
    Guarded<std::shared_ptr<PreAlertView>> preAlertView_;
    Guarded<nivora::QOEPlugin::Configuration> configuration_;

    mutable std::mutex reportMutex_;
    QOEReport qoeReport_;

    // The timer and the number of the last createReportTimer/conclude, so that a timer whose
    // creation is still queued for the main queue is not made after it was replaced.
    mutable std::mutex timerMutex_;
    std::shared_ptr<platform::Timer> timer_;
    std::uint64_t timerGeneration_ = 0;
};

} // namespace ovalto
