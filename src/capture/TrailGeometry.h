#pragma once

#include <QPointF>
#include <QRectF>

#include <optional>
#include <span>

namespace tk {

struct Arrowhead {
    QPointF tip;
    QPointF barbA;
    QPointF barbB;
    QRectF bounds(double margin) const;
};

struct TrailStyle {
    static constexpr double kWidth = 4.0;
    static constexpr double kBarb = 16.0;
    static constexpr double kBarbAngle = 0.45;
    static constexpr double kMinLength = 60.0;
    static constexpr double kMinStraightness = 0.7;
    static constexpr int kMinPoints = 7;
    static constexpr int kHeadLookback = 6; // the head follows the stroke's last few points
};

double polylineLength(std::span<const QPointF> pts);

// A fairly straight stroke ends in a head; `length` is the polyline's total
// length, kept by the caller so each new point costs the same.
std::optional<Arrowhead> arrowheadFor(std::span<const QPointF> pts, double length);

} // namespace tk
