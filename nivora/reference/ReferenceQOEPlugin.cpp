#include "nivora/reference/ReferenceQOEPlugin.h"

#include "platform/SystemLog.h"
#include "platform/UrlSession.h"

#include <stdexcept>

namespace nivora::reference {

namespace {
void log(const std::string& text) {
    ovalto::platform::SystemLog::write("[nivora] " + text);
}
} // namespace

ReferenceQOEPlugin::ReferenceQOEPlugin(Options options)
    : options_(std::move(options)) {
    if (options_.reportPath) {
        file_.open(*options_.reportPath, std::ios::out | std::ios::app);
        if (!file_) log("cannot open " + *options_.reportPath + " for the reports");
    }
    if (options_.collectorUrl) session_ = ovalto::platform::UrlSession::create();
}

ReferenceQOEPlugin::~ReferenceQOEPlugin() {
    if (session_) session_->finishTasksAndInvalidate();
}

void ReferenceQOEPlugin::onConfiguration(Configuration& configuration) {
    configuration.interval = options_.interval;
    configuration.isDownloadOnly = true;
}

void ReferenceQOEPlugin::setOnIntervalListener(OnInterval onInterval) {
    std::lock_guard lock(mutex_);
    onInterval_ = std::move(onInterval);
}

void ReferenceQOEPlugin::setOnPreAlertListener(OnPreAlert onPreAlert) {
    std::lock_guard lock(mutex_);
    onPreAlert_ = std::move(onPreAlert);
}

void ReferenceQOEPlugin::onQOEEvent(const Dictionary& qoeReport) {
    const std::string line = qoeReport.dump(-1, ' ', false, Dictionary::error_handler_t::replace);
    OnPreAlert onPreAlert;
    {
        std::lock_guard lock(mutex_);
        if (options_.reportPath) {
            file_ << line << '\n' << std::flush;
            if (!file_) throw std::runtime_error("cannot write the report to " + *options_.reportPath);
        }
        ++reportsWritten_;
        onPreAlert = onPreAlert_;
    }
    if (options_.collectorUrl) post(line);

    if (!options_.preAlertAfterMs || !onPreAlert) return;
    const auto playback = qoeReport.find("playbackInfo");
    if (playback == qoeReport.end() || !playback->contains("buffering")) return;
    for (const auto& buffering : (*playback)["buffering"]) {
        const auto duration = buffering.value("duration", std::int64_t{0});
        if (duration > *options_.preAlertAfterMs) {
            onPreAlert(options_.alert, options_.view);
            return;
        }
    }
}

void ReferenceQOEPlugin::post(const std::string& line) {
    auto url = ovalto::platform::Url::parse(*options_.collectorUrl);
    if (!url) {
        log("the collector URL " + *options_.collectorUrl + " is not a URL");
        return;
    }
    ovalto::platform::UrlRequest request(*url, ovalto::platform::CachePolicy::reloadIgnoringLocalCacheData,
                                         30);
    request.httpMethod = "POST";
    request.httpBody = line;
    request.setValue("application/json", "Content-Type");
    {
        std::lock_guard lock(mutex_);
        ++pendingPosts_;
    }
    std::weak_ptr<ReferenceQOEPlugin> weak = weak_from_this();
    const std::string collector = *options_.collectorUrl;
    auto task = session_->dataTask(request, [weak, collector](
                                                auto, std::optional<ovalto::platform::UrlResponse> response,
                                                std::optional<ovalto::platform::Error> error) {
        const bool posted = !error && response && response->statusCode >= 200 && response->statusCode < 300;
        if (!posted)
            log("report not posted to " + collector + ": " +
                (error ? error->localizedDescription
                       : "status " + std::to_string(response ? response->statusCode : 0)));
        auto self = weak.lock();
        if (!self) return;
        std::lock_guard lock(self->mutex_);
        --self->pendingPosts_;
        if (!posted) ++self->postsFailed_;
        self->postsChanged_.notify_all();
    });
    task->resume();
}

bool ReferenceQOEPlugin::waitForPosts(std::chrono::steady_clock::duration timeout) {
    std::unique_lock lock(mutex_);
    return postsChanged_.wait_for(lock, timeout, [&] { return pendingPosts_ == 0; });
}

int ReferenceQOEPlugin::reportsWritten() const {
    std::lock_guard lock(mutex_);
    return reportsWritten_;
}

int ReferenceQOEPlugin::postsFailed() const {
    std::lock_guard lock(mutex_);
    return postsFailed_;
}

} // namespace nivora::reference
