#include "context/Blur.h"
#include "context/FocusPrivacy.h"

#include <QFile>
#include <QPainter>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>

using namespace tk;

namespace {

QImage busy(QSize size) {
    QImage img(size, QImage::Format_RGB32);
    QRandomGenerator rng(99);
    for (int y = 0; y < size.height(); ++y)
        for (int x = 0; x < size.width(); ++x)
            img.setPixel(
                x, y, ((x / 7 + y / 5) % 2) ? qRgb(250, 240, 10) : qRgb(rng.bounded(60), 20, 200));
    return img;
}

std::vector<PointerSample> box(double x0, double y0, double x1, double y1) {
    return {{x0, y0, 0}, {x1, y0, 0.1}, {x1, y1, 0.2}, {x0, y1, 0.3}, {x0, y0, 0.4}};
}

// Straight from the definition: a sampled Gaussian to ±3σ, edges clamped.
QImage referenceBlur(const QImage& src, double sigma) {
    const int r = int(std::ceil(3 * sigma));
    std::vector<double> k(size_t(2 * r + 1));
    double total = 0;
    for (int i = -r; i <= r; ++i)
        total += k[size_t(i + r)] = std::exp(-(i * i) / (2 * sigma * sigma));
    for (double& v : k)
        v /= total;
    const int w = src.width(), h = src.height();
    std::vector<double> tmp(size_t(w * h * 3)), out(size_t(w * h * 3));
    auto px = [&](int x, int y) {
        return src.pixel(std::clamp(x, 0, w - 1), std::clamp(y, 0, h - 1));
    };
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int i = -r; i <= r; ++i) {
                const QRgb p = px(x + i, y);
                const double kk = k[size_t(i + r)];
                tmp[size_t((y * w + x) * 3)] += kk * qRed(p);
                tmp[size_t((y * w + x) * 3 + 1)] += kk * qGreen(p);
                tmp[size_t((y * w + x) * 3 + 2)] += kk * qBlue(p);
            }
    QImage dst(src.size(), QImage::Format_RGB32);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            double c[3] = {0, 0, 0};
            for (int i = -r; i <= r; ++i) {
                const int yy = std::clamp(y + i, 0, h - 1);
                for (int ch = 0; ch < 3; ++ch)
                    c[ch] += k[size_t(i + r)] * tmp[size_t((yy * w + x) * 3 + ch)];
            }
            dst.setPixel(
                x, y, qRgb(int(std::lround(c[0])), int(std::lround(c[1])), int(std::lround(c[2]))));
        }
    return dst;
}

int maxDifference(const QImage& a, const QImage& b) {
    int worst = 0;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x) {
            const QRgb p = a.pixel(x, y), q = b.pixel(x, y);
            worst = std::max({worst, std::abs(qRed(p) - qRed(q)), std::abs(qGreen(p) - qGreen(q)),
                              std::abs(qBlue(p) - qBlue(q))});
        }
    return worst;
}

} // namespace

class TestFocusPrivacy : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void keptRectangle_data();
    void keptRectangle();
    void boxes();
    void closeToTheGaussian();
    void edgesDoNotFade();
    void sharpInsideBlurredOutside();
    void lassoAtTheEdge();
    void fileRewrittenOrLeftAlone();
};

void TestFocusPrivacy::keptRectangle_data() {
    QTest::addColumn<std::vector<PointerSample>>("path");
    QTest::addColumn<double>("scale");
    QTest::addColumn<QRectF>("kept");
    // On a 2000-pixel-high picture: x 184, bottom-left y 1684, 432 × 232.
    QTest::newRow("scale 2") << box(100, 50, 300, 150) << 2.0 << QRectF(184, 84, 432, 232);
    QTest::newRow("vertical stroke: 32 wide") << std::vector<PointerSample>{{40, 10, 0},
                                                                            {40, 20, 0},
                                                                            {40, 30, 0},
                                                                            {40, 40, 0},
                                                                            {40, 50, 0}}
                                              << 1.0 << QRectF(24, -6, 32, 72);
    auto four = box(0, 0, 9, 9);
    four.pop_back();
    QTest::newRow("four points: nothing") << four << 1.0 << QRectF();
}

void TestFocusPrivacy::keptRectangle() {
    QFETCH(std::vector<PointerSample>, path);
    QFETCH(double, scale);
    QFETCH(QRectF, kept);
    const auto got = FocusPrivacy::keptRect(path, scale);
    QCOMPARE(got.has_value(), !kept.isNull());
    if (got)
        QCOMPARE(*got, kept);
    if (got && scale == 2.0)
        QCOMPARE(2000 - got->bottom(), 1684.0); // the same box with its origin at the bottom
}

void TestFocusPrivacy::boxes() {
    QCOMPARE(Blur::boxRadii(24), (std::array<int, 3>{23, 23, 24}));
    for (double sigma : {2.0, 5.5, 24.0, 40.0}) {
        double variance = 0;
        for (int r : Blur::boxRadii(sigma))
            variance += ((2.0 * r + 1) * (2.0 * r + 1) - 1) / 12.0;
        QVERIFY2(std::abs(std::sqrt(variance) - sigma) < 0.35 + sigma * 0.02,
                 qPrintable(QString::number(sigma)));
    }
}

void TestFocusPrivacy::closeToTheGaussian() {
    const QImage src = busy(QSize(180, 140));
    QImage ours = src;
    Blur::gaussian(ours, 24, 2);
    const int worst = maxDifference(ours, referenceBlur(src, 24));
    qInfo() << "largest difference from a true Gaussian:" << worst << "of 255";
    QVERIFY(worst <= 2);
    QVERIFY(maxDifference(ours, src) > 60); // it did blur
}

void TestFocusPrivacy::edgesDoNotFade() {
    QImage flat(300, 90, QImage::Format_RGB32);
    flat.fill(qRgb(200, 120, 40));
    QImage blurred = flat;
    Blur::gaussian(blurred, 24);
    QCOMPARE(blurred, flat);
}

void TestFocusPrivacy::sharpInsideBlurredOutside() {
    const QImage src = busy(QSize(400, 300));
    QImage img = src;
    QVERIFY(FocusPrivacy::applyTo(img, box(100, 100, 200, 150), 1.0));
    QCOMPARE(img.size(), src.size());
    const QRect kept(84, 84, 132, 82);
    QCOMPARE(img.copy(kept), src.copy(kept));
    QVERIFY(img.copy(kept.adjusted(-1, -1, 1, 1)) != src.copy(kept.adjusted(-1, -1, 1, 1)));
    QVERIFY(maxDifference(img.copy(0, 0, 80, 80), src.copy(0, 0, 80, 80)) > 60);
    QVERIFY(maxDifference(img.copy(300, 200, 100, 100), src.copy(300, 200, 100, 100)) > 60);
}

void TestFocusPrivacy::lassoAtTheEdge() {
    const QImage src = busy(QSize(200, 100));
    QImage img = src;
    QVERIFY(FocusPrivacy::applyTo(img, box(-30, -30, 10, 10), 2.0));
    QCOMPARE(img.size(), src.size());
    QCOMPARE(img.copy(0, 0, 36, 36), src.copy(0, 0, 36, 36)); // what of the box is inside
    QVERIFY(img.copy(40, 40, 60, 60) != src.copy(40, 40, 60, 60));
}

void TestFocusPrivacy::fileRewrittenOrLeftAlone() {
    QTemporaryDir dir;
    const QString shot = dir.filePath("shot.png");
    QVERIFY(busy(QSize(160, 120)).save(shot));
    const QByteArray before = [&] {
        QFile f(shot);
        f.open(QIODevice::ReadOnly);
        return f.readAll();
    }();
    auto four = box(10, 10, 50, 50);
    four.pop_back();
    QVERIFY(!FocusPrivacy::apply(shot, four, 1.0));
    QVERIFY(!FocusPrivacy::apply(dir.filePath("missing.png"), box(10, 10, 50, 50), 1.0));
    QFile f(shot);
    QVERIFY(f.open(QIODevice::ReadOnly));
    QCOMPARE(f.readAll(), before);
    f.close();
    QVERIFY(FocusPrivacy::apply(shot, box(10, 10, 50, 50), 1.0));
    const QImage after(shot);
    QCOMPARE(after.size(), QSize(160, 120));
    QCOMPARE(after.convertToFormat(QImage::Format_RGB32).copy(0, 0, 60, 60),
             busy(QSize(160, 120)).copy(0, 0, 60, 60));
    QVERIFY(after.convertToFormat(QImage::Format_RGB32) != busy(QSize(160, 120)));
}

QTEST_GUILESS_MAIN(TestFocusPrivacy)
#include "tst_focus_privacy.moc"
