#include "CaptureImages.h"

#include <QFileInfo>
#include <QImageReader>
#include <QPainter>
#include <QPainterPath>
#include <QSaveFile>
#include <QtConcurrent/QtConcurrentRun>

#include <cmath>

namespace tk::service {

namespace {

constexpr int kThumbW = 480;
constexpr int kThumbH = 300;
constexpr int kAnnotatedMaxW = 2560;

bool saveJpeg(const QImage& img, const QString& path, int quality) {
    QSaveFile f(path);
    if (!f.open(QIODevice::WriteOnly))
        return false;
    if (!img.save(&f, "JPEG", quality)) {
        f.cancelWriting();
        return false;
    }
    return f.commit();
}

QImage thumbnail(const QImage& shot) {
    // Halving first keeps the smooth pass cheap on 4K shots.
    QImage src = shot;
    while (src.width() > kThumbW * 4)
        src = src.scaled(src.width() / 2, src.height() / 2, Qt::IgnoreAspectRatio,
                         Qt::FastTransformation);
    return src.scaled(kThumbW, kThumbH, Qt::KeepAspectRatio, Qt::SmoothTransformation);
}

QImage annotate(const QImage& shot, const CaptureContext& c) {
    const double scale = c.displayScale > 0 && std::isfinite(c.displayScale) ? c.displayScale : 1;
    // The shot covers only the monitor under the pointer: bring global
    // coordinates onto it, assuming monitors of the shot's size side by side.
    const double ox = std::floor(c.pointer.downAt[0] * scale / shot.width()) * shot.width();
    const double oy = std::floor(c.pointer.downAt[1] * scale / shot.height()) * shot.height();
    const auto map = [&](double x, double y) { return QPointF(x * scale - ox, y * scale - oy); };

    QImage out = shot.convertToFormat(QImage::Format_RGB32);
    const double k = out.width() > kAnnotatedMaxW ? double(kAnnotatedMaxW) / out.width() : 1.0;
    if (k < 1.0)
        out = out.scaledToWidth(kAnnotatedMaxW, Qt::SmoothTransformation);
    QPainter p(&out);
    p.setRenderHint(QPainter::Antialiasing);
    p.scale(k, k);
    if (c.ax.lassoAncestor) {
        const auto& e = *c.ax.lassoAncestor;
        QPen dash(QColor(255, 200, 0, 220), 2 * scale, Qt::DashLine);
        p.setPen(dash);
        p.setBrush(Qt::NoBrush);
        p.drawRect(QRectF(map(e.x, e.y), map(e.x + e.w, e.y + e.h)));
    }
    if (!c.pointer.path.empty()) {
        QPainterPath trail(map(c.pointer.path[0][0], c.pointer.path[0][1]));
        for (const auto& s : c.pointer.path)
            trail.lineTo(map(s[0], s[1]));
        p.setPen(QPen(QColor(0, 0, 0, 120), 7 * scale, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        p.drawPath(trail);
        p.setPen(QPen(QColor(255, 59, 48), 4 * scale, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        p.drawPath(trail);
    }
    p.end();
    return out;
}

} // namespace

ImageResult makeImages(const ImagePaths& paths, const CaptureContext& context) {
    ImageResult r;
    if (QFileInfo::exists(paths.thumb) && QFileInfo::exists(paths.annotated)) {
        r.shotReadable = true;
        return r;
    }
    QImageReader reader(paths.shot);
    reader.setAutoTransform(false);
    // Screenshots are at most a few monitors wide; anything larger is not ours.
    if (!reader.canRead() || reader.size().width() > 16384 || reader.size().height() > 16384)
        return r;
    QImage shot = reader.read();
    if (shot.isNull())
        return r;
    r.shotReadable = true;
    auto annotated =
        QtConcurrent::run([&] { return saveJpeg(annotate(shot, context), paths.annotated, 85); });
    const bool thumbOk = saveJpeg(thumbnail(shot), paths.thumb, 82);
    r.ok = thumbOk && annotated.result();
    return r;
}

} // namespace tk::service
