#pragma once

namespace ovalto::platform {

// View geometry in points; a point is one pixel when a view is drawn.
struct Point {
    double x = 0;
    double y = 0;
    bool operator==(const Point&) const = default;
};

struct Size {
    double width = 0;
    double height = 0;
    bool operator==(const Size&) const = default;
};

struct Rect {
    Point origin;
    Size size;
    bool operator==(const Rect&) const = default;
};

} // namespace ovalto::platform
