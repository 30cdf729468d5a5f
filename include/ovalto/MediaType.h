#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

namespace ovalto {

// Ovalto::MediaType: video, audio or text, with raw values "video", "audio", "text".
class MediaType {
public:
    enum Value : std::uint8_t { video, audio, text };

    constexpr MediaType(Value value = video)
        : value_(value) {}
    constexpr operator Value() const { return value_; }

    // HLS TYPE values: "SUBTITLES" and "CLOSED-CAPTIONS" are text, "AUDIO" audio; anything else video.
    static MediaType create(std::string_view type);
    static std::optional<MediaType> fromRawValue(std::string_view rawValue);
    std::string_view rawValue() const;

private:
    Value value_;
};

class TimedText;

// Ovalto::MimeType: the side-car subtitle formats.
class MimeType {
public:
    enum Value : std::uint8_t { smi, srt, ass, vtt, nhkttml };

    constexpr MimeType(Value value)
        : value_(value) {}
    constexpr operator Value() const { return value_; }

    // Exact, case-sensitive match of the MIME type string; no value for anything unknown.
    static std::optional<MimeType> fromString(std::string_view string);
    // A new, empty parser for documents of this type.
    std::shared_ptr<TimedText> timedText() const;

private:
    Value value_;
};

} // namespace ovalto

template <> struct std::hash<ovalto::MediaType> {
    std::size_t operator()(ovalto::MediaType t) const noexcept {
        return static_cast<std::size_t>(t.operator ovalto::MediaType::Value());
    }
};
