#include "capture/TrailView.h"

#include <QLineF>
#include <QPaintEvent>
#include <QPainter>
#include <QPainterPath>

#include <algorithm>
#include <cmath>

namespace tk {

namespace {

constexpr int kMargin = 4; // half the pen plus rounding

quint64 cellKey(int cx, int cy) {
    return (quint64(quint32(cx)) << 32) | quint32(cy);
}

QPen inkPen(bool antialias) {
    QColor c = TrailView::inkColour();
    if (!antialias)
        c.setAlphaF(1.0); // cut to its own pixels, the window shows them opaque
    QPen pen(c, TrailStyle::kWidth, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
    return pen;
}

} // namespace

QColor TrailView::inkColour() {
    return QColor::fromRgbF(0.64f, 0.83f, 0.19f, 0.95f);
}

TrailView::TrailView(std::shared_ptr<platform::OverlayShape> shape, QWidget* parent)
    : QWidget(parent), m_shape(std::move(shape)) {
    m_shaped = m_shape && !m_shape->compositing();
    setAttribute(Qt::WA_TranslucentBackground);
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setAttribute(Qt::WA_ShowWithoutActivating);
    setFocusPolicy(Qt::NoFocus);
}

QRect TrailView::segmentBounds(size_t i) const {
    const QRectF r = QRectF(m_pts[i], m_pts[i + 1]).normalized();
    return r.toAlignedRect().adjusted(-kMargin, -kMargin, kMargin, kMargin);
}

std::vector<size_t> TrailView::segmentsIn(const QRect& r) const {
    std::vector<size_t> out;
    const int x0 = int(std::floor(double(r.left()) / kCell));
    const int x1 = int(std::floor(double(r.right()) / kCell));
    const int y0 = int(std::floor(double(r.top()) / kCell));
    const int y1 = int(std::floor(double(r.bottom()) / kCell));
    for (int cx = x0; cx <= x1; ++cx)
        for (int cy = y0; cy <= y1; ++cy) {
            auto it = m_grid.find(cellKey(cx, cy));
            if (it == m_grid.end())
                continue;
            for (size_t s : it->second)
                if (segmentBounds(s).intersects(r))
                    out.push_back(s);
        }
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
    return out;
}

void TrailView::add(QPointF p) {
    QRect dirty;
    if (!m_pts.empty())
        m_length += QLineF(m_pts.back(), p).length();
    m_pts.push_back(p);
    if (m_pts.size() >= 2) {
        const size_t seg = m_pts.size() - 2;
        const QRect b = segmentBounds(seg);
        for (int cx = int(std::floor(double(b.left()) / kCell));
             cx <= int(std::floor(double(b.right()) / kCell)); ++cx)
            for (int cy = int(std::floor(double(b.top()) / kCell));
                 cy <= int(std::floor(double(b.bottom()) / kCell)); ++cy)
                m_grid[cellKey(cx, cy)].push_back(seg);
        dirty = b;
    }
    const auto oldHead = m_head;
    m_head = arrowheadFor(m_pts, m_length);
    QRect oldHeadRect, newHeadRect;
    if (oldHead)
        oldHeadRect = oldHead->bounds(kMargin).toAlignedRect();
    if (m_head)
        newHeadRect = m_head->bounds(kMargin).toAlignedRect();
    if (m_shaped) {
        if (oldHead && m_shape) {
            // Remove the old head, then give back the stroke it covered.
            QImage img(oldHeadRect.size(), QImage::Format_ARGB32_Premultiplied);
            img.fill(Qt::transparent);
            QPainter painter(&img);
            painter.translate(-oldHeadRect.topLeft());
            painter.setPen(inkPen(false));
            drawHead(painter, *oldHead);
            painter.end();
            m_shape->subtract(winId(), spans(img, oldHeadRect.topLeft()));
            reshape(oldHeadRect);
        }
        if (!dirty.isNull())
            reshape(dirty);
        if (m_head)
            reshape(newHeadRect);
    }
    update(dirty.united(oldHeadRect).united(newHeadRect));
}

void TrailView::reshape(const QRect& area) {
    if (!m_shape || area.isEmpty())
        return;
    m_shape->unite(winId(), spans(render(area), area.topLeft()));
}

std::vector<QRect> TrailView::spans(const QImage& img, QPoint origin) const {
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
    QImage img(area.size(), QImage::Format_ARGB32_Premultiplied);
    img.fill(Qt::transparent);
    QPainter p(&img);
    p.translate(-area.topLeft());
    paintArea(p, area);
    return img;
}

void TrailView::paintArea(QPainter& p, const QRect& area) const {
    if (m_pts.size() < 2)
        return;
    p.setRenderHint(QPainter::Antialiasing, !m_shaped);
    p.setPen(inkPen(!m_shaped));
    p.setClipRect(area);
    for (size_t s : segmentsIn(area))
        p.drawLine(QLineF(m_pts[s], m_pts[s + 1]));
    if (m_head && m_head->bounds(kMargin).intersects(area))
        drawHead(p, *m_head);
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
    QPainter p(this);
    for (const QRect& r : e->region())
        paintArea(p, r);
}

} // namespace tk
