#include "capture/TrailGeometry.h"

#include <QLineF>

#include <cmath>

namespace tk {

QRectF Arrowhead::bounds(double margin) const {
    const double l = std::min({tip.x(), barbA.x(), barbB.x()});
    const double t = std::min({tip.y(), barbA.y(), barbB.y()});
    const double r = std::max({tip.x(), barbA.x(), barbB.x()});
    const double b = std::max({tip.y(), barbA.y(), barbB.y()});
    return QRectF(QPointF(l, t), QPointF(r, b)).adjusted(-margin, -margin, margin, margin);
}

double polylineLength(std::span<const QPointF> pts) {
    double l = 0;
    for (size_t i = 1; i < pts.size(); ++i)
        l += QLineF(pts[i - 1], pts[i]).length();
    return l;
}

std::optional<Arrowhead> arrowheadFor(std::span<const QPointF> pts, double length) {
    const int n = int(pts.size());
    if (n < TrailStyle::kMinPoints)
        return std::nullopt;
    const QPointF first = pts.front();
    const QPointF last = pts.back();
    const double chord = QLineF(first, last).length();
    const double straightness = length > 1 ? chord / length : chord;
    if (!(length > TrailStyle::kMinLength && straightness > TrailStyle::kMinStraightness))
        return std::nullopt;
    const QPointF p = pts[size_t(n - TrailStyle::kHeadLookback)];
    const double theta = std::atan2(last.y() - p.y(), last.x() - p.x());
    const double back = theta + M_PI;
    auto barb = [&](double a) {
        return last + TrailStyle::kBarb * QPointF(std::cos(a), std::sin(a));
    };
    return Arrowhead{last, barb(back + TrailStyle::kBarbAngle),
                     barb(back - TrailStyle::kBarbAngle)};
}

} // namespace tk
