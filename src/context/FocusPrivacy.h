#pragma once

#include "context/AX.h"

#include <QImage>
#include <QRect>
#include <QString>

#include <optional>

namespace tk {

class FocusPrivacy {
public:
    static constexpr double kSigma = 24.0; // image pixels
    static constexpr int kMargin = 16;     // image pixels around the lasso's box

    // Blurs the screenshot outside the lasso's box, in place. On any failure the
    // file is left as it was. Returns whether it was rewritten.
    static bool apply(const QString& shotPath, const std::vector<PointerSample>& path,
                      double scale);
    // The same on a picture in memory.
    static bool applyTo(QImage& image, const std::vector<PointerSample>& path, double scale);
    // The rectangle kept sharp, in image pixels with the origin at the top left;
    // not clipped to the image. Nothing for fewer than five points.
    static std::optional<QRectF> keptRect(const std::vector<PointerSample>& path, double scale);
};

} // namespace tk
