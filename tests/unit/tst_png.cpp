#include "writer/PngEncoder.h"

#include <QBuffer>
#include <QImageReader>
#include <QPainter>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

#include <zlib.h>

using namespace tk;

Q_DECLARE_METATYPE(PngEncoder::Filter)

namespace {

// Flat areas, text-like edges and noise: what a screen holds.
QImage screenLike(QSize size, quint32 seed) {
    QImage img(size, QImage::Format_RGB32);
    img.fill(QColor(240, 240, 240));
    QPainter p(&img);
    QRandomGenerator rng(seed);
    for (int i = 0; i < 40; ++i) {
        p.fillRect(QRect(rng.bounded(size.width()), rng.bounded(size.height()), rng.bounded(1, 200),
                         rng.bounded(1, 120)),
                   QColor::fromRgb(rng.generate() | 0xff000000));
        p.drawText(QPoint(rng.bounded(size.width()), rng.bounded(size.height())),
                   QStringLiteral("The quick brown fox %1").arg(i));
    }
    p.end();
    for (int i = 0; i < size.width() * size.height() / 50; ++i)
        img.setPixel(rng.bounded(size.width()), rng.bounded(size.height()),
                     rng.generate() | 0xff000000);
    return img;
}

QImage decode(const QByteArray& png) {
    QBuffer b;
    b.setData(png);
    QImageReader r(&b, "png");
    return r.read();
}

} // namespace

class TestPng : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void roundTrip_data();
    void roundTrip();
    void streamIsStrictlyValid();
    void alphaIsDropped();
    void writeReplacesAtomically();
};

void TestPng::roundTrip_data() {
    QTest::addColumn<QSize>("size");
    QTest::addColumn<PngEncoder::Filter>("filter");
    QTest::addColumn<int>("threads");
    QTest::addColumn<int>("rows");
    QTest::addColumn<int>("level");
    QTest::newRow("one pixel") << QSize(1, 1) << PngEncoder::Filter::Up << 0 << 0 << 1;
    QTest::newRow("one column") << QSize(1, 300) << PngEncoder::Filter::Sub << 2 << 7 << 1;
    QTest::newRow("one row") << QSize(777, 1) << PngEncoder::Filter::Up << 4 << 0 << 6;
    QTest::newRow("odd, many strips") << QSize(333, 257) << PngEncoder::Filter::Up << 3 << 16 << 1;
    QTest::newRow("none filter") << QSize(640, 480) << PngEncoder::Filter::None << 2 << 0 << 1;
    QTest::newRow("sub filter") << QSize(640, 480) << PngEncoder::Filter::Sub << 2 << 0 << 1;
    QTest::newRow("one thread") << QSize(640, 480) << PngEncoder::Filter::Up << 1 << 0 << 9;
    QTest::newRow("full hd, defaults")
        << QSize(1920, 1080) << PngEncoder::Filter::Up << 0 << 0 << 1;
}

void TestPng::roundTrip() {
    QFETCH(QSize, size);
    QFETCH(PngEncoder::Filter, filter);
    QFETCH(int, threads);
    QFETCH(int, rows);
    QFETCH(int, level);
    const QImage src = screenLike(size, quint32(size.width() * 31 + size.height()));
    PngEncoder::Options o;
    o.filter = filter;
    o.threads = threads;
    o.rowsPerStrip = rows;
    o.level = level;
    const QByteArray png = PngEncoder::encode(src, o);
    QVERIFY(!png.isEmpty());
    const QImage back = decode(png);
    QCOMPARE(back.size(), size);
    QCOMPARE(back.convertToFormat(QImage::Format_RGB32), src);
}

void TestPng::streamIsStrictlyValid() {
    // Decoders differ in how much they forgive; inflate the IDAT stream ourselves
    // and check the zlib checksum and every chunk's CRC.
    const QImage src = screenLike(QSize(500, 400), 7);
    PngEncoder::Options o;
    o.threads = 2;
    o.rowsPerStrip = 33;
    const QByteArray png = PngEncoder::encode(src, o);
    QVERIFY(png.startsWith("\x89PNG\r\n\x1a\n"));
    QByteArray idat;
    int pos = 8;
    bool sawEnd = false;
    while (pos + 12 <= png.size()) {
        const auto* p = reinterpret_cast<const uchar*>(png.constData() + pos);
        const quint32 len = (quint32(p[0]) << 24) | (p[1] << 16) | (p[2] << 8) | p[3];
        const QByteArray type = png.mid(pos + 4, 4);
        const QByteArray data = png.mid(pos + 8, int(len));
        const uchar* c = p + 8 + len;
        const quint32 crc = (quint32(c[0]) << 24) | (c[1] << 16) | (c[2] << 8) | c[3];
        uLong want = crc32(0, reinterpret_cast<const Bytef*>(type.constData()), 4);
        want = crc32(want, reinterpret_cast<const Bytef*>(data.constData()), uInt(data.size()));
        QCOMPARE(crc, quint32(want));
        if (type == "IDAT")
            idat += data;
        sawEnd = type == "IEND";
        pos += 12 + int(len);
    }
    QVERIFY(sawEnd);
    QCOMPARE(pos, png.size());
    QByteArray raw(500 * 400 * 3 + 400, '\0');
    uLongf rawLen = uLongf(raw.size());
    QCOMPARE(uncompress(reinterpret_cast<Bytef*>(raw.data()), &rawLen,
                        reinterpret_cast<const Bytef*>(idat.constData()), uLong(idat.size())),
             Z_OK);
    QCOMPARE(int(rawLen), raw.size());
}

void TestPng::alphaIsDropped() {
    QImage src(64, 64, QImage::Format_ARGB32);
    src.fill(qRgba(10, 20, 30, 0));
    const QImage back = decode(PngEncoder::encode(src));
    QVERIFY(!back.hasAlphaChannel());
    QCOMPARE(QColor(back.pixel(3, 3)), QColor(10, 20, 30));
}

void TestPng::writeReplacesAtomically() {
    QTemporaryDir dir;
    const QString path = dir.filePath("shot.png");
    QVERIFY(PngEncoder::write(screenLike(QSize(100, 80), 3), path));
    QCOMPARE(QImage(path).size(), QSize(100, 80));
    QVERIFY(!PngEncoder::write(screenLike(QSize(10, 10), 4), dir.filePath("missing/shot.png")));
    QVERIFY(PngEncoder::encode(QImage()).isEmpty());
    QCOMPARE(QDir(dir.path()).entryList(QDir::Files), QStringList{"shot.png"}); // no leftovers
}

QTEST_MAIN(TestPng)
#include "tst_png.moc"
