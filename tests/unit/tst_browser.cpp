#include "context/Browser.h"
#include "platform/Accessibility.h"

#include <QTest>

using namespace tk;

namespace {

class ScriptedDocument final : public platform::Accessibility {
public:
    bool trusted() override { return trustedNow; }
    std::vector<platform::AxElement> chain(QPointF, int) override { return {}; }
    std::optional<Document> shownDocument(qint64 pid, const QString& attribute) override {
        askedPid = pid;
        askedAttribute = attribute;
        ++asked;
        return doc;
    }
    bool trustedNow = true;
    std::optional<Document> doc;
    qint64 askedPid = 0;
    QString askedAttribute;
    int asked = 0;
};

} // namespace

class TestBrowser : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void page_data();
    void page();
    void otherApplicationsCostNothing();
};

void TestBrowser::page_data() {
    QTest::addColumn<QString>("app");
    QTest::addColumn<QString>("address");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("attribute");
    QTest::addColumn<QString>("url"); // empty: no page
    QTest::newRow("chromium") << "chromium"
                              << "http://127.0.0.1:8080/a"
                              << "A"
                              << "URI"
                              << "http://127.0.0.1:8080/a";
    QTest::newRow("chrome") << "google-chrome"
                            << "https://x.test/"
                            << "X"
                            << "URI"
                            << "https://x.test/";
    QTest::newRow("brave") << "brave-browser"
                           << "https://b.test/"
                           << "B"
                           << "URI"
                           << "https://b.test/";
    QTest::newRow("firefox") << "firefox"
                             << "https://f.test/"
                             << "F"
                             << "DocURL"
                             << "https://f.test/";
    QTest::newRow("firefox esr, trimmed") << "firefox-esr"
                                          << "  https://f.test/ \n"
                                          << " F "
                                          << "DocURL"
                                          << "https://f.test/";
    QTest::newRow("file page") << "chromium"
                               << "file:///tmp/a.html"
                               << "A"
                               << "URI"
                               << "";
    QTest::newRow("internal page") << "firefox-esr"
                                   << "about:blank"
                                   << ""
                                   << "DocURL"
                                   << "";
}

void TestBrowser::page() {
    QFETCH(QString, app);
    QFETCH(QString, address);
    QFETCH(QString, title);
    QFETCH(QString, attribute);
    QFETCH(QString, url);
    ScriptedDocument ax;
    ax.doc = platform::Accessibility::Document{address, title};
    const auto got = Browser::active(app, 4242, ax);
    QCOMPARE(ax.askedAttribute, attribute);
    QCOMPARE(ax.askedPid, qint64(4242));
    QCOMPARE(got.has_value(), !url.isEmpty());
    if (got) {
        QCOMPARE(got->url, url);
        QCOMPARE(got->title, title.trimmed());
    }
}

void TestBrowser::otherApplicationsCostNothing() {
    ScriptedDocument ax;
    ax.doc = platform::Accessibility::Document{"https://x.test/", "X"};
    QVERIFY(!Browser::active("org.gnome.TextEditor", 1, ax));
    QVERIFY(!Browser::active("", 1, ax));
    QCOMPARE(ax.asked, 0);
    ax.trustedNow = false;
    QVERIFY(!Browser::active("chromium", 1, ax));
    ax.trustedNow = true;
    ax.doc.reset();
    QVERIFY(!Browser::active("chromium", 1, ax)); // lookup failed
}

QTEST_GUILESS_MAIN(TestBrowser)
#include "tst_browser.moc"
