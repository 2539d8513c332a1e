#include "support/DesktopHarness.h"
#include "support/HttpPeer.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

#include <cmath>

using tk::test::DesktopHarness;
using tk::test::HttpPeer;

class TestContextCapture : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void cleanup() {
        if (QTest::currentTestFailed())
            qWarning().noquote() << m_desk.appLog();
    }
    void lassoAroundAButton();
    void pressOnTheEntry();
    void accessibilityOff();

private:
    QJsonObject captureAround(const QRect& target, bool startInside = true);
    DesktopHarness m_desk;
    HttpPeer m_peer;
    QHash<QString, QRect> m_widgets;
};

void TestContextCapture::initTestCase() {
    QVERIFY2(m_peer.listen(3402), "127.0.0.1:3402 is taken by another process");
    QVERIFY(m_desk.startX());
    QVERIFY(m_desk.startWindowManager());
    QVERIFY(m_desk.startSessionBus());
    QVERIFY(m_desk.setAccessibility(true));
    QProcess* gtk =
        m_desk.spawn("/usr/bin/python3", {DesktopHarness::fixture("context/gtk_window.py")});
    QByteArray out;
    QDeadlineTimer deadline(20000);
    while (!out.contains("READY") && !deadline.hasExpired())
        if (gtk->waitForReadyRead(200))
            out += gtk->readAll();
    const int at = out.indexOf("READY ");
    QVERIFY2(at >= 0, out.constData());
    const QJsonObject w = QJsonDocument::fromJson(out.mid(at + 6).split('\n').first()).object();
    for (auto it = w.begin(); it != w.end(); ++it) {
        const QJsonArray r = it.value().toArray();
        m_widgets.insert(it.key(), QRect(r[0].toInt(), r[1].toInt(), r[2].toInt(), r[3].toInt()));
    }
    QVERIFY(m_widgets.contains("Save"));
    QVERIFY(m_desk.startApp());
    QVERIFY2(m_desk.appLog().contains("ax=granted"), qPrintable(m_desk.appLog()));
}

QJsonObject TestContextCapture::captureAround(const QRect& target, bool startInside) {
    // Starts on the target, then an ellipse just inside its edges.
    QList<QPoint> path;
    const QPoint c = target.center();
    path << (startInside ? c : target.topLeft() - QPoint(40, 40));
    const double rx = target.width() / 2.0 - 8, ry = target.height() / 2.0 - 7;
    for (int i = 0; i <= 24; ++i) {
        const double a = 2 * M_PI * i / 24;
        path << c + QPoint(int(rx * std::cos(a)), int(ry * std::sin(a)));
    }
    return m_desk.gestureContext(path, 10);
}

void TestContextCapture::lassoAroundAButton() {
    const QRect save = m_widgets["Save"];
    const QJsonObject c = captureAround(save);
    QVERIFY(!c.isEmpty());
    const QJsonObject ax = c["ax"].toObject();
    QCOMPARE(ax["permission"].toString(), QStringLiteral("granted"));
    const QJsonObject lasso = ax["lassoAncestor"].toObject();
    if (lasso.isEmpty())
        qWarning().noquote() << m_desk.appLog();
    QCOMPARE(lasso["role"].toString(), QStringLiteral("push button"));
    QCOMPARE(lasso["title"].toString(), QStringLiteral("Save"));
    const QRect got(int(lasso["x"].toDouble()), int(lasso["y"].toDouble()),
                    int(lasso["w"].toDouble()), int(lasso["h"].toDouble()));
    QVERIFY2(std::abs(got.x() - save.x()) <= 2 && std::abs(got.y() - save.y()) <= 2 &&
                 std::abs(got.width() - save.width()) <= 2,
             qPrintable(QStringLiteral("%1,%2 %3x%4")
                            .arg(got.x())
                            .arg(got.y())
                            .arg(got.width())
                            .arg(got.height())));
    const QJsonArray chain = ax["atPoint"].toArray();
    QVERIFY(chain.size() >= 2 && chain.size() <= 8);
    QCOMPARE(chain[0].toObject()["title"].toString(), QStringLiteral("Save"));
    QCOMPARE(chain[0].toObject()["role"].toString(), QStringLiteral("push button"));
    QCOMPARE(chain.last().toObject()["role"].toString(), QStringLiteral("frame"));
    QCOMPARE(chain.last().toObject()["title"].toString(), QStringLiteral("Tolmesk Fixture"));
}

void TestContextCapture::pressOnTheEntry() {
    const QJsonObject c = captureAround(m_widgets["entry"]);
    const QJsonObject hit = c["ax"]["atPoint"][0].toObject();
    QCOMPARE(hit["role"].toString(), QStringLiteral("text"));
    QCOMPARE(hit["value"].toString(), QStringLiteral("a note typed by the tester"));
}

void TestContextCapture::accessibilityOff() {
    QVERIFY(m_desk.setAccessibility(false));
    const QJsonObject c = captureAround(m_widgets["Save"]);
    const QJsonObject ax = c["ax"].toObject();
    QCOMPARE(ax["permission"].toString(), QStringLiteral("denied"));
    QVERIFY(ax["atPoint"].toArray().isEmpty());
    QVERIFY(!ax.contains("lassoAncestor"));
    QVERIFY(m_desk.setAccessibility(true));
}

QTEST_GUILESS_MAIN(TestContextCapture)
#include "tst_context_capture.moc"
