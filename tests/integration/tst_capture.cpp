#include "support/DesktopHarness.h"
#include "support/HttpPeer.h"
#include "writer/Screenshot.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <QTest>

using tk::test::DesktopHarness;
using tk::test::HttpPeer;

namespace {

const QColor kBackground(0x33, 0x66, 0x99);

bool isInk(QRgb c) {
    // The trail's lime, allowing for blending at its edges.
    return qGreen(c) > 150 && qRed(c) > 110 && qRed(c) < 210 && qBlue(c) < 110;
}

int countInk(const QImage& img) {
    int n = 0;
    for (int y = 0; y < img.height(); y += 1)
        for (int x = 0; x < img.width(); x += 1)
            n += isInk(img.pixel(x, y));
    return n;
}

QJsonObject readJson(const QString& path) {
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return {};
    return QJsonDocument::fromJson(f.readAll()).object();
}

QList<QPoint> arc(QPoint from, int n, QPoint step) {
    QList<QPoint> out;
    for (int i = 0; i < n; ++i)
        out << from + step * i;
    return out;
}

} // namespace

class TestCapture : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void gestureWritesFolder();
    void trailShowsWhileHeldOnly();
    void twoGesturesBackToBack();
    void spaceAloneDoesNothing();
    void serviceDownQueuesFolder();
    void unwritableRootStillHandsOff();
    void fallbackToolTakesTheShot();
    void focusPrivacyKeepsOnlyTheLasso();
    void trailUnderACompositor();

private:
    QStringList ingestedDirs() const;
    DesktopHarness m_desk;
    HttpPeer m_peer;
};

void TestCapture::initTestCase() {
    QVERIFY2(m_peer.listen(3402), "127.0.0.1:3402 is taken by another process");
    QVERIFY(m_desk.startX());
    QVERIFY(m_desk.startWindowManager());
    QCOMPARE(m_desk.run("xsetroot", {"-solid", kBackground.name()}), 0);
    m_desk.spawn("xmessage", {"-geometry", "600x200+300+200", "-name", "probe", "-title",
                              "Probe Window", "Something to circle on screen"});
    QByteArray out;
    QCOMPARE(m_desk.run("xdotool",
                        {"search", "--sync", "--name", "Probe Window", "windowactivate", "--sync"},
                        10000, &out),
             0);
    QVERIFY(m_desk.startApp());
    QVERIFY(m_desk.appLog().contains("Tolmesk up. hotkey=Alt+Space ax=denied"));
}

QStringList TestCapture::ingestedDirs() const {
    QStringList out;
    for (const auto& r : m_peer.requests())
        if (r.path == "/api/ingest")
            out << QJsonDocument::fromJson(r.body).object()["dir"].toString();
    return out;
}

void TestCapture::gestureWritesFolder() {
    const int before = m_desk.captureFolders().size();
    const auto path = arc({500, 300}, 25, {12, 4});
    m_desk.gesture(path);
    QVERIFY(m_desk.waitForCaptures(before + 1));
    const QString dir = m_desk.captureFolders().last();
    QVERIFY(m_desk.waitForLog("capture written " + dir));

    QImage shot(dir + "/shot.png");
    QVERIFY(!shot.isNull());
    QCOMPARE(shot.size(), QSize(1920, 1080));
    QCOMPARE(QColor(shot.pixel(5, 1075)), kBackground);   // the desktop, not a blank
    QVERIFY(QColor(shot.pixel(400, 300)) != kBackground); // the probe window is in it
    QCOMPARE(countInk(shot), 0);                          // the trail was gone first

    const QJsonObject c = readJson(dir + "/context.json");
    QCOMPARE(c["id"].toString(), QFileInfo(dir).fileName());
    QCOMPARE(c["app"]["bundleId"].toString(), QStringLiteral("Xmessage"));
    QCOMPARE(c["window"]["title"].toString(), QStringLiteral("Probe Window"));
    QCOMPARE(c["ax"]["permission"].toString(), QStringLiteral("denied"));
    QCOMPARE(c["displayScale"].toDouble(), 1.0);
    const QJsonArray samples = c["pointer"]["path"].toArray();
    QVERIFY2(samples.size() >= path.size() - 1, qPrintable(QString::number(samples.size())));
    const QJsonArray downAt = c["pointer"]["downAt"].toArray();
    QCOMPARE(downAt, (QJsonArray{path.first().x(), path.first().y()}));
    QCOMPARE(samples.first().toArray(), (QJsonArray{path.first().x(), path.first().y(), 0}));
    double lastT = 0, lastX = 0;
    for (const auto& s : samples) {
        const QJsonArray a = s.toArray();
        QCOMPARE(a.size(), 3);
        QVERIFY(a[2].toDouble() >= lastT);
        QVERIFY(a[0].toDouble() >= lastX); // walked left to right, in order
        lastT = a[2].toDouble();
        lastX = a[0].toDouble();
    }
    QCOMPARE(samples.last().toArray()[0].toDouble(), double(path.last().x()));
    QVERIFY(c["startedAt"].toString().endsWith('Z'));
    QVERIFY(!c.contains("audioLevels"));

    QVERIFY(m_peer.waitForRequests(1));
    QVERIFY(ingestedDirs().contains(dir));
    for (const auto& r : m_peer.requests())
        QCOMPARE(r.headers.value("content-type"), QByteArray("application/json"));
    QVERIFY(QDir::isAbsolutePath(ingestedDirs().last()));
}

void TestCapture::trailShowsWhileHeldOnly() {
    const QString grab = m_desk.home() + "/during.png";
    m_desk.moveTo({300, 700});
    m_desk.keyDown("alt");
    m_desk.keyDown("space");
    QTest::qWait(150);
    for (const QPoint& p : arc({300, 700}, 30, {20, 2})) {
        m_desk.moveTo(p);
        QTest::qWait(10);
    }
    QTest::qWait(200);
    QCOMPARE(m_desk.run("import", {"-window", "root", grab}, 20000), 0);
    m_desk.keyUp("space");
    m_desk.keyUp("alt");
    QImage during(grab);
    QVERIFY(!during.isNull());
    // Ink along the stroke; the rest of the screen shows through.
    QVERIFY2(countInk(during.copy(280, 680, 640, 100)) > 500, "no trail drawn");
    QCOMPARE(QColor(during.pixel(1800, 1000)), kBackground);
    QCOMPARE(QColor(during.pixel(350, 650)), kBackground);
    QTest::qWait(300);
    const QString after = m_desk.home() + "/after.png";
    QCOMPARE(m_desk.run("import", {"-window", "root", after}, 20000), 0);
    QCOMPARE(countInk(QImage(after)), 0);
}

void TestCapture::twoGesturesBackToBack() {
    const int before = m_desk.captureFolders().size();
    m_desk.gesture(arc({800, 500}, 6, {5, 5}), 5);
    m_desk.gesture(arc({900, 600}, 6, {-5, 5}), 5);
    QVERIFY(m_desk.waitForCaptures(before + 2));
    const QStringList dirs = m_desk.captureFolders().mid(before);
    QCOMPARE(dirs.size(), 2);
    for (const QString& d : dirs) {
        QVERIFY(QFile::exists(d + "/shot.png"));
        QVERIFY(!readJson(d + "/context.json").isEmpty());
        QTRY_VERIFY(ingestedDirs().contains(d));
    }
}

void TestCapture::spaceAloneDoesNothing() {
    const int before = m_desk.captureFolders().size();
    m_desk.keyDown("space");
    m_desk.moveTo({100, 100});
    m_desk.keyUp("space");
    QTest::qWait(1000);
    QCOMPARE(m_desk.captureFolders().size(), before);
}

void TestCapture::serviceDownQueuesFolder() {
    m_peer.close();
    const int before = m_desk.captureFolders().size();
    m_desk.gesture(arc({600, 600}, 4, {3, 0}), 5);
    QVERIFY(m_desk.waitForCaptures(before + 1));
    const QString dir = m_desk.captureFolders().last();
    const QString conf = m_desk.home() + "/.config/Tolmesk/Tolmesk.conf";
    QTRY_VERIFY_WITH_TIMEOUT(QSettings(conf, QSettings::IniFormat)
                                 .value("tk.pendingIngest")
                                 .toStringList()
                                 .contains(dir),
                             5000);
    QVERIFY(m_peer.listen(3402));
}

void TestCapture::unwritableRootStillHandsOff() {
    DesktopHarness desk;
    QVERIFY(desk.startX(QSize(800, 600)));
    // A file where the captures folder should be: nothing can be written.
    QFile blocker(desk.capturesRoot());
    QVERIFY(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    QVERIFY(desk.startApp());
    const int before = m_peer.requests().size();
    desk.gesture(arc({100, 100}, 5, {10, 10}), 5);
    QVERIFY(desk.waitForLog("capture written " + desk.capturesRoot() + "/"));
    QVERIFY(m_peer.waitForRequests(before + 1));
    QVERIFY(ingestedDirs().last().startsWith(desk.capturesRoot() + "/"));
    desk.gesture(arc({200, 100}, 3, {10, 10}), 5);
    QVERIFY(desk.waitForLog("capture written", 10000, 2)); // still alive
}

void TestCapture::fallbackToolTakesTheShot() {
    // What runs when the native grab fails: a desktop tool, here ImageMagick's.
    const QString path = m_desk.home() + "/fallback.png";
    qputenv("DISPLAY", m_desk.display().toUtf8());
    tk::Screenshot::fallbackShot(path);
    const QImage shot(path);
    QCOMPARE(shot.size(), QSize(1920, 1080));
    QCOMPARE(QColor(shot.pixel(5, 1075)), kBackground);
}

void TestCapture::focusPrivacyKeepsOnlyTheLasso() {
    // The same screen twice: as it is, then with focus privacy on.
    const QList<QPoint> lasso{{320, 230}, {480, 230}, {480, 300}, {320, 300}, {320, 232}};
    const int before = m_desk.captureFolders().size();
    m_desk.gesture(lasso, 5);
    QVERIFY(m_desk.waitForCaptures(before + 1));
    const QImage plain(m_desk.captureFolders().last() + "/shot.png");
    const QString conf = m_desk.home() + "/.config/Tolmesk/Tolmesk.conf";
    {
        QSettings s(conf, QSettings::IniFormat);
        s.setValue("tk.redact", true);
    }
    m_desk.gesture(lasso, 5);
    QVERIFY(m_desk.waitForCaptures(before + 2));
    {
        QSettings s(conf, QSettings::IniFormat);
        s.setValue("tk.redact", false);
    }
    const QImage redacted(m_desk.captureFolders().last() + "/shot.png");
    QCOMPARE(redacted.size(), plain.size());
    const QRect kept(304, 214, 192, 102); // the lasso's box and 16 pixels round it
    QCOMPARE(redacted.copy(kept), plain.copy(kept));
    int changed = 0;
    for (int y = 0; y < plain.height(); y += 2)
        for (int x = 0; x < plain.width(); x += 2)
            changed += !kept.contains(x, y) && plain.pixel(x, y) != redacted.pixel(x, y);
    QVERIFY2(changed > 2000, qPrintable(QString::number(changed)));
}

void TestCapture::trailUnderACompositor() {
    // With a compositor the trail is one translucent window instead of tiles.
    DesktopHarness desk;
    QVERIFY(desk.startX(QSize(1024, 768)));
    QCOMPARE(desk.run("xsetroot", {"-solid", kBackground.name()}), 0);
    // Owns the compositing selection within moments; the app looks at each gesture.
    desk.spawn("xcompmgr", {});
    QVERIFY(desk.startApp());
    const QString grab = desk.home() + "/during.png";
    const QString before = desk.home() + "/before.png";
    desk.moveTo({100, 400});
    QCOMPARE(desk.run("import", {"-window", "root", before}, 20000), 0);
    desk.keyDown("alt");
    desk.keyDown("space");
    QTest::qWait(150);
    for (const QPoint& p : arc({100, 400}, 30, {20, 0})) {
        desk.moveTo(p);
        QTest::qWait(10);
    }
    QTest::qWait(300);
    QCOMPARE(desk.run("import", {"-window", "root", grab}, 20000), 0);
    desk.keyUp("space");
    desk.keyUp("alt");
    const QImage during(grab);
    QVERIFY2(countInk(during.copy(90, 390, 600, 20)) > 500, "no trail drawn");
    // Translucent everywhere else: the desktop shows as it did, not black.
    const QImage was(before);
    QCOMPARE(QColor(during.pixel(900, 700)), QColor(was.pixel(900, 700)));
    QCOMPARE(QColor(during.pixel(300, 300)), QColor(was.pixel(300, 300)));
    QVERIFY(QColor(during.pixel(300, 300)) != QColor(Qt::black));
    QVERIFY(desk.waitForCaptures(1));
    QCOMPARE(countInk(QImage(desk.captureFolders().last() + "/shot.png")), 0);
}

QTEST_GUILESS_MAIN(TestCapture)
#include "tst_capture.moc"
