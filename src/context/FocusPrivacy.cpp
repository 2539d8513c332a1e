#include "context/FocusPrivacy.h"

#include "context/Blur.h"
#include "writer/PngEncoder.h"

#include <QPainter>

#include <algorithm>

namespace tk {

std::optional<QRectF> FocusPrivacy::keptRect(const std::vector<PointerSample>& path, double scale) {
    if (path.size() < 5)
        return std::nullopt;
    double minX = path[0][0] * scale, maxX = minX, minY = path[0][1] * scale, maxY = minY;
    for (const auto& p : path) {
        minX = std::min(minX, p[0] * scale);
        maxX = std::max(maxX, p[0] * scale);
        minY = std::min(minY, p[1] * scale);
        maxY = std::max(maxY, p[1] * scale);
    }
    // The box grown by the margin on every side; screen pixel (0, 0) is taken to
    // be the picture's, whatever display it came from.
    return QRectF(minX - kMargin, minY - kMargin, (maxX - minX) + 2 * kMargin,
                  (maxY - minY) + 2 * kMargin);
}

bool FocusPrivacy::applyTo(QImage& image, const std::vector<PointerSample>& path, double scale) {
    const auto kept = keptRect(path, scale);
    if (!kept || image.isNull())
        return false;
    const QRect sharp = kept->toAlignedRect() & image.rect();
    const QImage original = sharp.isEmpty() ? QImage() : image.copy(sharp);
    if (image.depth() != 32)
        image = image.convertToFormat(QImage::Format_RGB32);
    Blur::gaussian(image, kSigma);
    if (!original.isNull()) {
        QPainter p(&image);
        p.setCompositionMode(QPainter::CompositionMode_Source);
        p.drawImage(sharp.topLeft(), original);
    }
    return true;
}

bool FocusPrivacy::apply(const QString& shotPath, const std::vector<PointerSample>& path,
                         double scale) {
    if (path.size() < 5)
        return false;
    QImage image(shotPath);
    if (image.isNull() || !applyTo(image, path, scale))
        return false;
    return PngEncoder::write(image, shotPath);
}

} // namespace tk
