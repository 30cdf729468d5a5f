#include "QOEManager/QOEManager.h"

#include "PreAlert/PreAlertView.h"
#include "ovalto/Notifications.h"
#include "ovalto/OVALog.h"
#include "platform/DispatchQueue.h"
#include "platform/NotificationCenter.h"
#include "platform/RunLoop.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <exception>
#include <limits>

namespace ovalto {

namespace {

constexpr const char* pluginNotFound = "plugin not found";

std::int32_t clampToInt32(std::int64_t value) {
    constexpr auto low = std::numeric_limits<std::int32_t>::min(),
                   high = std::numeric_limits<std::int32_t>::max();
    return static_cast<std::int32_t>(value < low ? low : value > high ? high : value);
}

// The count of a time in its own timescale (milliseconds as the engine fills them).
std::int32_t milliseconds(const std::optional<platform::MediaTime>& time) {
    return time ? clampToInt32(time->value) : 0;
}

nivora::MediaType mediaType(const std::optional<std::string>& type) {
    return nivora::makeMediaType(type.value_or("")).value_or(nivora::MediaType::video);
}

std::string describe(const std::optional<std::int64_t>& value) {
    return value ? "Optional(" + std::to_string(*value) + ")" : "nil";
}

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

std::string describe(const nivora::QOEHighlyCriticalInfo& info) {
    return "QOEHighlyCriticalInfo(firstText: " + quoted(info.firstText) +
           ", secondText: " + quoted(info.secondText) + ", thirdText: " + quoted(info.thirdText) + ")";
}

std::string describe(const nivora::QOEViewInfo::ViewDetailInfo& detail) {
    auto flag = [](bool value) { return value ? "true" : "false"; };
    return std::string("ViewDetailInfo(isBold: ") + flag(detail.isBold) +
           ", isItalic: " + flag(detail.isItalic) +
           ", fontSizePercent: " + std::to_string(detail.fontSizePercent) +
           ", colorHex: " + quoted(detail.colorHex) + ", isUnderlined: " + flag(detail.isUnderlined) + ")";
}

std::string describe(const nivora::QOEViewInfo& info) {
    return "QOEViewInfo(position: " + quoted(info.position) + ", firstDetail: " + describe(info.firstDetail) +
           ", secondDetail: " + describe(info.secondDetail) + ", thirdDetail: " + describe(info.thirdDetail) +
           ")";
}

// The text of an exception a hook threw, as a localized description.
std::string describeCurrentException() {
    try {
        throw;
    } catch (const std::exception& error) {
        return error.what();
    } catch (...) {
        return "unknown error";
    }
}

// Posted after each hook call, whatever the log level: applications show these texts.
void postEventMessage(std::string text) {
    platform::NotificationCenter::defaultCenter().post(OvaltoLogNotification, nullptr,
                                                       {{OvaltoLog, std::any(std::move(text))}});
}

std::vector<nivora::NetworkPlugin::HeaderField> headerFields(const ConnectionInfo& info) {
    std::vector<nivora::NetworkPlugin::HeaderField> fields;
    fields.reserve(info.headers.size());
    for (const auto& [name, value] : info.headers)
        fields.push_back({name, value});
    return fields;
}

} // namespace

QOEManager::QOEManager()
    : QOEManager(QOEReport()) {}

QOEManager::QOEManager(QOEReport report)
    : qoeReport_(std::move(report)) {}

QOEManager::~QOEManager() {
    std::lock_guard lock(timerMutex_);
    invalidateTimerLocked();
}

void QOEManager::setNivora(std::weak_ptr<nivora::Nivora> nivora) {
    nivora_.set(std::move(nivora));
}

std::shared_ptr<PreAlertView> QOEManager::preAlertView() const {
    return preAlertView_.get();
}

void QOEManager::setPreAlertView(const std::shared_ptr<platform::View>& view) {
    if (!view) return;
    auto overlay = PreAlertView::create(view->bounds());
    overlay->setBackgroundColor(platform::Color::black());
    overlay->setHidden(true);
    view->addSubview(overlay);
    preAlertView_.set(std::move(overlay));
}

std::shared_ptr<nivora::NetworkPlugin> QOEManager::networkPlugin(const char* function, int line) const {
    auto nivora = nivora_.get().lock();
    auto plugin = nivora ? nivora->getNetworkPlugin() : nullptr;
    if (!plugin) OVALog(OVALogLevel::warning, pluginNotFound, function, __FILE__, line);
    return plugin;
}

std::shared_ptr<nivora::QOEPlugin> QOEManager::qoePlugin(const char* function, int line) const {
    auto nivora = nivora_.get().lock();
    auto plugin = nivora ? nivora->getQOEPlugin() : nullptr;
    if (!plugin) OVALog(OVALogLevel::warning, pluginNotFound, function, __FILE__, line);
    return plugin;
}

void QOEManager::prepare(const platform::Url& url) {
    auto plugin = qoePlugin("prepare(with:)", __LINE__);
    if (!plugin) return;
    // Weak, unlike a closure that would keep the manager alive inside the plug-in.
    std::weak_ptr<QOEManager> weak = weak_from_this();
    plugin->setOnIntervalListener([weak](std::int32_t interval) {
        if (auto self = weak.lock()) self->createReportTimer(interval);
    });
    auto configuration = configuration_.get();
    try {
        plugin->onConfiguration(configuration);
        configuration_.set(configuration);
    } catch (...) {
        OVALog(OVALogLevel::warning, describeCurrentException(), "prepare(with:)", __FILE__, __LINE__);
    }
    createReportTimer(configuration_.get().interval);
    withReport([&](QOEReport& report) { report.manifest = url.absoluteString(); });
    plugin->setOnPreAlertListener(
        [weak](const nivora::QOEHighlyCriticalInfo& alertInfo, const nivora::QOEViewInfo& viewInfo) {
            auto self = weak.lock();
            if (!self) return;
            OVALog(OVALogLevel::warning, describe(alertInfo), "prepare(with:)", __FILE__, __LINE__);
            OVALog(OVALogLevel::warning, describe(viewInfo), "prepare(with:)", __FILE__, __LINE__);
            if (auto view = self->preAlertView()) view->show(alertInfo, viewInfo);
        });
}

void QOEManager::invalidateTimerLocked() {
    ++timerGeneration_;
    if (timer_) timer_->invalidate();
    timer_.reset();
}

void QOEManager::createReportTimer(std::int32_t interval) {
    std::uint64_t generation;
    {
        std::lock_guard lock(timerMutex_);
        invalidateTimerLocked();
        generation = timerGeneration_;
    }
    if (interval <= 0) return;
    std::weak_ptr<QOEManager> weak = weak_from_this();
    platform::DispatchQueue::main()->async([weak, generation, interval] {
        auto self = weak.lock();
        if (!self) return;
        std::lock_guard lock(self->timerMutex_);
        if (self->timerGeneration_ != generation) return; // replaced or concluded meanwhile
        self->timer_ =
            platform::Timer::scheduledTimer(std::chrono::seconds(interval), true, [weak](platform::Timer&) {
                if (auto manager = weak.lock()) manager->report();
            });
    });
}

std::shared_ptr<platform::Timer> QOEManager::timer() const {
    std::lock_guard lock(timerMutex_);
    return timer_;
}

void QOEManager::conclude() {
    std::lock_guard lock(timerMutex_);
    invalidateTimerLocked();
}

void QOEManager::onStartupTime(std::uint64_t time) {
    withReport([&](QOEReport& report) { report.playbackInfo.startupTime = time; });
}

void QOEManager::onBuffering(std::uint64_t current, std::uint64_t duration, std::int32_t bitrate) {
    withReport([&](QOEReport& report) {
        report.playbackInfo.buffering.push_back({current, duration, bitrate});
    });
}

nivora::NetworkPlugin::Request QOEManager::toRequest(const RequestInfo& info) {
    nivora::NetworkPlugin::Request request;
    request.headers = headerFields(info);
    request.uri = info.uri.value_or("");
    const auto timeout = clampToInt32(static_cast<std::int64_t>(info.timeout.value_or(0)) * 1000);
    request.connectionTimeoutMs = timeout;
    request.readTimeoutMs = timeout;
    return request;
}

void QOEManager::toRequestInfo(const nivora::NetworkPlugin::Request& request, RequestInfo& info) {
    info.uri = request.uri;
    info.timeout = request.connectionTimeoutMs / 1000;
    info.headers.clear();
    info.headers.reserve(request.headers.size());
    for (const auto& field : request.headers)
        info.headers.emplace_back(field.name, field.value);
}

nivora::NetworkPlugin::Response QOEManager::toResponse(const ResponseInfo& info) {
    nivora::NetworkPlugin::Response response;
    response.uri = info.uri.value_or("");
    response.originalUri = info.originalUri.value_or("");
    response.headers = headerFields(info);
    response.edgeIP = info.edgeIP.value_or("");
    return response;
}

void QOEManager::onManifestRequest(RequestInfo& info) {
    auto plugin = networkPlugin("onManifestRequest(with:)", __LINE__);
    if (!plugin) return;
    auto request = toRequest(info);
    try {
        plugin->onManifestRequest(request);
    } catch (...) {
        OVALog(OVALogLevel::error, describeCurrentException(), "onManifestRequest(with:)", __FILE__,
               __LINE__);
        return;
    }
    toRequestInfo(request, info);
    postEventMessage("MP: onManfiestRequest\nMP: uri=" + describeOptional(info.uri));
}

void QOEManager::onManifestResponse(ResponseInfo& info) {
    auto plugin = networkPlugin("onManifestResponse(with:)", __LINE__);
    if (!plugin) return;
    auto response = toResponse(info);
    try {
        plugin->onManifestResponse(response);
    } catch (...) {
        OVALog(OVALogLevel::error, describeCurrentException(), "onManifestResponse(with:)", __FILE__,
               __LINE__);
        return;
    }
    postEventMessage("MP: onManifestResponse\nMP: uri=" + describeOptional(info.uri) +
                     "\nMP: size=" + describe(info.size));
}

void QOEManager::onFragmentRequest(RequestInfo& info) {
    auto plugin = networkPlugin("onFragmentRequest(with:)", __LINE__);
    if (!plugin) return;
    auto request = toRequest(info);
    try {
        plugin->onFragmentRequest(request, mediaType(info.type));
    } catch (...) {
        OVALog(OVALogLevel::error, describeCurrentException(), "onFragmentRequest(with:)", __FILE__,
               __LINE__);
        return;
    }
    toRequestInfo(request, info);
    postEventMessage("MP: onFragmentRequest\nMP: uri=" + describeOptional(info.uri));
}

void QOEManager::onFragmentResponse(ResponseInfo& info) {
    Track track;
    track.id = info.streamIndex.value_or(0);
    track.name = info.type.value_or("unknown");
    track.type = track.name;
    track.fragments.push_back({info.fragmentIndex.value_or(0), info.bitrate.value_or(0),
                               info.uri.value_or(""), milliseconds(info.start), milliseconds(info.duration),
                               info.size.value_or(0), milliseconds(info.downloadTime)});
    addFragment(std::move(track));

    auto plugin = networkPlugin("onFragmentResponse(with:)", __LINE__);
    if (!plugin) return;
    auto response = toResponse(info);
    try {
        plugin->onFragmentResponse(response, mediaType(info.type));
    } catch (...) {
        OVALog(OVALogLevel::error, describeCurrentException(), "onFragmentResponse(with:)", __FILE__,
               __LINE__);
        return;
    }
    postEventMessage("MP: onFragmentResponse\nMP: uri=" + describeOptional(info.uri) +
                     "\nMP: edge=" + describeOptional(info.edgeIP) + "\nMP: size=" + describe(info.size));
}

void QOEManager::addFragment(Track track) {
    withReport([&](QOEReport& report) { report.addFragment(std::move(track)); });
}

void QOEManager::report() {
    auto plugin = qoePlugin("report()", __LINE__);
    if (!plugin) return;
    auto now = [] {
        return std::chrono::duration_cast<std::chrono::seconds>(
                   std::chrono::system_clock::now().time_since_epoch())
            .count();
    };
    qoe::NetworkInfo network;
    network.updateStatus(); // outside the lock: it reads the routing table
    // Encoding and starting over in one critical section, so that no event falls between them.
    auto json = withReport([&](QOEReport& report) {
        report.transactionId = now();
        report.time = now();
        report.networkInfo.type = network.type;
        auto text = report.toJSON();
        report.playbackInfo.startupTime.reset();
        report.playbackInfo.buffering.clear();
        return text;
    });
    if (!json) {
        OVALog(OVALogLevel::warning, "Invalid JSON Representation", "toJSON()", __FILE__, __LINE__);
        return;
    }
    OVALog(OVALogLevel::debug, *json, "report()", __FILE__, __LINE__);
    auto dictionary = nivora::QOEPlugin::Dictionary::parse(*json, nullptr, false);
    if (dictionary.is_discarded()) {
        OVALog(OVALogLevel::warning, "the report cannot be read back", "report()", __FILE__, __LINE__);
        return;
    }
    if (!dictionary.is_object()) return;
    try {
        plugin->onQOEEvent(dictionary);
    } catch (...) {
        OVALog(OVALogLevel::warning, describeCurrentException(), "report()", __FILE__, __LINE__);
    }
}

} // namespace ovalto
