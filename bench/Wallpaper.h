#pragma once

#include <QColor>
#include <QFont>
#include <QImage>
#include <QLinearGradient>
#include <QPainter>
#include <QRandomGenerator>

// A desktop-like picture for the capture benchmarks: a gradient backdrop,
// windows with title bars, toolbars, lines of text and a photo-like noisy area.
// A blank screen would flatter every PNG encoder.
inline QImage benchWallpaper(QSize size) {
    QImage img(size, QImage::Format_RGB32);
    QPainter p(&img);
    QLinearGradient bg(0, 0, size.width(), size.height());
    bg.setColorAt(0, QColor(32, 58, 96));
    bg.setColorAt(1, QColor(120, 70, 110));
    p.fillRect(img.rect(), bg);
    QRandomGenerator rng(1234);
    const double s = size.width() / 1920.0;
    QFont font(QStringLiteral("DejaVu Sans"));
    font.setPixelSize(int(13 * s));
    p.setFont(font);
    for (int w = 0; w < 5; ++w) {
        const QRect win(int(rng.bounded(size.width() / 2)), int(rng.bounded(size.height() / 2)),
                        int(size.width() * (0.35 + 0.1 * w / 5.0)), int(size.height() * 0.45));
        p.fillRect(win.adjusted(6, 6, 6, 6), QColor(0, 0, 0, 60));
        p.fillRect(win, QColor(246, 246, 246));
        p.fillRect(QRect(win.topLeft(), QSize(win.width(), int(30 * s))), QColor(220, 220, 224));
        p.setPen(Qt::black);
        p.drawText(win.topLeft() + QPoint(int(10 * s), int(20 * s)),
                   QStringLiteral("Window %1 — report.txt").arg(w));
        for (int b = 0; b < 8; ++b)
            p.fillRect(QRect(win.left() + int((10 + b * 34) * s), win.top() + int(36 * s),
                             int(26 * s), int(26 * s)),
                       QColor::fromHsv((w * 50 + b * 30) % 360, 120, 200));
        int y = win.top() + int(80 * s);
        for (int line = 0; y < win.bottom() - int(10 * s); ++line, y += int(18 * s)) {
            QString text;
            const int words = 6 + int(rng.bounded(10));
            for (int i = 0; i < words; ++i)
                text += QStringLiteral("lorem ipsum dolor sit amet consectetur ")
                            .section(QLatin1Char(' '), int(rng.bounded(6)), int(rng.bounded(6))) +
                        QLatin1Char(' ');
            p.setPen(line % 7 == 0 ? QColor(20, 90, 200) : QColor(30, 30, 30));
            p.drawText(QPoint(win.left() + int(12 * s), y), text.simplified());
        }
    }
    p.end();
    // A photo in one corner: smooth with sensor noise.
    const QRect photo(size.width() * 3 / 4, size.height() * 3 / 4, size.width() / 5,
                      size.height() / 5);
    for (int y = photo.top(); y < photo.bottom(); ++y) {
        auto* line = reinterpret_cast<QRgb*>(img.scanLine(y));
        for (int x = photo.left(); x < photo.right(); ++x) {
            const int n = int(rng.bounded(24));
            line[x] = qRgb((x * 255 / size.width() + n) & 255, (y * 255 / size.height() + n) & 255,
                           (128 + n) & 255);
        }
    }
    return img;
}
