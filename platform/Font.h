#pragma once

#include <string>

namespace ovalto::platform {

// A font as text views use it: the system family at a size in points, with bold and italic
// faces. The system family is DejaVu Sans; characters it lacks (Japanese above all) come from
// whatever installed font has them, VL Gothic on our machines.
struct Font {
    static constexpr const char* systemFamily = "DejaVu Sans";
    static constexpr double defaultSize = 12;

    std::string family = systemFamily;
    double size = defaultSize;
    bool bold = false;
    bool italic = false;

    static Font systemFont(double size) {
        Font font;
        font.size = size;
        return font;
    }
    // The same face with these traits at `size`.
    Font withTraits(bool isBold, bool isItalic, double newSize) const {
        Font font = *this;
        font.bold = isBold;
        font.italic = isItalic;
        font.size = newSize;
        return font;
    }
    bool operator==(const Font&) const = default;
};

} // namespace ovalto::platform
