#include "Timeline.h"

#include <cstdio>
#include <ostream>

namespace ovalto::tool {

namespace {

std::string host(const std::optional<std::string>& uri) {
    if (!uri) return "-";
    if (auto url = platform::Url::parse(*uri)) {
        if (auto h = url->host()) return url->port() ? *h + ":" + std::to_string(*url->port()) : *h;
    }
    return "-";
}

std::string milliseconds(const std::optional<platform::MediaTime>& time) {
    if (!time || !time->isNumeric()) return "-";
    char text[32];
    std::snprintf(text, sizeof text, "%.0f ms", time->seconds() * 1000);
    return text;
}

nlohmann::json optional(const std::optional<std::string>& value) {
    return value ? nlohmann::json(*value) : nlohmann::json(nullptr);
}

} // namespace

Timeline::Timeline(std::ostream& out, bool json)
    : out_(out)
    , json_(json) {}

double Timeline::secondsSinceStart() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void Timeline::event(const std::string& kind, const std::string& text, nlohmann::json fields) {
    const double at = secondsSinceStart();
    std::lock_guard lock(mutex_);
    if (progressShown_) {
        out_ << "\r\033[K";
        progressShown_ = false;
    }
    if (json_) {
        fields["t"] = at;
        fields["event"] = kind;
        out_ << fields.dump() << "\n" << std::flush;
        return;
    }
    char stamp[32];
    std::snprintf(stamp, sizeof stamp, "%8.3f  ", at);
    out_ << stamp << kind << std::string(kind.size() < 18 ? 18 - kind.size() : 1, ' ') << text << "\n"
         << std::flush;
}

void Timeline::progress(const std::string& text) {
    std::lock_guard lock(mutex_);
    out_ << "\r\033[K" << text << std::flush;
    progressShown_ = true;
}

void TimelineListener::prepare(const platform::Url& url) {
    timeline_.event("prepare", url.absoluteString(), {{"url", url.absoluteString()}});
}

void TimelineListener::conclude() {
    timeline_.event("conclude", "session ended");
}

void TimelineListener::onStartupTime(std::uint64_t time) {
    {
        std::lock_guard lock(mutex_);
        figures_.startupMilliseconds = time;
    }
    timeline_.event("startup", std::to_string(time) + " ms", {{"ms", time}});
}

void TimelineListener::onBuffering(std::uint64_t current, std::uint64_t duration, std::int32_t bitrate) {
    {
        std::lock_guard lock(mutex_);
        ++figures_.rebufferings;
        figures_.rebufferingMilliseconds += duration;
    }
    timeline_.event("rebuffering",
                    std::to_string(duration) + " ms from " + std::to_string(current) + " (unix s) at " +
                        std::to_string(bitrate) + " bit/s",
                    {{"start", current}, {"ms", duration}, {"bitrate", bitrate}});
}

void TimelineListener::onManifestRequest(RequestInfo& request) {
    {
        std::lock_guard lock(mutex_);
        ++figures_.manifestRequests;
    }
    timeline_.event("manifest request", request.uri.value_or("-"),
                    {{"uri", optional(request.uri)}, {"timeout", request.timeout.value_or(0)}});
}

void TimelineListener::onManifestResponse(ResponseInfo& response) {
    timeline_.event("manifest response",
                    response.originalUri.value_or("-") + "  " + std::to_string(response.size.value_or(0)) +
                        " bytes from " + response.edgeIP.value_or("-"),
                    {{"uri", optional(response.uri)},
                     {"originalUri", optional(response.originalUri)},
                     {"edge", optional(response.edgeIP)},
                     {"size", response.size.value_or(0)}});
}

void TimelineListener::onFragmentRequest(RequestInfo& request) {
    {
        std::lock_guard lock(mutex_);
        ++figures_.fragmentRequests;
    }
    timeline_.event(
        "fragment request", request.type.value_or("?") + "  " + request.uri.value_or("-"),
        {{"uri", optional(request.uri)}, {"type", optional(request.type)}, {"host", host(request.uri)}});
}

void TimelineListener::onFragmentResponse(ResponseInfo& response) {
    timeline_.event("fragment response",
                    response.type.value_or("?") + " #" + std::to_string(response.fragmentIndex.value_or(0)) +
                        "  " + std::to_string(response.size.value_or(0)) + " bytes in " +
                        milliseconds(response.downloadTime) + " from " + response.edgeIP.value_or("-") +
                        "  (stream " + std::to_string(response.streamIndex.value_or(0)) + ", " +
                        std::to_string(response.bitrate.value_or(0)) + " bit/s)",
                    {{"uri", optional(response.uri)},
                     {"edge", optional(response.edgeIP)},
                     {"type", optional(response.type)},
                     {"size", response.size.value_or(0)},
                     {"downloadMs", response.downloadTime ? response.downloadTime->seconds() * 1000 : 0.0},
                     {"streamIndex", response.streamIndex.value_or(0)},
                     {"fragmentIndex", response.fragmentIndex.value_or(0)},
                     {"bitrate", response.bitrate.value_or(0)}});
}

PlaybackFigures TimelineListener::figures() const {
    std::lock_guard lock(mutex_);
    return figures_;
}

} // namespace ovalto::tool
