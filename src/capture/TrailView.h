#pragma once

#include "capture/TrailGeometry.h"
#include "platform/Platform.h"

#include <QColor>
#include <QImage>
#include <QWidget>

#include <vector>

namespace tk {

// Draws the ink trail. Each segment is drawn once into a layer the size of the
// view; a repaint copies only the area a new point touched, so a point costs
// the same however long or tangled the path already is.
class TrailView final : public QWidget {
    Q_OBJECT
public:
    // With an ink surface that is needed (no compositor), the server draws the
    // ink and this view only keeps the picture; it is never shown.
    explicit TrailView(std::shared_ptr<platform::InkSurface> ink, QWidget* parent = nullptr);

    void add(QPointF p); // view coordinates
    const std::vector<QPointF>& points() const { return m_pts; }
    std::optional<Arrowhead> head() const { return m_head; }
    bool shaped() const { return m_shaped; }
    // The pixels the window shows over `area`.
    QImage render(const QRect& area) const;

    static QColor inkColour();

protected:
    void paintEvent(QPaintEvent* e) override;

private:
    void ensureLayer();
    void reshape(const QRect& area);
    std::vector<QRect> global(std::vector<QRect> rects) const;
    static void drawHead(QPainter& p, const Arrowhead& h);
    static std::vector<QRect> spans(const QImage& img, QPoint origin);

    std::vector<QPointF> m_pts;
    double m_length = 0;
    QImage m_ink; // every segment so far; the head is drawn over it, never into it
    std::optional<Arrowhead> m_head;
    std::shared_ptr<platform::InkSurface> m_shape;
    bool m_shaped = false;
};

} // namespace tk
