// Points, sizes and rectangles in double precision, as the view and menu classes take them.
#pragma once

#include <QRect>
#include <QString>
#include <algorithm>
#include <cmath>

struct NSPoint {
    double x = 0;
    double y = 0;
    friend bool operator==(const NSPoint&, const NSPoint&) = default;
};

struct NSSize {
    double width = 0;
    double height = 0;
    friend bool operator==(const NSSize&, const NSSize&) = default;
};

struct NSRect {
    NSPoint origin;
    NSSize size;
    friend bool operator==(const NSRect&, const NSRect&) = default;
};

inline constexpr NSPoint NSZeroPoint{0, 0};
inline constexpr NSSize NSZeroSize{0, 0};
inline constexpr NSRect NSZeroRect{{0, 0}, {0, 0}};

inline constexpr NSPoint NSMakePoint(double x, double y) {
    return {x, y};
}
inline constexpr NSSize NSMakeSize(double w, double h) {
    return {w, h};
}
inline constexpr NSRect NSMakeRect(double x, double y, double w, double h) {
    return {{x, y}, {w, h}};
}

// Whether every coordinate of the rectangle is a finite number.
inline bool NSRectIsFinite(const NSRect& r) {
    return std::isfinite(r.origin.x) && std::isfinite(r.origin.y) && std::isfinite(r.size.width) &&
           std::isfinite(r.size.height);
}
inline constexpr double NSMinX(const NSRect& r) {
    return r.origin.x;
}
inline constexpr double NSMinY(const NSRect& r) {
    return r.origin.y;
}
inline constexpr double NSMaxX(const NSRect& r) {
    return r.origin.x + r.size.width;
}
inline constexpr double NSMaxY(const NSRect& r) {
    return r.origin.y + r.size.height;
}
inline constexpr double NSWidth(const NSRect& r) {
    return r.size.width;
}
inline constexpr double NSHeight(const NSRect& r) {
    return r.size.height;
}

// A coordinate rounded to the nearest pixel; values that are not finite (NaN, infinities) or
// beyond the pixel range count as 0.
inline int NSPixel(double v) {
    return std::isfinite(v) && std::fabs(v) < 1e9 ? static_cast<int>(std::lround(v)) : 0;
}

// Whole-pixel geometry for a widget: each edge rounded on its own, so that adjacent views share
// their edge.
inline QRect NSRectToQRect(const NSRect& r) {
    const int left = NSPixel(NSMinX(r));
    const int top = NSPixel(NSMinY(r));
    const int right = NSPixel(NSMaxX(r));
    const int bottom = NSPixel(NSMaxY(r));
    return {left, top, std::max(0, right - left), std::max(0, bottom - top)};
}

inline QString NSStringFromRect(const NSRect& r) {
    return QStringLiteral("{{%1, %2}, {%3, %4}}")
        .arg(r.origin.x)
        .arg(r.origin.y)
        .arg(r.size.width)
        .arg(r.size.height);
}
