#include "capture/TrailGeometry.h"
#include "capture/TrailView.h"

#include <QPainter>
#include <QRandomGenerator>
#include <QRegion>
#include <QTest>

#include <cmath>

using namespace tk;

namespace {

std::vector<QPointF> line(QPointF from, QPointF step, int n) {
    std::vector<QPointF> pts;
    for (int i = 0; i < n; ++i)
        pts.push_back(from + step * i);
    return pts;
}

std::vector<QPointF> circle(QPointF c, double r, int n) {
    std::vector<QPointF> pts;
    for (int i = 0; i <= n; ++i) {
        const double a = 2 * M_PI * i / n;
        pts.emplace_back(c.x() + r * std::cos(a), c.y() + r * std::sin(a));
    }
    return pts;
}

// Keeps the window's shape as the server would: a region edited rect by rect.
class RegionShape final : public platform::InkSurface {
public:
    bool needed() const override { return true; }
    void begin(QRect, QRgb) override { region = QRegion(); }
    void end() override { region = QRegion(); }
    void unite(std::span<const QRect> rects) override {
        for (const QRect& r : rects)
            region += r;
    }
    void subtract(std::span<const QRect> rects) override {
        for (const QRect& r : rects)
            region -= r;
    }
    QRegion region;
};

QRegion inked(const QImage& img) {
    QRegion out;
    for (int y = 0; y < img.height(); ++y)
        for (int x = 0; x < img.width(); ++x)
            if (qAlpha(img.pixel(x, y)))
                out += QRect(x, y, 1, 1);
    return out;
}

} // namespace

class TestTrail : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void arrowhead_data();
    void arrowhead();
    void headFollowsTheEnd();
    void tilesMatchWholePicture();
    void onePointDrawsNothing();
    void shapeIsExactlyTheInk();
};

void TestTrail::arrowhead_data() {
    QTest::addColumn<std::vector<QPointF>>("pts");
    QTest::addColumn<bool>("head");
    QTest::newRow("one sample") << line({0, 0}, {10, 0}, 1) << false;
    QTest::newRow("six points straight, long") << line({0, 0}, {30, 0}, 6) << false;
    QTest::newRow("seven points straight, 60 long") << line({0, 0}, {10, 0}, 7) << false;
    QTest::newRow("seven points straight, 61.2 long") << line({0, 0}, {10.2, 0}, 7) << true;
    QTest::newRow("diagonal swipe") << line({100, 100}, {8, -6}, 20) << true;
    QTest::newRow("closed circle") << circle({200, 200}, 80, 40) << false;
    QTest::newRow("big circle, many points") << circle({500, 500}, 300, 400) << false;
    std::vector<QPointF> ell = line({0, 0}, {0, 10}, 10);
    for (auto p : line({0, 90}, {10, 0}, 10))
        ell.push_back(p);
    // 90 + 90 long, ends ~127 apart: straightness 0.707 > 0.7
    QTest::newRow("L at 0.707") << ell << true;
    std::vector<QPointF> ell2 = line({0, 0}, {0, 10}, 11);
    for (auto p : line({0, 100}, {10, 0}, 11))
        ell2.push_back(p);
    ell2.push_back({110, 100}); // ends 148.7 apart over 210: 0.708
    QTest::newRow("L just above") << ell2 << true;
    std::vector<QPointF> ell3 = line({0, 0}, {0, 10}, 13);
    for (auto p : line({0, 120}, {10, 0}, 7))
        ell3.push_back(p); // 120 + 60: chord 134.2 / 180 = 0.745
    QTest::newRow("uneven L") << ell3 << true;
    std::vector<QPointF> u = line({0, 0}, {0, 10}, 10);
    for (auto p : line({0, 90}, {10, 0}, 10))
        u.push_back(p);
    for (auto p : line({90, 90}, {0, -10}, 5))
        u.push_back(p); // 90+90+40: chord 101 / 220 = 0.46
    QTest::newRow("hook") << u << false;
}

void TestTrail::arrowhead() {
    QFETCH(std::vector<QPointF>, pts);
    QFETCH(bool, head);
    const auto h = arrowheadFor(pts, polylineLength(pts));
    QCOMPARE(bool(h), head);
    if (!h)
        return;
    QCOMPARE(h->tip, pts.back());
    QCOMPARE(QLineF(h->tip, h->barbA).length(), 16.0);
    QCOMPARE(QLineF(h->tip, h->barbB).length(), 16.0);
}

void TestTrail::headFollowsTheEnd() {
    // A long swipe right that turns up for its last points: the head points up.
    auto pts = line({0, 500}, {10, 0}, 40);
    for (auto p : line({400, 495}, {0, -5}, 6))
        pts.push_back(p);
    const auto h = arrowheadFor(pts, polylineLength(pts));
    QVERIFY(h);
    // Barbs trail below the tip when the end of the stroke heads up.
    QVERIFY(h->barbA.y() > h->tip.y() && h->barbB.y() > h->tip.y());
    QVERIFY(std::abs(h->barbA.x() - h->barbB.x()) > 10);
    // The overall direction (right) would put them left of the tip.
    QVERIFY(std::abs((h->barbA.x() + h->barbB.x()) / 2 - h->tip.x()) < 2);
}

void TestTrail::tilesMatchWholePicture() {
    // Incremental repaints only ever draw a small area; what they draw must be
    // what a full repaint shows there, even where segments cross grid cells.
    TrailView v(nullptr);
    v.resize(800, 600);
    auto* rng = QRandomGenerator::global();
    QPointF p(400, 300);
    for (int i = 0; i < 400; ++i) {
        v.add(p);
        p += QPointF(rng->bounded(-30, 31), rng->bounded(-30, 31));
        p.setX(std::clamp(p.x(), 0.0, 799.0));
        p.setY(std::clamp(p.y(), 0.0, 599.0));
    }
    for (auto pt : line(p, {9, 0}, 12)) // finish with a swipe so a head is drawn
        v.add(pt);
    const QRect all(0, 0, 800, 600);
    const QImage whole = v.render(all);
    QImage tiled(all.size(), QImage::Format_ARGB32_Premultiplied);
    tiled.fill(Qt::transparent);
    QPainter painter(&tiled);
    for (int y = 0; y < 600; y += 37)
        for (int x = 0; x < 800; x += 53) {
            const QRect t(x, y, 53, 37);
            painter.drawImage(t.topLeft(), v.render(t));
        }
    painter.end();
    QVERIFY(!inked(whole).isEmpty());
    QCOMPARE(tiled, whole);
}

void TestTrail::onePointDrawsNothing() {
    TrailView v(nullptr);
    v.resize(200, 200);
    v.add({50, 50});
    QVERIFY(inked(v.render(QRect(0, 0, 200, 200))).isEmpty());
    v.add({60, 50});
    QVERIFY(!inked(v.render(QRect(0, 0, 200, 200))).isEmpty());
}

void TestTrail::shapeIsExactlyTheInk() {
    auto shape = std::make_shared<RegionShape>();
    TrailView v(shape);
    QVERIFY(v.shaped());
    v.setGeometry(0, 0, 400, 300);
    // A swipe (head on, moving) that turns back over itself (head off again),
    // then a final swipe: the head comes and goes over drawn ink.
    std::vector<QPointF> pts = line({20, 150}, {12, 0}, 20);
    for (auto p : line({248, 150}, {-6, 2}, 25))
        pts.push_back(p);
    for (auto p : line({104, 200}, {10, -6}, 15))
        pts.push_back(p);
    for (size_t i = 0; i < pts.size(); ++i) {
        v.add(pts[i]);
        if (i % 7 == 0 || i + 1 == pts.size())
            QCOMPARE(shape->region, inked(v.render(QRect(0, 0, 400, 300))));
    }
    // On a screen that does not start at the origin the ink moves with it.
    TrailView offset(shape);
    shape->region = QRegion();
    offset.setGeometry(1920, 0, 400, 300);
    offset.add({10, 10});
    offset.add({60, 10});
    QCOMPARE(shape->region, inked(offset.render(QRect(0, 0, 400, 300))).translated(1920, 0));
}

QTEST_MAIN(TestTrail)
#include "tst_trail.moc"
