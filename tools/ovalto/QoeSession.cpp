#include "QoeSession.h"

#include "PreAlert/PreAlertView.h"
#include "QOEManager/QOEManager.h"
#include "Timeline.h"
#include "nivora/reference/ReferenceNivora.h"
#include "platform/RunLoop.h"
#include "platform/View.h"

#include <cmath>
#include <cstdlib>

namespace ovalto::tool {

namespace {

// Hands each event to the QoE manager, then to the timeline.
class TeeListener : public PluginListener {
public:
    TeeListener(std::shared_ptr<PluginListener> first, std::shared_ptr<PluginListener> second)
        : first_(std::move(first))
        , second_(std::move(second)) {}

    void prepare(const platform::Url& url) override {
        first_->prepare(url);
        second_->prepare(url);
    }
    void conclude() override {
        first_->conclude();
        second_->conclude();
    }
    void onStartupTime(std::uint64_t time) override {
        first_->onStartupTime(time);
        second_->onStartupTime(time);
    }
    void onBuffering(std::uint64_t current, std::uint64_t duration, std::int32_t bitrate) override {
        first_->onBuffering(current, duration, bitrate);
        second_->onBuffering(current, duration, bitrate);
    }
    void onManifestRequest(RequestInfo& info) override {
        first_->onManifestRequest(info);
        second_->onManifestRequest(info);
    }
    void onManifestResponse(ResponseInfo& info) override {
        first_->onManifestResponse(info);
        second_->onManifestResponse(info);
    }
    void onFragmentRequest(RequestInfo& info) override {
        first_->onFragmentRequest(info);
        second_->onFragmentRequest(info);
    }
    void onFragmentResponse(ResponseInfo& info) override {
        first_->onFragmentResponse(info);
        second_->onFragmentResponse(info);
    }

private:
    std::shared_ptr<PluginListener> first_, second_;
};

std::optional<long> wholeNumber(const std::string& text) {
    char* end = nullptr;
    long value = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || value < 0 || value > 86'400'000) return std::nullopt;
    return value;
}

} // namespace

const char* QoeSession::usage =
    R"(  --qoe-interval S            send a QoE report every S seconds (whole seconds; 0: none)
  --qoe-out FILE              append each QoE report to FILE as one JSON line
  --qoe-post URL              POST each QoE report to a collector at URL
  --prealert-after MS         raise a pre-alert when a re-buffering period lasts longer than MS
  --prealert-png FILE         draw the pre-alert overlay to FILE (PNG) when an alert is shown)";

bool QoeSession::take(const std::string& arg, const std::string& value, std::string& error) {
    if (arg == "--qoe-interval" || arg == "--prealert-after") {
        auto number = wholeNumber(value);
        if (!number)
            error = arg + " takes a whole number, not '" + value + "'";
        else if (arg == "--qoe-interval")
            interval_ = static_cast<int>(*number);
        else
            preAlertAfterMs_ = *number;
        return true;
    }
    if (arg == "--qoe-out") {
        reportPath_ = value;
        return true;
    }
    if (arg == "--qoe-post") {
        if (!platform::Url::parse(value)) error = "--qoe-post takes a URL, not '" + value + "'";
        collectorUrl_ = value;
        return true;
    }
    if (arg == "--prealert-png") {
        pngPath_ = value;
        return true;
    }
    return false;
}

bool QoeSession::requested() const {
    return interval_ || reportPath_ || collectorUrl_ || pngPath_ || preAlertAfterMs_;
}

std::shared_ptr<PluginListener> QoeSession::listener(std::shared_ptr<PluginListener> timeline,
                                                     Timeline& out) {
    if (!requested()) return timeline;
    nivora::reference::ReferenceNivora::Options options;
    // Reports go out every second unless told otherwise, so that a short run still has some.
    options.qoe.interval = interval_.value_or(1);
    options.qoe.reportPath = reportPath_;
    options.qoe.collectorUrl = collectorUrl_;
    if (preAlertAfterMs_) options.qoe.preAlertAfterMs = *preAlertAfterMs_;
    nivora_ = std::make_shared<nivora::reference::ReferenceNivora>(std::move(options));
    manager_ = std::make_shared<QOEManager>();
    manager_->setNivora(nivora_);
    // The "screen" the video would play on; the overlay covers it.
    screen_ = platform::View::create({{0, 0}, {1280, 720}});
    screen_->setBackgroundColor({0.1, 0.1, 0.3, 1});
    manager_->setPreAlertView(screen_);
    if (pngPath_) watchOverlay(out);
    return std::make_shared<TeeListener>(manager_, std::move(timeline));
}

void QoeSession::watchOverlay(Timeline& out) {
    auto overlay = manager_->preAlertView();
    auto screen = screen_;
    auto path = *pngPath_;
    auto lastDrawn = std::make_shared<std::string>();
    // The overlay changes on the main queue; a look four times a second catches every alert,
    // which stays ten seconds.
    watcher_ = platform::Timer::scheduledTimer(
        std::chrono::milliseconds(250), true, [overlay, screen, path, lastDrawn, &out](platform::Timer&) {
            if (!overlay || overlay->isHidden()) return;
            const auto& text = overlay->attributedText().string();
            if (text == *lastDrawn) return;
            *lastDrawn = text;
            if (screen->writePNG(path))
                out.event("prealert", "overlay drawn to " + path, {{"png", path}, {"text", text}});
            else
                out.event("prealert", "cannot write " + path);
        });
}

QoeSession::~QoeSession() {
    if (watcher_) watcher_->invalidate();
}

void QoeSession::finish() {
    if (watcher_) watcher_->invalidate();
    if (nivora_ && collectorUrl_) nivora_->qoePlugin()->waitForPosts(std::chrono::seconds(10));
}

} // namespace ovalto::tool
