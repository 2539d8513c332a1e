#include "support/DesktopHarness.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QTest>
#include <QThread>

#include <algorithm>
#include <csignal>

namespace tk::test {

DesktopHarness::DesktopHarness() {
    m_env = QProcessEnvironment::systemEnvironment();
    const QString h = m_home.path();
    m_env.insert(QStringLiteral("HOME"), h);
    m_env.insert(QStringLiteral("XDG_RUNTIME_DIR"), m_runtime.path());
    m_env.insert(QStringLiteral("XDG_CONFIG_HOME"), h + QStringLiteral("/.config"));
    m_env.insert(QStringLiteral("XDG_DATA_HOME"), h + QStringLiteral("/.local/share"));
    m_env.insert(QStringLiteral("XDG_STATE_HOME"), h + QStringLiteral("/.local/state"));
    m_env.insert(QStringLiteral("XDG_CACHE_HOME"), h + QStringLiteral("/.cache"));
    // No bus unless a test starts one: never the machine's own, never autolaunched.
    m_env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"),
                 QStringLiteral("unix:path=%1/no-bus").arg(m_runtime.path()));
    // No microphone unless a test starts a sound server.
    m_env.insert(QStringLiteral("PULSE_SERVER"),
                 QStringLiteral("unix:%1/no-pulse").arg(m_runtime.path()));
    m_env.remove(QStringLiteral("TK_PLATFORM"));
    m_env.remove(QStringLiteral("QT_QPA_PLATFORM"));
    m_env.remove(QStringLiteral("WAYLAND_DISPLAY"));
    m_env.insert(QStringLiteral("QT_LOGGING_RULES"), QStringLiteral("tolmesk.*=true"));
}

DesktopHarness::~DesktopHarness() {
    // Newest first: the app before the window manager before the X server.
    for (auto it = m_procs.rbegin(); it != m_procs.rend(); ++it) {
        QProcess* p = it->get();
        if (p->state() == QProcess::NotRunning)
            continue;
        p->terminate();
        if (!p->waitForFinished(3000)) {
            p->kill();
            p->waitForFinished(3000);
        }
    }
}

QString DesktopHarness::binary(const QString& name) {
    return QStringLiteral(TK_BIN_DIR) + QLatin1Char('/') + name;
}

QString DesktopHarness::fixture(const QString& name) {
    return QStringLiteral(TK_FIXTURES) + QLatin1Char('/') + name;
}

QProcess* DesktopHarness::spawn(const QString& program, const QStringList& args,
                                const QProcessEnvironment& extra) {
    auto p = std::make_unique<QProcess>();
    QProcessEnvironment env = m_env;
    for (const QString& k : extra.keys())
        env.insert(k, extra.value(k));
    p->setProcessEnvironment(env);
    p->setProcessChannelMode(QProcess::MergedChannels);
    p->start(program, args);
    p->waitForStarted(5000);
    m_procs.push_back(std::move(p));
    return m_procs.back().get();
}

int DesktopHarness::run(const QString& program, const QStringList& args, int timeoutMs,
                        QByteArray* output) {
    QProcess p;
    p.setProcessEnvironment(m_env);
    p.setProcessChannelMode(QProcess::MergedChannels);
    p.start(program, args);
    if (!p.waitForStarted(5000))
        return -1;
    if (!p.waitForFinished(timeoutMs)) {
        p.kill();
        p.waitForFinished();
        return -1;
    }
    if (output)
        *output = p.readAll();
    return p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
}

bool DesktopHarness::startX(QSize screen) {
    const QString fdFile = m_runtime.path() + QStringLiteral("/display");
    // -displayfd picks a free display: other tests may hold the low numbers.
    spawn(QStringLiteral("bash"),
          {QStringLiteral("-c"),
           QStringLiteral("exec Xvfb -displayfd 3 -screen 0 %1x%2x24 -nolisten tcp 3>'%3'")
               .arg(screen.width())
               .arg(screen.height())
               .arg(fdFile)});
    QDeadlineTimer deadline(15000);
    while (!deadline.hasExpired()) {
        QFile f(fdFile);
        if (f.open(QIODevice::ReadOnly)) {
            const QByteArray n = f.readAll().trimmed();
            if (!n.isEmpty()) {
                m_display = QStringLiteral(":") + QString::fromLatin1(n);
                m_env.insert(QStringLiteral("DISPLAY"), m_display);
                return run(QStringLiteral("xdpyinfo"), {}, 5000) == 0;
            }
        }
        QThread::msleep(20);
    }
    return false;
}

bool DesktopHarness::startWindowManager() {
    QFile rc(QStringLiteral("/etc/xdg/openbox/rc.xml"));
    if (!rc.open(QIODevice::ReadOnly))
        return false;
    QString xml = QString::fromUtf8(rc.readAll());
    // Its default Alt+Space opens the window menu and would swallow the hotkey.
    xml.remove(QRegularExpression(QStringLiteral("<keybind key=\"A-space\">.*?</keybind>"),
                                  QRegularExpression::DotMatchesEverythingOption));
    const QString path = m_runtime.path() + QStringLiteral("/openbox-rc.xml");
    QFile out(path);
    if (!out.open(QIODevice::WriteOnly))
        return false;
    out.write(xml.toUtf8());
    out.close();
    // Seen rarely under load: openbox exits at once with no word. Try again then.
    for (int attempt = 0; attempt < 3; ++attempt) {
        QProcess* wm = spawn(QStringLiteral("openbox"), {QStringLiteral("--config-file"), path});
        QDeadlineTimer deadline(20000);
        while (!deadline.hasExpired()) {
            QByteArray o;
            // Ready once it owns the window manager selection.
            if (run(QStringLiteral("xprop"),
                    {QStringLiteral("-root"), QStringLiteral("_NET_SUPPORTING_WM_CHECK")}, 5000,
                    &o) == 0 &&
                o.contains("window id"))
                return true;
            if (wm->waitForFinished(50)) // notices an early exit
                break;
        }
        qWarning().noquote() << "openbox did not come up, exit" << wm->exitCode() << wm->readAll();
    }
    return false;
}

bool DesktopHarness::startSessionBus() {
    QProcess* bus = spawn(QStringLiteral("dbus-daemon"),
                          {QStringLiteral("--session"), QStringLiteral("--nofork"),
                           QStringLiteral("--print-address=1")});
    QByteArray address;
    QDeadlineTimer deadline(10000);
    while (!address.contains('\n') && !deadline.hasExpired() && bus->waitForReadyRead(100))
        address += bus->readAllStandardOutput();
    // Its warnings share the channel: the address is the first line.
    address = address.split('\n').value(0).trimmed();
    if (!address.startsWith("unix:"))
        return false;
    m_env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), QString::fromUtf8(address));
    return true;
}

bool DesktopHarness::setAccessibility(bool on) {
    return run(QStringLiteral("gdbus"),
               {QStringLiteral("call"), QStringLiteral("--session"), QStringLiteral("--dest"),
                QStringLiteral("org.a11y.Bus"), QStringLiteral("--object-path"),
                QStringLiteral("/org/a11y/bus"), QStringLiteral("--method"),
                QStringLiteral("org.freedesktop.DBus.Properties.Set"),
                QStringLiteral("org.a11y.Status"), QStringLiteral("IsEnabled"),
                on ? QStringLiteral("<true>") : QStringLiteral("<false>")},
               10000) == 0;
}

bool DesktopHarness::startSound() {
    // A sink with nothing attached; its monitor is the default source, so
    // whatever plays into "cap" is what the microphone hears.
    m_env.remove(QStringLiteral("PULSE_SERVER"));
    spawn(QStringLiteral("pulseaudio"),
          {QStringLiteral("--daemonize=no"), QStringLiteral("--exit-idle-time=-1"),
           QStringLiteral("--system=false"), QStringLiteral("--disallow-exit"),
           QStringLiteral("-n"), QStringLiteral("--load=module-native-protocol-unix"),
           QStringLiteral("--load=module-null-sink sink_name=cap "
                          "sink_properties=device.description=cap"),
           QStringLiteral("--load=module-always-sink"), QStringLiteral("--log-target=stderr")});
    QDeadlineTimer deadline(15000);
    while (!deadline.hasExpired()) {
        if (run(QStringLiteral("pactl"), {QStringLiteral("info")}, 3000) == 0)
            break;
        QThread::msleep(50);
    }
    if (run(QStringLiteral("pactl"),
            {QStringLiteral("set-default-source"), QStringLiteral("cap.monitor")}) != 0)
        return false;
    // A live microphone never stops delivering; a monitor only does while
    // something plays, so silence plays underneath everything.
    spawn(QStringLiteral("bash"),
          {QStringLiteral("-c"), QStringLiteral("exec pacat --playback --device=cap --raw "
                                                "--format=s16le --rate=16000 --channels=1 "
                                                "--latency-msec=20 < /dev/zero")});
    QDeadlineTimer playing(10000);
    while (!playing.hasExpired()) {
        QByteArray inputs;
        run(QStringLiteral("pactl"),
            {QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("sink-inputs")}, 3000,
            &inputs);
        if (!inputs.trimmed().isEmpty()) {
            // A null sink renders in large blocks until a recording asks for
            // small ones, and drops what the first recording would have read
            // meanwhile. A microphone delivers each fragment as it comes; one
            // short recording puts the test sink in that state.
            run(QStringLiteral("timeout"),
                {QStringLiteral("3"), QStringLiteral("parecord"),
                 QStringLiteral("--device=cap.monitor"), QStringLiteral("--latency-msec=20"),
                 m_runtime.path() + QStringLiteral("/warm.wav")},
                5000);
            return true;
        }
        QThread::msleep(50);
    }
    return false;
}

int DesktopHarness::play(const QString& wav) {
    spawn(QStringLiteral("paplay"), {QStringLiteral("--device=cap"), wav});
    return 0;
}

bool DesktopHarness::startApp(const QProcessEnvironment& extra, int timeoutMs) {
    m_appLog.clear();
    m_app = spawn(binary(QStringLiteral("tolmesk")), {}, extra);
    return waitForLog(QStringLiteral("Tolmesk up."), timeoutMs);
}

void DesktopHarness::stopApp() {
    if (!m_app)
        return;
    appLog();
    m_app->terminate();
    if (!m_app->waitForFinished(5000))
        m_app->kill();
    m_app->waitForFinished(2000);
    m_appLog += m_app->readAll();
}

qint64 DesktopHarness::appPid() const {
    return m_app ? m_app->processId() : 0;
}

QString DesktopHarness::appLog() const {
    if (m_app)
        m_appLog += m_app->readAll();
    return QString::fromUtf8(m_appLog);
}

bool DesktopHarness::waitForLog(const QString& text, int timeoutMs, int occurrences) {
    QDeadlineTimer deadline(timeoutMs);
    while (!deadline.hasExpired()) {
        if (appLog().count(text) >= occurrences)
            return true;
        if (m_app && m_app->state() == QProcess::NotRunning)
            return appLog().count(text) >= occurrences;
        QTest::qWait(20);
    }
    return false;
}

void DesktopHarness::keyDown(const QString& key) {
    run(QStringLiteral("xdotool"), {QStringLiteral("keydown"), key});
}

void DesktopHarness::keyUp(const QString& key) {
    run(QStringLiteral("xdotool"), {QStringLiteral("keyup"), key});
}

void DesktopHarness::moveTo(QPoint p) {
    run(QStringLiteral("xte"), {QStringLiteral("mousemove %1 %2").arg(p.x()).arg(p.y())});
}

void DesktopHarness::gesture(const QList<QPoint>& path, int stepMs) {
    if (!path.isEmpty())
        moveTo(path.first());
    QTest::qWait(50);
    keyDown(QStringLiteral("alt"));
    keyDown(QStringLiteral("space"));
    QTest::qWait(100);
    for (int i = 1; i < path.size(); ++i) {
        moveTo(path[i]);
        QTest::qWait(stepMs);
    }
    QTest::qWait(50);
    keyUp(QStringLiteral("space"));
    keyUp(QStringLiteral("alt"));
}

QJsonObject DesktopHarness::gestureContext(const QList<QPoint>& path, int stepMs) {
    const int before = captureFolders().size();
    gesture(path, stepMs);
    if (!waitForCaptures(before + 1))
        return {};
    QFile f(captureFolders().last() + QStringLiteral("/context.json"));
    if (!f.open(QIODevice::ReadOnly))
        return {};
    return QJsonDocument::fromJson(f.readAll()).object();
}

qint64 DesktopHarness::holdHotkey(int ms, const QString& wav) {
    moveTo({400, 400});
    QElapsedTimer held;
    keyDown(QStringLiteral("alt"));
    keyDown(QStringLiteral("space"));
    held.start();
    if (!wav.isEmpty())
        play(wav);
    for (int i = 0; held.elapsed() < ms; ++i) {
        moveTo({400 + (i % 50) * 4, 400 + (i % 7)});
        QTest::qWait(40);
    }
    keyUp(QStringLiteral("space"));
    const qint64 t = held.elapsed();
    keyUp(QStringLiteral("alt"));
    return t;
}

QString DesktopHarness::speech(const QString& name, const QString& text) {
    // flite's voices are the ones Debian's en-us model hears well.
    const QString wav = home() + QLatin1Char('/') + name + QStringLiteral(".wav");
    if (!QFile::exists(wav) && run(QStringLiteral("flite"),
                                   {QStringLiteral("-voice"), QStringLiteral("slt"),
                                    QStringLiteral("-t"), text, QStringLiteral("-o"), wav},
                                   30000) != 0)
        return {};
    return wav;
}

QStringList DesktopHarness::captureFolders() const {
    QDir root(capturesRoot());
    QFileInfoList dirs = root.entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot);
    std::sort(dirs.begin(), dirs.end(), [](const QFileInfo& a, const QFileInfo& b) {
        return a.birthTime().isValid() ? a.birthTime() < b.birthTime()
                                       : a.lastModified() < b.lastModified();
    });
    QStringList out;
    for (const QFileInfo& d : dirs)
        if (QFileInfo::exists(d.filePath() + QStringLiteral("/context.json")))
            out << d.filePath();
    return out;
}

bool DesktopHarness::waitForCaptures(int n, int timeoutMs) const {
    QDeadlineTimer deadline(timeoutMs);
    while (!deadline.hasExpired()) {
        if (captureFolders().size() >= n)
            return true;
        QTest::qWait(50);
    }
    return captureFolders().size() >= n;
}

} // namespace tk::test
