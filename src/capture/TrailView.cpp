#include "capture/TrailView.h"

#include <QLineF>
#include <QPaintEvent>
#include <QPainter>
#include <QPainterPath>

#include <cstdlib>

namespace tk {

namespace {

constexpr int kMargin = 4; // half the pen plus rounding

QPen inkPen(bool antialias) {
    QColor c = TrailView::inkColour();
    if (!antialias)
        c.setAlphaF(1.0); // cut to its own pixels, the window shows them opaque
    return QPen(c, TrailStyle::kWidth, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
}

QRect segmentBounds(QPointF a, QPointF b) {
    return QRectF(a, b).normalized().toAlignedRect().adjusted(-kMargin, -kMargin, kMargin, kMargin);
}

} // namespace

QColor TrailView::inkColour() {
    return QColor::fromRgbF(0.64f, 0.83f, 0.19f, 0.95f);
}

TrailView::TrailView(std::shared_ptr<platform::InkSurface> ink, QWidget* parent)
    : QWidget(parent), m_shape(std::move(ink)) {
    m_shaped = m_shape && m_shape->needed();
    setAttribute(Qt::WA_TranslucentBackground);
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setAttribute(Qt::WA_ShowWithoutActivating);
    setFocusPolicy(Qt::NoFocus);
}

void TrailView::ensureLayer() {
    if (m_ink.size() == size())
        return;
    // Zeroed pages come from the kernel on first touch: a 4K layer costs
    // nothing until ink lands on it.
    const qsizetype bytes = qsizetype(width()) * height() * 4;
    void* mem = std::calloc(size_t(std::max<qsizetype>(bytes, 4)), 1);
    QImage layer(
        static_cast<uchar*>(mem), width(), height(), width() * 4,
        QImage::Format_ARGB32_Premultiplied, [](void* p) { std::free(p); }, mem);
    if (!m_ink.isNull()) {
        QPainter p(&layer);
        p.drawImage(0, 0, m_ink);
    }
    m_ink = layer;
}

void TrailView::add(QPointF p) {
    ensureLayer();
    QRect dirty;
    if (!m_pts.empty()) {
        const QPointF prev = m_pts.back();
        m_length += QLineF(prev, p).length();
        QPainter painter(&m_ink);
        painter.setRenderHint(QPainter::Antialiasing, !m_shaped);
        painter.setPen(inkPen(!m_shaped));
        painter.drawLine(QLineF(prev, p));
        dirty = segmentBounds(prev, p);
    }
    m_pts.push_back(p);

    const auto oldHead = m_head;
    m_head = arrowheadFor(m_pts, m_length);
    QRect oldHeadRect, newHeadRect;
    if (oldHead)
        oldHeadRect = oldHead->bounds(kMargin).toAlignedRect();
    if (m_head)
        newHeadRect = m_head->bounds(kMargin).toAlignedRect();
    if (m_shaped && m_shape) {
        if (oldHead) {
            // Take the old head away, then give back the ink it covered.
            QImage img(oldHeadRect.size(), QImage::Format_ARGB32_Premultiplied);
            img.fill(Qt::transparent);
            QPainter painter(&img);
            painter.translate(-oldHeadRect.topLeft());
            painter.setPen(inkPen(false));
            drawHead(painter, *oldHead);
            painter.end();
            m_shape->subtract(global(spans(img, oldHeadRect.topLeft())));
            reshape(oldHeadRect);
        }
        if (!dirty.isNull())
            reshape(dirty);
        if (m_head)
            reshape(newHeadRect);
    }
    if (!m_shaped)
        update(dirty.united(oldHeadRect).united(newHeadRect));
}

std::vector<QRect> TrailView::global(std::vector<QRect> rects) const {
    const QPoint origin = geometry().topLeft();
    for (QRect& r : rects)
        r.translate(origin);
    return rects;
}

void TrailView::reshape(const QRect& area) {
    if (!area.isEmpty())
        m_shape->unite(global(spans(render(area), area.topLeft())));
}

std::vector<QRect> TrailView::spans(const QImage& img, QPoint origin) {
    std::vector<QRect> out;
    for (int y = 0; y < img.height(); ++y) {
        const auto* line = reinterpret_cast<const QRgb*>(img.constScanLine(y));
        int start = -1;
        for (int x = 0; x <= img.width(); ++x) {
            const bool on = x < img.width() && qAlpha(line[x]) != 0;
            if (on && start < 0)
                start = x;
            if (!on && start >= 0) {
                out.emplace_back(origin.x() + start, origin.y() + y, x - start, 1);
                start = -1;
            }
        }
    }
    return out;
}

QImage TrailView::render(const QRect& area) const {
    QImage img = m_ink.isNull() ? QImage() : m_ink.copy(area); // outside: transparent
    if (img.isNull()) {
        img = QImage(area.size(), QImage::Format_ARGB32_Premultiplied);
        img.fill(Qt::transparent);
    }
    if (m_head && m_head->bounds(kMargin).intersects(area)) {
        QPainter p(&img);
        p.translate(-area.topLeft());
        p.setRenderHint(QPainter::Antialiasing, !m_shaped);
        p.setPen(inkPen(!m_shaped));
        drawHead(p, *m_head);
    }
    return img;
}

void TrailView::drawHead(QPainter& p, const Arrowhead& h) {
    QPainterPath barbs;
    barbs.moveTo(h.tip);
    barbs.lineTo(h.barbA);
    barbs.moveTo(h.tip);
    barbs.lineTo(h.barbB);
    p.drawPath(barbs);
}

void TrailView::paintEvent(QPaintEvent* e) {
    if (m_ink.isNull())
        return;
    QPainter p(this);
    for (const QRect& r : e->region()) {
        p.drawImage(r.topLeft(), m_ink, r);
        if (m_head && m_head->bounds(kMargin).intersects(r)) {
            p.save();
            p.setClipRect(r);
            p.setRenderHint(QPainter::Antialiasing, !m_shaped);
            p.setPen(inkPen(!m_shaped));
            drawHead(p, *m_head);
            p.restore();
        }
    }
}

} // namespace tk
