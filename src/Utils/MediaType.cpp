#include "ovalto/MediaType.h"

#include <algorithm>
#include <cctype>
#include <string>

namespace ovalto {

MediaType MediaType::create(std::string_view type) {
    std::string lower(type);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    if (lower == "audio") return audio;
    if (lower == "subtitles" || lower == "closed-captions") return text;
    return video;
}

std::optional<MediaType> MediaType::fromRawValue(std::string_view rawValue) {
    if (rawValue == "video") return MediaType(video);
    if (rawValue == "audio") return MediaType(audio);
    if (rawValue == "text") return MediaType(text);
    return std::nullopt;
}

std::string_view MediaType::rawValue() const {
    switch (value_) {
    case audio:
        return "audio";
    case text:
        return "text";
    default:
        return "video";
    }
}

std::optional<MimeType> MimeType::fromString(std::string_view string) {
    if (string == "application/smil+xml") return MimeType(smi);
    if (string == "application/x-subrip") return MimeType(srt);
    if (string == "application/x-ass") return MimeType(ass);
    if (string == "text/vtt") return MimeType(vtt);
    if (string == "application/xml+nttml" || string == "application/nttml+xml") return MimeType(nhkttml);
    return std::nullopt;
}

} // namespace ovalto
