#include "writer/Screenshot.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QImage>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

using namespace tk;

namespace {

// A grabber standing in for a display that answers late, or not at all.
class SlowGrabber final : public platform::ScreenGrabber {
public:
    SlowGrabber(int delayMs, bool works) : m_delayMs(delayMs), m_works(works) {}
    bool available() const override { return true; }
    std::optional<platform::Grab>
    grabUnderPointer(std::span<const unsigned long> exclude) override {
        excluded.assign(exclude.begin(), exclude.end());
        QThread::msleep(ulong(m_delayMs));
        if (!m_works)
            return std::nullopt;
        QImage img(64, 48, QImage::Format_RGB32);
        img.fill(Qt::darkCyan);
        return platform::Grab{img, 1.0};
    }
    std::vector<unsigned long> excluded;

private:
    int m_delayMs;
    bool m_works;
};

void script(const QString& path) {
    QFile f(path);
    QVERIFY(f.open(QIODevice::WriteOnly));
    f.write("#!/bin/sh\nexit 0\n");
    f.close();
    f.setPermissions(f.permissions() | QFileDevice::ExeOwner);
}

} // namespace

class TestScreenshot : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void nativeWritesPng();
    void failingGrabReportsFailure();
    void lateGrabIsAbandonedButStillWrites();
    void fallbackOrder();
};

void TestScreenshot::nativeWritesPng() {
    QTemporaryDir dir;
    auto g = std::make_shared<SlowGrabber>(0, true);
    const QString path = dir.filePath("shot.png");
    QVERIFY(Screenshot::nativeShot(g, path, {42ul, 7ul}));
    QCOMPARE(QImage(path).size(), QSize(64, 48));
    QCOMPARE(g->excluded, (std::vector<unsigned long>{42, 7}));
}

void TestScreenshot::failingGrabReportsFailure() {
    QTemporaryDir dir;
    QVERIFY(!Screenshot::nativeShot(std::make_shared<SlowGrabber>(0, false), dir.filePath("s.png"),
                                    {}));
    QVERIFY(!QFile::exists(dir.filePath("s.png")));
    QVERIFY(!Screenshot::nativeShot(nullptr, dir.filePath("s.png"), {}));
}

void TestScreenshot::lateGrabIsAbandonedButStillWrites() {
    QTemporaryDir dir;
    const QString path = dir.filePath("shot.png");
    QElapsedTimer t;
    t.start();
    QVERIFY(!Screenshot::nativeShot(std::make_shared<SlowGrabber>(600, true), path, {},
                                    std::chrono::milliseconds(100)));
    QVERIFY(t.elapsed() < 550); // gave up at the bound, not when the grab ended
    QVERIFY(!QFile::exists(path));
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(path), 3000);
    QTRY_COMPARE_WITH_TIMEOUT(QImage(path).size(), QSize(64, 48), 3000);
}

void TestScreenshot::fallbackOrder() {
    QTemporaryDir bin;
    const QByteArray oldPath = qgetenv("PATH");
    qputenv("PATH", bin.path().toUtf8());
    QVERIFY(Screenshot::fallbackCommand("/x/shot.png").isEmpty());
    script(bin.filePath("import"));
    QCOMPARE(Screenshot::fallbackCommand("/x/shot.png"),
             (QStringList{bin.filePath("import"), "-window", "root", "/x/shot.png"}));
    script(bin.filePath("gnome-screenshot"));
    QCOMPARE(Screenshot::fallbackCommand("/x/shot.png"),
             (QStringList{bin.filePath("gnome-screenshot"), "-f", "/x/shot.png"}));
    script(bin.filePath("grim"));
    QCOMPARE(Screenshot::fallbackCommand("/x/shot.png"),
             (QStringList{bin.filePath("grim"), "/x/shot.png"}));
    qputenv("PATH", oldPath);
}

QTEST_GUILESS_MAIN(TestScreenshot)
#include "tst_screenshot.moc"
