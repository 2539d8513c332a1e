#include "writer/CaptureWriter.h"
#include "writer/Context.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>
#include <QTimeZone>

#include <cmath>
#include <limits>

using namespace tk;

class TestWriter : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void downsample_data();
    void downsample();
    void downsampleSumsInSinglePrecision();
    void internetDate();
    void contextKeys_data();
    void contextKeys();
    void contextRoundTrip();
    void contextNotFinite();
    void contextMissingKey();
    void writeWithoutPlatform();

private:
    QTemporaryDir m_home;
};

void TestWriter::initTestCase() {
    qputenv("HOME", m_home.path().toUtf8());
    qputenv("XDG_CONFIG_HOME", (m_home.path() + "/.config").toUtf8());
}

void TestWriter::downsample_data() {
    QTest::addColumn<int>("count");
    QTest::addColumn<int>("expected");
    QTest::newRow("four: none") << 4 << -1;
    QTest::newRow("five: step 1") << 5 << 5;
    QTest::newRow("120: step 1") << 120 << 120;
    QTest::newRow("239: step 1") << 239 << 239;
    QTest::newRow("241: step 2, short tail") << 241 << 121;
    QTest::newRow("250: step 2") << 250 << 125;
    QTest::newRow("2400: step 20") << 2400 << 120;
}

void TestWriter::downsample() {
    QFETCH(int, count);
    QFETCH(int, expected);
    std::vector<float> levels;
    for (int i = 0; i < count; ++i)
        levels.push_back(float(i % 10) / 10.0f);
    const auto out = CaptureWriter::downsample(levels, 120);
    if (expected < 0) {
        QVERIFY(!out);
        return;
    }
    QVERIFY(out);
    QCOMPARE(int(out->size()), expected);
    const int step = std::max(1, count / 120);
    // Every bucket is the mean of its own slice; the last may be shorter.
    for (size_t b = 0; b < out->size(); ++b) {
        const size_t start = b * size_t(step);
        const size_t end = std::min(start + size_t(step), levels.size());
        double mean = 0;
        for (size_t i = start; i < end; ++i)
            mean += levels[i];
        mean /= double(end - start);
        QVERIFY2(std::abs((*out)[b] - mean) < 1e-6, qPrintable(QString::number(b)));
    }
    if (count == 241)
        QCOMPARE(out->back(), double(levels[240]));
}

void TestWriter::downsampleSumsInSinglePrecision() {
    // 0.1f added in float differs from the double sum; the record keeps the float's.
    std::vector<float> levels(240, 0.1f);
    const auto out = CaptureWriter::downsample(levels, 120);
    QVERIFY(out);
    const float sum = 0.1f + 0.1f;
    QCOMPARE(out->front(), double(sum) / 2.0);
}

void TestWriter::internetDate() {
    const QDateTime t(QDate(2026, 3, 1), QTime(10, 15, 2, 640), QTimeZone(3600));
    QCOMPARE(CaptureWriter::internetDate(t), QStringLiteral("2026-03-01T09:15:02Z"));
}

namespace {

CaptureContext sampleContext() {
    CaptureContext c;
    c.id = QStringLiteral("0f8e8d2a-4c1b-4e1e-9a55-2b0c3d4e5f60");
    c.startedAt = QStringLiteral("2026-03-01T09:15:02Z");
    c.endedAt = QStringLiteral("2026-03-01T09:15:04Z");
    c.displayScale = 1.0;
    c.app = {QStringLiteral("org.gnome.TextEditor"), QStringLiteral("Text Editor")};
    c.window.title = QStringLiteral("notes.txt");
    c.pointer.path = {{10, 20, 0}, {11.5, 22, 0.016}};
    c.pointer.downAt = {10, 20};
    c.ax.permission = QStringLiteral("denied");
    return c;
}

QStringList keysOf(const QJsonObject& o) {
    return o.keys();
}

} // namespace

void TestWriter::contextKeys_data() {
    QTest::addColumn<bool>("withBrowser");
    QTest::addColumn<bool>("withLevels");
    QTest::addColumn<bool>("withLasso");
    QTest::addColumn<QStringList>("top");
    const QStringList base{"app", "ax",      "displayScale", "endedAt",
                           "id",  "pointer", "startedAt",    "window"};
    QTest::newRow("bare: eight keys") << false << false << false << base;
    QTest::newRow("all optional parts")
        << true << true << true
        << QStringList{"app",     "audioLevels", "ax",      "browser",   "displayScale",
                       "endedAt", "id",          "pointer", "startedAt", "window"};
}

void TestWriter::contextKeys() {
    QFETCH(bool, withBrowser);
    QFETCH(bool, withLevels);
    QFETCH(bool, withLasso);
    QFETCH(QStringList, top);
    CaptureContext c = sampleContext();
    if (withBrowser)
        c.browser = BrowserPage{QStringLiteral("http://127.0.0.1/a"), QStringLiteral("A")};
    if (withLevels)
        c.audioLevels = std::vector<double>{0.1, 0.5};
    const AxElement button{
        QStringLiteral("push button"), QStringLiteral("OK"), QString(), 1, 2, 3, 4};
    if (withLasso)
        c.ax.lassoAncestor = button;
    c.ax.atPoint = {button};

    const auto bytes = encodeContext(c);
    QVERIFY(bytes);
    const QJsonObject o = QJsonDocument::fromJson(*bytes).object();
    QCOMPARE(keysOf(o), top);
    // Sorted keys at every level, as written: compare the text's order too.
    QVERIFY(bytes->indexOf("\"app\"") < bytes->indexOf("\"ax\""));
    QVERIFY(bytes->indexOf("\"downAt\"") < bytes->indexOf("\"path\""));
    QVERIFY(bytes->contains("\n    \"")); // pretty-printed
    QCOMPARE(keysOf(o["pointer"].toObject()), (QStringList{"downAt", "path"}));
    const QStringList axKeys = withLasso ? QStringList{"atPoint", "lassoAncestor", "permission"}
                                         : QStringList{"atPoint", "permission"};
    QCOMPARE(keysOf(o["ax"].toObject()), axKeys);
    QCOMPARE(keysOf(o["ax"]["atPoint"][0].toObject()),
             (QStringList{"h", "role", "title", "value", "w", "x", "y"}));
    QVERIFY(o["startedAt"].isString());
    QVERIFY(!bytes->contains("null"));
}

void TestWriter::contextRoundTrip() {
    CaptureContext c = sampleContext();
    c.browser = BrowserPage{QStringLiteral("https://example.test/"), QStringLiteral("T")};
    c.audioLevels = std::vector<double>{0.25, 0.125};
    c.ax.atPoint = {AxElement{QStringLiteral("text"), QString(), QStringLiteral("v"), 0, 0, 5, 5}};
    const auto bytes = encodeContext(c);
    QVERIFY(bytes);
    const auto back = contextFromJson(QJsonDocument::fromJson(*bytes).object());
    QVERIFY(back);
    QCOMPARE(back->id, c.id);
    QCOMPARE(back->pointer.path, c.pointer.path);
    QCOMPARE(back->pointer.downAt, c.pointer.downAt);
    QCOMPARE(*back->browser, *c.browser);
    QCOMPARE(*back->audioLevels, *c.audioLevels);
    QCOMPARE(back->ax.atPoint, c.ax.atPoint);
    QVERIFY(!back->ax.lassoAncestor);
    QCOMPARE(back->window.title, c.window.title);
}

void TestWriter::contextNotFinite() {
    CaptureContext c = sampleContext();
    c.audioLevels = std::vector<double>{0.5, std::numeric_limits<double>::quiet_NaN()};
    QVERIFY(!encodeContext(c));
    c = sampleContext();
    c.pointer.path.push_back({std::numeric_limits<double>::infinity(), 0, 1});
    QVERIFY(!encodeContext(c));
}

void TestWriter::contextMissingKey() {
    QJsonObject o = toJson(sampleContext());
    QVERIFY(contextFromJson(o));
    QJsonObject broken = o;
    broken.remove(QStringLiteral("endedAt"));
    QVERIFY(!contextFromJson(broken));
    broken = o;
    QJsonObject window;
    broken[QStringLiteral("window")] = window;
    QVERIFY(!contextFromJson(broken));
    broken = o;
    QJsonObject ax = broken["ax"].toObject();
    ax["atPoint"] = QJsonArray{QJsonObject{{"role", "x"}}}; // an element missing six keys
    broken["ax"] = ax;
    QVERIFY(!contextFromJson(broken));
}

void TestWriter::writeWithoutPlatform() {
    // With no desktop at all the writer still makes the folder and the record.
    Gesture g;
    g.startedAt = QDateTime::currentDateTimeUtc();
    g.pointerPath = {{5, 6, 0}};
    g.downPoint = QPointF(5, 6);
    g.audioLevels = {0.1f, 0.2f};
    CaptureWriter::Deps deps;
    const QString dir = CaptureWriter::write(g, deps);
    QVERIFY(dir.startsWith(m_home.path() + "/TolmeskCaptures/"));
    const QString id = QFileInfo(dir).fileName();
    QCOMPARE(id.size(), 36);
    QCOMPARE(id, id.toLower());
    QCOMPARE(QFileInfo(dir).permissions() & 0x0077, QFileDevice::Permissions());
    QCOMPARE(QFileInfo(CaptureWriter::root()).permissions() & 0x0077, QFileDevice::Permissions());
    QFile f(dir + "/context.json");
    QVERIFY(f.open(QIODevice::ReadOnly));
    const QJsonObject o = QJsonDocument::fromJson(f.readAll()).object();
    QCOMPARE(o["id"].toString(), id);
    QCOMPARE(o["app"]["bundleId"].toString(), QStringLiteral("?"));
    QCOMPARE(o["app"]["name"].toString(), QStringLiteral("?"));
    QCOMPARE(o["window"]["title"].toString(), QString());
    QCOMPARE(o["ax"]["permission"].toString(), QStringLiteral("denied"));
    QCOMPARE(o["displayScale"].toDouble(), 2.0);
    QVERIFY(!o.contains("audioLevels")); // fewer than five levels
    QCOMPARE(o.keys().size(), 8);
}

QTEST_GUILESS_MAIN(TestWriter)
#include "tst_writer.moc"
