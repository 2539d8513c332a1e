// The browser page of captures taken over real Chromium and Firefox windows.
#include "support/DesktopHarness.h"
#include "support/HttpPeer.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <QTest>

#include <cmath>

using tk::test::DesktopHarness;
using tk::test::HttpPeer;

namespace {

QByteArray page(const char* title) {
    return QByteArray("<!doctype html><html><head><meta charset=\"utf-8\"><title>") + title +
           "</title></head><body><h1>Checkout</h1><button style=\"font-size:40px\">Pay "
           "now</button><p>Nothing to see but a button.</p></body></html>";
}

const char* const kShopTitle = "Checkout - Fixture Shop";
const char* const kFileTitle = "Local Notes Fixture";

} // namespace

class TestBrowserCapture : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void cleanup();
    void pageOfTheFrontBrowser_data();
    void pageOfTheFrontBrowser();

private:
    bool waitForTitle(const QString& title);
    QJsonObject capture();
    DesktopHarness m_desk;
    HttpPeer m_peer;
    QProcess* m_browser = nullptr;
};

void TestBrowserCapture::initTestCase() {
    // One peer plays both parts: the web site and the capture service.
    m_peer.setAnswer([](const HttpPeer::Request& r) {
        HttpPeer::Answer a;
        if (r.method == "GET" && r.path.startsWith("/shop/")) {
            a.body = page(kShopTitle);
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
    QVERIFY(m_desk.startApp());
    QVERIFY2(m_desk.appLog().contains("ax=granted"), qPrintable(m_desk.appLog()));
    QFile local(m_desk.home() + "/notes.html");
    QVERIFY(local.open(QIODevice::WriteOnly));
    local.write(page(kFileTitle));
}

void TestBrowserCapture::cleanup() {
    if (QTest::currentTestFailed())
        qWarning().noquote() << m_desk.appLog();
    if (m_browser) {
        m_browser->terminate();
        if (!m_browser->waitForFinished(10000))
            m_browser->kill();
        m_browser->waitForFinished(5000);
        m_browser = nullptr;
    }
}

bool TestBrowserCapture::waitForTitle(const QString& title) {
    QDeadlineTimer deadline(60000);
    while (!deadline.hasExpired()) {
        QProcess search;
        search.setProcessEnvironment(m_desk.env());
        search.start("xdotool", {"search", "--onlyvisible", "--name", title});
        search.waitForFinished(5000);
        if (!search.readAllStandardOutput().trimmed().isEmpty())
            return true;
        QTest::qWait(250);
    }
    return false;
}

// A lasso over the middle of the browser window.
QJsonObject TestBrowserCapture::capture() {
    QList<QPoint> path;
    const QPoint c(600, 400);
    for (int i = 0; i <= 16; ++i) {
        const double a = 2 * M_PI * i / 16;
        path << c + QPoint(int(150 * std::cos(a)), int(90 * std::sin(a)));
    }
    return m_desk.gestureContext(path, 10);
}

void TestBrowserCapture::pageOfTheFrontBrowser_data() {
    QTest::addColumn<QString>("program");
    QTest::addColumn<QString>("appId");
    QTest::newRow("chromium") << "chromium"
                              << "chromium";
    QTest::newRow("firefox") << "firefox-esr"
                             << "firefox-esr";
}

void TestBrowserCapture::pageOfTheFrontBrowser() {
    QFETCH(QString, program);
    QFETCH(QString, appId);
    const QString exe = QStandardPaths::findExecutable(program);
    if (exe.isEmpty())
        QSKIP(qPrintable(program + " is not installed"));
    const QString url = "http://127.0.0.1:3402/shop/checkout?step=2";
    const QString profile = m_desk.home() + "/" + program;
    QDir().mkpath(profile);
    QStringList args;
    if (program == "chromium") {
        // Chromium shares its pages with AT-SPI only when asked to at start.
        args = {"--no-sandbox",
                "--no-first-run",
                "--disable-gpu",
                "--disable-background-networking",
                "--disable-component-update",
                "--disable-sync",
                "--password-store=basic",
                "--force-renderer-accessibility",
                "--window-position=0,0",
                "--window-size=1200,800",
                "--user-data-dir=" + profile,
                url};
    } else {
        QFile prefs(profile + "/user.js");
        QVERIFY(prefs.open(QIODevice::WriteOnly));
        prefs.write("user_pref(\"browser.shell.checkDefaultBrowser\", false);\n"
                    "user_pref(\"browser.aboutwelcome.enabled\", false);\n"
                    "user_pref(\"datareporting.policy.dataSubmissionEnabled\", false);\n"
                    "user_pref(\"toolkit.telemetry.reportingpolicy.firstRun\", false);\n"
                    "user_pref(\"browser.startup.homepage_override.mstone\", \"ignore\");\n"
                    "user_pref(\"trailhead.firstrun.didSeeAboutWelcome\", true);\n"
                    "user_pref(\"app.update.enabled\", false);\n");
        prefs.close();
        args = {"--no-remote", "--new-instance", "--profile", profile, "--width",
                "1200",        "--height",       "800",       url};
    }
    m_browser = m_desk.spawn(exe, args);
    QVERIFY2(waitForTitle("Fixture Shop"), "the browser did not show the page");

    // The browser builds its tree for assistive tools lazily: allow a few tries.
    QJsonObject c, browser;
    for (int attempt = 0; attempt < 5 && browser.isEmpty(); ++attempt) {
        if (attempt)
            QTest::qWait(1000);
        c = capture();
        QVERIFY(!c.isEmpty());
        browser = c["browser"].toObject();
    }
    QCOMPARE(c.value("app").toObject().value("bundleId").toString(), appId);
    QCOMPARE(browser["url"].toString(), url);
    QCOMPARE(browser["title"].toString(), QString(kShopTitle));

    // A page from a file is no web page: the capture has no browser record.
    const auto xdotool = [this](const QStringList& args) {
        QProcess p;
        p.setProcessEnvironment(m_desk.env());
        p.start("xdotool", args);
        return p.waitForFinished(20000) && p.exitCode() == 0;
    };
    QVERIFY(xdotool({"search", "--onlyvisible", "--name", "Fixture Shop", "windowactivate",
                     "--sync", "key", "--clearmodifiers", "ctrl+l"}));
    QTest::qWait(300);
    QVERIFY(xdotool({"type", "--delay", "5", "file://" + m_desk.home() + "/notes.html"}));
    QTest::qWait(200);
    QVERIFY(xdotool({"key", "Return"}));
    QVERIFY2(waitForTitle(kFileTitle), "the browser did not open the local page");
    QTest::qWait(1500); // the tree follows the title
    c = capture();
    QVERIFY(!c.isEmpty());
    QCOMPARE(c.value("app").toObject().value("bundleId").toString(), appId);
    QVERIFY2(!c.contains("browser"), qPrintable(QJsonDocument(c["browser"].toObject()).toJson()));
}

QTEST_GUILESS_MAIN(TestBrowserCapture)
#include "tst_browser_capture.moc"
