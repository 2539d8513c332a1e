// The browser page of a capture taken over a real Chromium window.
#include "support/DesktopHarness.h"
#include "support/HttpPeer.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <QTest>

#include <cmath>

using tk::test::DesktopHarness;
using tk::test::HttpPeer;

namespace {

const QByteArray kPage = "<!doctype html><html><head><meta charset=\"utf-8\">"
                         "<title>Checkout - Fixture Shop</title></head>"
                         "<body style=\"margin:0\"><h1>Checkout</h1>"
                         "<button style=\"font-size:40px\">Pay now</button>"
                         "<p>Nothing to see but a button.</p></body></html>";

} // namespace

class TestBrowserCapture : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void cleanup() {
        if (QTest::currentTestFailed())
            qWarning().noquote() << m_desk.appLog();
    }
    void pageOfTheFrontBrowser();

private:
    DesktopHarness m_desk;
    HttpPeer m_peer;
};

void TestBrowserCapture::initTestCase() {
    const QString chromium = QStandardPaths::findExecutable("chromium");
    if (chromium.isEmpty())
        QSKIP("chromium is not installed");
    // One peer plays both parts: the web site and the capture service.
    m_peer.setAnswer([](const HttpPeer::Request& r) {
        HttpPeer::Answer a;
        if (r.method == "GET" && r.path.startsWith("/shop/")) {
            a.body = kPage;
            a.contentType = "text/html; charset=utf-8";
        } else if (r.method == "GET") {
            a.status = 404;
        }
        return a;
    });
    QVERIFY2(m_peer.listen(3402), "127.0.0.1:3402 is taken by another process");
    QVERIFY(m_desk.startX());
    QVERIFY(m_desk.startWindowManager());
    QVERIFY(m_desk.startSessionBus());
    QVERIFY(m_desk.setAccessibility(true));
    m_desk.spawn(chromium, {"--no-sandbox", "--no-first-run", "--disable-gpu",
                            "--disable-background-networking", "--disable-component-update",
                            "--disable-sync", "--password-store=basic", "--force-renderer-accessibility",
                            "--window-position=0,0",
                            "--window-size=1200,800", "--user-data-dir=" + m_desk.home() + "/cr",
                            "http://127.0.0.1:3402/shop/checkout?step=2"});
    // Up once its window carries the page's title.
    QDeadlineTimer deadline(60000);
    bool up = false;
    while (!up && !deadline.hasExpired()) {
        QProcess search;
        search.setProcessEnvironment(m_desk.env());
        search.start("xdotool", {"search", "--name", "Fixture Shop"});
        search.waitForFinished(5000);
        up = !search.readAllStandardOutput().trimmed().isEmpty();
        if (!up)
            QTest::qWait(250);
    }
    QVERIFY2(up, "Chromium did not show the page");
    QVERIFY(m_desk.startApp());
    QVERIFY2(m_desk.appLog().contains("ax=granted"), qPrintable(m_desk.appLog()));
}

void TestBrowserCapture::pageOfTheFrontBrowser() {
    // Chromium builds its tree for assistive tools lazily: allow a few tries.
    QJsonObject browser;
    for (int attempt = 0; attempt < 4 && browser.isEmpty(); ++attempt) {
        QList<QPoint> path;
        const QPoint c(600, 400);
        for (int i = 0; i <= 16; ++i) {
            const double a = 2 * M_PI * i / 16;
            path << c + QPoint(int(150 * std::cos(a)), int(90 * std::sin(a)));
        }
        const int before = m_desk.captureFolders().size();
        m_desk.gesture(path, 10);
        QVERIFY(m_desk.waitForCaptures(before + 1));
        QFile f(m_desk.captureFolders().last() + "/context.json");
        QVERIFY(f.open(QIODevice::ReadOnly));
        const QJsonObject c1 = QJsonDocument::fromJson(f.readAll()).object();
        QCOMPARE(c1["app"]["bundleId"].toString(), QStringLiteral("chromium"));
        browser = c1["browser"].toObject();
        if (browser.isEmpty())
            QTest::qWait(1000);
    }
    QCOMPARE(browser["url"].toString(),
             QStringLiteral("http://127.0.0.1:3402/shop/checkout?step=2"));
    QCOMPARE(browser["title"].toString(), QStringLiteral("Checkout - Fixture Shop"));
}

QTEST_GUILESS_MAIN(TestBrowserCapture)
#include "tst_browser_capture.moc"
