#include "platform/DesktopEntries.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using tk::platform::DesktopEntries;

class TestDesktopEntries : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void match_data();
    void match();
    void userEntryShadowsSystem();

private:
    void entry(const QString& dataDir, const QString& rel, const QByteArray& body);
    QTemporaryDir m_tmp;
    DesktopEntries m_entries;
};

void TestDesktopEntries::entry(const QString& dataDir, const QString& rel, const QByteArray& body) {
    const QString path = dataDir + "/applications/" + rel;
    QDir().mkpath(QFileInfo(path).path());
    QFile f(path);
    QVERIFY(f.open(QIODevice::WriteOnly));
    f.write(body);
}

void TestDesktopEntries::initTestCase() {
    const QString user = m_tmp.path() + "/user", sys = m_tmp.path() + "/sys";
    entry(sys, "chromium.desktop",
          "[Desktop Entry]\nName=Chromium\nStartupWMClass=chromium\n"
          "[Desktop Action new-window]\nName=New Window\n");
    entry(sys, "firefox-esr.desktop", "[Desktop Entry]\nName=Firefox ESR\n");
    entry(sys, "org.gnome.TextEditor.desktop", "[Desktop Entry]\nName=Text Editor\n");
    entry(sys, "kde/konsole.desktop", "[Desktop Entry]\nName=Konsole\n");
    entry(sys, "ghost.desktop", "[Desktop Entry]\nName=Ghost\nHidden=true\n");
    entry(sys, "code.desktop", "[Desktop Entry]\nName=Code\nStartupWMClass=Code\n");
    entry(user, "code.desktop", "[Desktop Entry]\nName=My Code\nStartupWMClass=Code\n");
    m_entries = DesktopEntries::scan({user, sys});
}

void TestDesktopEntries::match_data() {
    QTest::addColumn<QString>("instance");
    QTest::addColumn<QString>("cls");
    QTest::addColumn<QString>("id");
    QTest::addColumn<QString>("name");
    // Chromium's instance carries the profile path when one is given.
    QTest::newRow("startup class, any case") << "chromium (/tmp/profile)"
                                             << "Chromium"
                                             << "chromium"
                                             << "Chromium";
    QTest::newRow("id from instance") << "Navigator"
                                      << "firefox-esr"
                                      << "firefox-esr"
                                      << "Firefox ESR";
    QTest::newRow("reverse domain id") << "gnome-text-editor"
                                       << "TextEditor"
                                       << "org.gnome.TextEditor"
                                       << "Text Editor";
    QTest::newRow("sub-folder id") << "konsole"
                                   << "Konsole"
                                   << ""
                                   << "";
    QTest::newRow("kde-konsole id") << "kde-konsole"
                                    << "kde-konsole"
                                    << "kde-konsole"
                                    << "Konsole";
    QTest::newRow("hidden entry is not an application") << "ghost"
                                                        << "Ghost"
                                                        << ""
                                                        << "";
    QTest::newRow("unknown") << "xmessage"
                             << "Xmessage"
                             << ""
                             << "";
}

void TestDesktopEntries::match() {
    QFETCH(QString, instance);
    QFETCH(QString, cls);
    QFETCH(QString, id);
    QFETCH(QString, name);
    const auto e = m_entries.match(instance, cls);
    QCOMPARE(e.has_value(), !id.isEmpty());
    if (!e)
        return;
    QCOMPARE(e->id, id);
    QCOMPARE(e->name, name);
}

void TestDesktopEntries::userEntryShadowsSystem() {
    const auto e = m_entries.match("code", "Code");
    QVERIFY(e);
    QCOMPARE(e->name, QStringLiteral("My Code"));
}

QTEST_GUILESS_MAIN(TestDesktopEntries)
#include "tst_desktop_entries.moc"
