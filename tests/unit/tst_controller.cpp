#include "capture/CaptureController.h"
#include "capture/TrailView.h"
#include "settings/Prefs.h"

#include <QTemporaryDir>
#include <QTest>

using namespace tk;
using platform::InputEvent;

namespace {

InputEvent key(InputEvent::Type type, bool space, bool alt = false, bool repeat = false) {
    InputEvent e;
    e.type = type;
    e.space = space;
    e.alt = alt;
    e.autoRepeat = repeat;
    return e;
}
InputEvent down(bool space, bool alt, bool repeat = false) {
    return key(InputEvent::Type::KeyDown, space, alt, repeat);
}
InputEvent up(bool space) {
    return key(InputEvent::Type::KeyUp, space);
}
InputEvent move(double x, double y) {
    InputEvent e;
    e.type = InputEvent::Type::Moved;
    e.pos = QPointF(x, y);
    return e;
}

// A tap that is allowed but fails until told otherwise: the state a desktop is
// in when permission arrives after launch.
class ScriptedTap final : public platform::InputTap {
public:
    bool permitted() const override { return true; }
    bool install(Handler) override {
        ++attempts;
        m_installed = works;
        return works;
    }
    bool installed() const override { return m_installed; }
    void setPointerTracking(bool on) override { tracking = on; }
    bool works = false;
    bool tracking = false;
    int attempts = 0;

private:
    bool m_installed = false;
};

} // namespace

class TestController : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void hotkeyRules_data();
    void hotkeyRules();
    void pathAndTimes();
    void noMovementGivesOneSample();
    void menuToggleWithoutTap();
    void nullPlatformIsMenuOnly();
    void watchdogRelaunchesOnceThenArms();

private:
    QTemporaryDir m_config;
    std::shared_ptr<platform::Platform> m_platform;
    std::unique_ptr<CaptureController> m_ctl;
    std::vector<Gesture> m_written;
    QList<bool> m_states;
};

void TestController::initTestCase() {
    qputenv("XDG_CONFIG_HOME", m_config.path().toUtf8());
}

void TestController::init() {
    m_written.clear();
    m_states.clear();
    m_platform = platform::makeNullPlatform();
    m_ctl = std::make_unique<CaptureController>(m_platform,
                                                [this](Gesture g) { m_written.push_back(g); });
    m_ctl->setOnStateChange([this](bool r) { m_states << r; });
    m_ctl->setRelaunch([] { QFAIL("no relaunch expected"); });
}

void TestController::cleanup() {
    m_ctl.reset();
}

// Each row is a key sequence; '+' Alt+Space down, 'r' its auto-repeat, 's'
// Space down alone, 'S' Space up, 'k' another key up, 'c' Alt+Ctrl+Space.
void TestController::hotkeyRules_data() {
    QTest::addColumn<QString>("keys");
    QTest::addColumn<int>("captures");
    QTest::addColumn<bool>("recordingAfter");
    QTest::newRow("press and release") << "+S" << 1 << false;
    QTest::newRow("space without alt") << "sS" << 0 << false;
    QTest::newRow("auto-repeat alone does not begin") << "rS" << 0 << false;
    QTest::newRow("auto-repeat while held is ignored") << "+rrrS" << 1 << false;
    QTest::newRow("alt released first keeps recording") << "+k" << 0 << true;
    QTest::newRow("alt released first, space ends") << "+kS" << 1 << false;
    QTest::newRow("second key-down while recording") << "++S" << 1 << false;
    QTest::newRow("extra modifiers allowed") << "cS" << 1 << false;
    QTest::newRow("two gestures") << "+S+S" << 2 << false;
    QTest::newRow("stray release") << "S" << 0 << false;
}

void TestController::hotkeyRules() {
    QFETCH(QString, keys);
    QFETCH(int, captures);
    QFETCH(bool, recordingAfter);
    for (QChar k : keys) {
        switch (k.toLatin1()) {
        case '+':
            m_ctl->handle(down(true, true));
            break;
        case 'c':
            m_ctl->handle(down(true, true));
            break;
        case 'r':
            m_ctl->handle(down(true, true, true));
            break;
        case 's':
            m_ctl->handle(down(true, false));
            break;
        case 'S':
            m_ctl->handle(up(true));
            break;
        case 'k':
            m_ctl->handle(up(false));
            break;
        }
    }
    QCOMPARE(int(m_written.size()), captures);
    QCOMPARE(m_ctl->recording(), recordingAfter);
    QCOMPARE(m_states.count(true), captures + (recordingAfter ? 1 : 0));
    QCOMPARE(m_states.count(false), captures);
}

void TestController::pathAndTimes() {
    m_ctl->handle(move(1, 1)); // before the gesture: ignored
    m_ctl->handle(down(true, true));
    const QPointF d = m_ctl->downPoint();
    for (int i = 1; i <= 50; ++i) {
        m_ctl->handle(move(d.x() + i, d.y() + 2 * i));
        if (i % 10 == 0)
            QTest::qWait(5);
    }
    m_ctl->handle(up(true));
    m_ctl->handle(move(500, 500)); // after: ignored
    QCOMPARE(int(m_written.size()), 1);
    const Gesture& g = m_written.front();
    QCOMPARE(int(g.pointerPath.size()), 51);
    QCOMPARE(g.pointerPath.front(), (PointerSample{d.x(), d.y(), 0.0}));
    QCOMPARE(g.downPoint, d);
    for (size_t i = 1; i < g.pointerPath.size(); ++i) {
        QCOMPARE(g.pointerPath[i][0], d.x() + double(i));
        QVERIFY(g.pointerPath[i][2] >= g.pointerPath[i - 1][2]);
    }
    QVERIFY(g.pointerPath.back()[2] > 0.02);
    QVERIFY(std::abs(g.startedAt.secsTo(QDateTime::currentDateTimeUtc())) < 5);
    QVERIFY(!g.audioTemp);
    QCOMPARE(m_states, (QList<bool>{true, false}));
}

void TestController::noMovementGivesOneSample() {
    m_ctl->handle(down(true, true));
    QVERIFY(m_ctl->overlay().view()); // the trail window exists while held
    m_ctl->handle(up(true));
    QVERIFY(!m_ctl->overlay().view());
    QCOMPARE(int(m_written.size()), 1);
    const auto& path = m_written.front().pointerPath;
    QCOMPARE(int(path.size()), 1);
    QCOMPARE(path[0][0], m_written.front().downPoint.x());
    QCOMPARE(path[0][1], m_written.front().downPoint.y());
    QCOMPARE(path[0][2], 0.0);
}

void TestController::menuToggleWithoutTap() {
    m_ctl->begin();
    QVERIFY(m_ctl->recording());
    m_ctl->begin(); // already recording
    m_ctl->end();
    m_ctl->end(); // already idle
    QCOMPARE(int(m_written.size()), 1);
    QCOMPARE(m_states, (QList<bool>{true, false}));
}

void TestController::nullPlatformIsMenuOnly() {
    m_ctl->start();
    QVERIFY(!m_ctl->hotkeyActive());
    m_ctl->retryTick();
    QVERIFY(!m_ctl->hotkeyActive());
    QVERIFY(m_states.isEmpty());
}

void TestController::watchdogRelaunchesOnceThenArms() {
    auto tap = std::make_shared<ScriptedTap>();
    m_platform->input = tap;
    m_ctl = std::make_unique<CaptureController>(m_platform, [](Gesture) {});
    int relaunches = 0;
    m_ctl->setRelaunch([&] { ++relaunches; });
    m_ctl->setOnStateChange([this](bool r) { m_states << r; });
    Prefs::setBool(Prefs::kRelaunchedForAX, false);

    m_ctl->start();
    QVERIFY(!m_ctl->hotkeyActive());
    m_ctl->retryTick();
    QCOMPARE(relaunches, 1);
    QVERIFY(Prefs::relaunchedForAX());
    m_ctl->retryTick(); // guarded: only one relaunch until a tap works again
    QCOMPARE(relaunches, 1);
    QVERIFY(m_states.isEmpty());

    tap->works = true;
    m_ctl->retryTick();
    QVERIFY(m_ctl->hotkeyActive());
    QCOMPARE(m_states, QList<bool>{false});
    QVERIFY(!Prefs::relaunchedForAX());
    const int attempts = tap->attempts;
    m_ctl->retryTick(); // armed: nothing more
    QCOMPARE(tap->attempts, attempts);
    QCOMPARE(m_states, QList<bool>{false});

    // Motion is only asked for while a gesture is held.
    m_ctl->handle(down(true, true));
    QVERIFY(tap->tracking);
    m_ctl->handle(up(true));
    QVERIFY(!tap->tracking);
}

QTEST_MAIN(TestController)
#include "tst_controller.moc"
