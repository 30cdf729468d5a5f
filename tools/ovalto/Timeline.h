#pragma once

#include "ovalto/PluginListener.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <mutex>
#include <string>

namespace ovalto::tool {

// What `ovalto play` prints: every event with its time since the start, as text lines or as one
// JSON object per line. Events come from several threads; each is written whole.
class Timeline {
public:
    Timeline(std::ostream& out, bool json);

    // `fields` is a JSON object; the text form writes `text` after the time.
    void event(const std::string& kind, const std::string& text,
               nlohmann::json fields = nlohmann::json::object());
    // A progress line that the next event or progress line overwrites (terminals only).
    void progress(const std::string& text);
    double secondsSinceStart() const;
    bool json() const { return json_; }

private:
    std::ostream& out_;
    const bool json_;
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    std::mutex mutex_;
    bool progressShown_ = false;
};

// Figures gathered from the listener for the closing summary.
struct PlaybackFigures {
    std::optional<std::uint64_t> startupMilliseconds;
    int rebufferings = 0;
    std::uint64_t rebufferingMilliseconds = 0;
    int manifestRequests = 0;
    int fragmentRequests = 0;
};

// The listener the tool prepares with: prints each network step and keeps the figures.
class TimelineListener : public PluginListener {
public:
    explicit TimelineListener(Timeline& timeline)
        : timeline_(timeline) {}

    void prepare(const platform::Url& url) override;
    void conclude() override;
    void onStartupTime(std::uint64_t time) override;
    void onBuffering(std::uint64_t current, std::uint64_t duration, std::int32_t bitrate) override;
    void onManifestRequest(RequestInfo& requestInfo) override;
    void onManifestResponse(ResponseInfo& responseInfo) override;
    void onFragmentRequest(RequestInfo& requestInfo) override;
    void onFragmentResponse(ResponseInfo& responseInfo) override;

    PlaybackFigures figures() const;

private:
    Timeline& timeline_;
    mutable std::mutex mutex_;
    PlaybackFigures figures_;
};

} // namespace ovalto::tool
