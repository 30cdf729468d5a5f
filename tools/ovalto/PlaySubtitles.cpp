#include "PlaySubtitles.h"

#include "ovalto/Ovalto.h"

#include <cstdio>

namespace ovalto::tool {

namespace {

std::string seconds(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f s", value);
    return text;
}

std::string oneLine(const std::string& text) {
    std::string out;
    for (char c : text)
        out += c == '\n' ? std::string(" / ") : std::string(1, c);
    return out;
}

} // namespace

std::optional<std::string> PlaySubtitles::set(const std::string& option, const std::string& value) {
    (option == "--subtitles" ? source_ : mimeType_) = value;
    return std::nullopt;
}

std::optional<std::string> PlaySubtitles::validate() {
    if (!source_) {
        if (mimeType_) return "--mime needs --subtitles";
        return std::nullopt;
    }
    std::string error;
    resolved_ = SubtitleSource::resolve(*source_, mimeType_, error);
    if (!resolved_) return error;
    return std::nullopt;
}

void PlaySubtitles::attach(Ovalto& facade, Timeline& timeline) {
    if (!resolved_) return;
    facade.setOnTimedText([counts = counts_, &timeline](const platform::MediaTime& time,
                                                        const std::string& text) {
        ++counts->texts;
        if (text.empty()) ++counts->clears;
        timeline.event("subtitle",
                       "at " + seconds(time.seconds()) + "  " + (text.empty() ? "(clear)" : oneLine(text)),
                       {{"time", time.seconds()}, {"text", text}});
    });
    facade.setOnTimedTextCue([counts = counts_, &timeline](const std::shared_ptr<Cue>& cue) {
        ++counts->cues;
        const auto end = cue->endTimeMs ? nlohmann::json(*cue->endTimeMs) : nlohmann::json(nullptr);
        timeline.event("cue",
                       std::to_string(cue->startTimeMs) + " ms --> " +
                           (cue->endTimeMs ? std::to_string(*cue->endTimeMs) + " ms" : std::string("-")) +
                           "  " + oneLine(cue->payload),
                       {{"startTimeMs", cue->startTimeMs},
                        {"endTimeMs", end},
                        {"setting", cue->setting ? nlohmann::json(*cue->setting) : nlohmann::json(nullptr)},
                        {"payload", cue->payload}});
    });
    timeline.event("subtitles", resolved_->url.absoluteString() + " (" + resolved_->mimeType + ")",
                   {{"url", resolved_->url.absoluteString()}, {"mimeType", resolved_->mimeType}});
    facade.addTimedTextSource(resolved_->url, resolved_->mimeType);
}

void PlaySubtitles::addFields(nlohmann::json& fields) const {
    if (!resolved_) return;
    fields["subtitleTexts"] = counts_->texts.load();
    fields["subtitleClears"] = counts_->clears.load();
    fields["subtitleCues"] = counts_->cues.load();
}

std::string PlaySubtitles::summaryLine() const {
    if (!resolved_) return "";
    return "  subtitles            " + std::to_string(counts_->texts.load()) + " texts delivered (" +
           std::to_string(counts_->clears.load()) + " clears), " + std::to_string(counts_->cues.load()) +
           " cues\n";
}

} // namespace ovalto::tool
