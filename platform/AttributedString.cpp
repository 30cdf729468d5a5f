#include "platform/AttributedString.h"

namespace ovalto::platform {

namespace {

// Bytes of the UTF-8 sequence led by `lead` and the UTF-16 units it makes; malformed bytes count
// as one byte and one unit, so that offsets stay defined.
std::pair<std::size_t, std::size_t> sequence(unsigned char lead) {
    if (lead >= 0xF0) return {4, 2};
    if (lead >= 0xE0) return {3, 1};
    if (lead >= 0xC0) return {2, 1};
    return {1, 1};
}

} // namespace

void AttributedString::addAttributes(std::size_t location, std::size_t length, Attributes attributes) {
    runs_.push_back({location, length, std::move(attributes)});
}

AttributedString::Attributes AttributedString::attributesAt(std::size_t location) const {
    Attributes merged;
    for (const auto& run : runs_) {
        if (location < run.location || location >= run.location + run.length) continue;
        if (run.attributes.font) merged.font = run.attributes.font;
        if (run.attributes.foregroundColor) merged.foregroundColor = run.attributes.foregroundColor;
        if (run.attributes.underlineStyle) merged.underlineStyle = run.attributes.underlineStyle;
    }
    return merged;
}

std::size_t AttributedString::utf16Length(std::string_view utf8) {
    std::size_t units = 0;
    for (std::size_t at = 0; at < utf8.size();) {
        auto [bytes, count] = sequence(static_cast<unsigned char>(utf8[at]));
        at += bytes;
        units += count;
    }
    return units;
}

std::size_t AttributedString::utf8Offset(std::string_view utf8, std::size_t utf16Offset) {
    std::size_t at = 0, units = 0;
    while (at < utf8.size() && units < utf16Offset) {
        auto [bytes, count] = sequence(static_cast<unsigned char>(utf8[at]));
        at += bytes;
        units += count;
    }
    return at < utf8.size() ? at : utf8.size();
}

} // namespace ovalto::platform
