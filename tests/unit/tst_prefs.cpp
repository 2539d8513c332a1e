#include "settings/Prefs.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

using namespace tk;

class TestPrefs : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void defaults();
    void storedBooleans_data();
    void storedBooleans();
    void pendingListRoundTrip_data();
    void pendingListRoundTrip();
    void fileLocation();

private:
    void writeRaw(const QByteArray& ini);
    QTemporaryDir m_config;
};

void TestPrefs::initTestCase() {
    qputenv("XDG_CONFIG_HOME", m_config.path().toUtf8());
}

void TestPrefs::init() {
    QFile::remove(Prefs::filePath());
}

void TestPrefs::writeRaw(const QByteArray& ini) {
    QDir().mkpath(QFileInfo(Prefs::filePath()).path());
    QFile f(Prefs::filePath());
    QVERIFY(f.open(QIODevice::WriteOnly));
    f.write("[General]\n" + ini);
}

void TestPrefs::defaults() {
    QVERIFY(Prefs::hoverExpand());
    QVERIFY(Prefs::autoExpand());
    QVERIFY(!Prefs::redact());
    QVERIFY(!Prefs::relaunchedForAX());
    QCOMPARE(Prefs::lastCount(), 0);
    QCOMPARE(Prefs::lastCrashScan(), 0.0);
    QVERIFY(Prefs::pendingIngest().isEmpty());
}

void TestPrefs::storedBooleans_data() {
    QTest::addColumn<QByteArray>("stored");
    QTest::addColumn<bool>("hover");
    QTest::addColumn<bool>("redact");
    QTest::newRow("false") << QByteArray("false") << false << false;
    QTest::newRow("true") << QByteArray("true") << true << true;
    QTest::newRow("number 0 is not a Boolean") << QByteArray("0") << true << false;
    QTest::newRow("number 1 is not a Boolean") << QByteArray("1") << true << false;
    QTest::newRow("word") << QByteArray("no") << true << false;
    QTest::newRow("list") << QByteArray("false, false") << true << false;
}

void TestPrefs::storedBooleans() {
    QFETCH(QByteArray, stored);
    QFETCH(bool, hover);
    QFETCH(bool, redact);
    writeRaw("tk.hover=" + stored + "\ntk.redact=" + stored + "\n");
    QCOMPARE(Prefs::hoverExpand(), hover);
    QCOMPARE(Prefs::redact(), redact);
    Prefs::setBool(Prefs::kAutoExpand, false);
    QCOMPARE(Prefs::autoExpand(), false);
}

void TestPrefs::pendingListRoundTrip_data() {
    QTest::addColumn<QStringList>("dirs");
    QTest::newRow("empty") << QStringList{};
    QTest::newRow("one") << QStringList{"/h/TolmeskCaptures/a"};
    QTest::newRow("comma and quote") << QStringList{"/h/Tolmesk Captures/a,b", "/h/\"q\"", "/h/c"};
}

void TestPrefs::pendingListRoundTrip() {
    QFETCH(QStringList, dirs);
    Prefs::setPendingIngest(dirs);
    QCOMPARE(Prefs::pendingIngest(), dirs);
}

void TestPrefs::fileLocation() {
    QCOMPARE(Prefs::filePath(), m_config.path() + "/Tolmesk/Tolmesk.conf");
    Prefs::setBool(Prefs::kRedact, true);
    QVERIFY(QFile::exists(Prefs::filePath()));
}

QTEST_GUILESS_MAIN(TestPrefs)
#include "tst_prefs.moc"
