#pragma once

#include "capture/TrailGeometry.h"
#include "platform/Platform.h"

#include <QColor>
#include <QWidget>

#include <unordered_map>
#include <vector>

namespace tk {

// Draws the ink trail. Each new point repaints only what it touches: a grid of
// segments answers "what lies here" without walking the whole path.
class TrailView final : public QWidget {
    Q_OBJECT
public:
    // `shape` non-null and not compositing: the window is cut to the drawn pixels.
    TrailView(std::shared_ptr<platform::OverlayShape> shape, QWidget* parent = nullptr);

    void add(QPointF p); // view coordinates
    const std::vector<QPointF>& points() const { return m_pts; }
    std::optional<Arrowhead> head() const { return m_head; }
    bool shaped() const { return m_shaped; }
    // The pixels one paint pass draws over `area`; the same raster the window shows.
    QImage render(const QRect& area) const;

    static QColor inkColour();

protected:
    void paintEvent(QPaintEvent* e) override;

private:
    static constexpr int kCell = 64;
    QRect segmentBounds(size_t i) const;
    std::vector<size_t> segmentsIn(const QRect& r) const;
    void paintArea(QPainter& p, const QRect& area) const;
    static void drawHead(QPainter& p, const Arrowhead& h);
    void reshape(const QRect& area);
    std::vector<QRect> spans(const QImage& img, QPoint origin) const;

    std::vector<QPointF> m_pts;
    double m_length = 0;
    std::unordered_map<quint64, std::vector<size_t>> m_grid;
    std::optional<Arrowhead> m_head;
    std::shared_ptr<platform::OverlayShape> m_shape;
    bool m_shaped = false;
};

} // namespace tk
