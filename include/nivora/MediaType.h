#pragma once

#include <optional>
#include <string_view>

namespace nivora {

// The plug-in's own media vocabulary; its raw values are the strings on the wire.
enum class MediaType { video, audio, text };

inline constexpr std::string_view rawValue(MediaType type) {
    switch (type) {
    case MediaType::audio:
        return "audio";
    case MediaType::text:
        return "text";
    case MediaType::video:
        break;
    }
    return "video";
}

inline constexpr std::optional<MediaType> makeMediaType(std::string_view rawValue) {
    if (rawValue == "video") return MediaType::video;
    if (rawValue == "audio") return MediaType::audio;
    if (rawValue == "text") return MediaType::text;
    return std::nullopt;
}

} // namespace nivora
