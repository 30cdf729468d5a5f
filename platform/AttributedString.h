#pragma once

#include "platform/Color.h"
#include "platform/Font.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ovalto::platform {

// Text with attributes on ranges. The text is UTF-8; ranges count UTF-16 code units, as
// attributed strings do on the platforms alerts are written for.
class AttributedString {
public:
    struct Attributes {
        std::optional<Font> font;
        std::optional<Color> foregroundColor;
        std::optional<int> underlineStyle; // 1: a single line
    };
    struct Run {
        std::size_t location = 0; // UTF-16 code units
        std::size_t length = 0;
        Attributes attributes;
    };

    AttributedString() = default;
    explicit AttributedString(std::string text)
        : text_(std::move(text)) {}

    const std::string& string() const { return text_; }
    const std::vector<Run>& runs() const { return runs_; }
    // Length in UTF-16 code units.
    std::size_t length() const { return utf16Length(text_); }
    // Runs added later win where they overlap earlier ones.
    void addAttributes(std::size_t location, std::size_t length, Attributes attributes);
    // The attributes in effect at a UTF-16 offset (merged over the runs that cover it).
    Attributes attributesAt(std::size_t location) const;

    static std::size_t utf16Length(std::string_view utf8);
    // The UTF-8 byte offset of a UTF-16 offset (clamped to the end).
    static std::size_t utf8Offset(std::string_view utf8, std::size_t utf16Offset);

private:
    std::string text_;
    std::vector<Run> runs_;
};

} // namespace ovalto::platform
