#pragma once

#include <QJsonObject>
#include <QList>
#include <QPoint>
#include <QProcess>
#include <QProcessEnvironment>
#include <QSize>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>
#include <optional>
#include <vector>

namespace tk::test {

// A private headless desktop for one test: its own X server, window manager,
// HOME and runtime folder. Every process it starts dies with it.
class DesktopHarness {
public:
    DesktopHarness();
    ~DesktopHarness();
    DesktopHarness(const DesktopHarness&) = delete;
    DesktopHarness& operator=(const DesktopHarness&) = delete;

    bool startX(QSize screen = QSize(1920, 1080));
    bool startWindowManager(); // openbox, without its Alt+Space menu binding
    // PulseAudio whose default source hears what play() plays (and silence).
    bool startSound();
    // A private session bus for everything started after it.
    bool startSessionBus();
    // Switches org.a11y.Status.IsEnabled on the session bus.
    bool setAccessibility(bool on);
    int play(const QString& wav);
    // build/bin/tolmesk; waits for its launch line. Environment entries in
    // `extra` override the harness's own.
    bool startApp(const QProcessEnvironment& extra = {}, int timeoutMs = 15000);
    void stopApp();

    QString display() const { return m_display; }
    QString home() const { return m_home.path(); }
    QString capturesRoot() const { return home() + QStringLiteral("/TolmeskCaptures"); }
    QProcessEnvironment env() const { return m_env; }
    void setEnv(const QString& key, const QString& value) { m_env.insert(key, value); }

    // Starts a tracked background process in the harness's environment.
    QProcess* spawn(const QString& program, const QStringList& args,
                    const QProcessEnvironment& extra = {});
    // Runs a command to completion; returns its exit code (-1 if it did not run).
    int run(const QString& program, const QStringList& args, int timeoutMs = 10000,
            QByteArray* output = nullptr);

    QString appLog() const;
    bool waitForLog(const QString& text, int timeoutMs = 10000, int occurrences = 1);
    qint64 appPid() const;

    // Input through the X server, as a user's devices would produce it.
    void keyDown(const QString& key);
    void keyUp(const QString& key);
    void moveTo(QPoint p); // produces raw motion, unlike a warp
    // Holds Alt+Space, walks the pointer along `path`, releases Space then Alt.
    void gesture(const QList<QPoint>& path, int stepMs = 15);
    // One gesture, then the context record of the capture it made; empty when
    // none appeared or it is unreadable.
    QJsonObject gestureContext(const QList<QPoint>& path, int stepMs = 15);
    // Holds the hotkey for `ms` while the pointer moves and `wav` plays (none
    // when empty); returns the held time.
    qint64 holdHotkey(int ms, const QString& wav = {});
    // `text` spoken by flite into a WAV in the home folder; empty on failure.
    QString speech(const QString& name, const QString& text);

    // Capture folders holding a context.json, oldest first.
    QStringList captureFolders() const;
    bool waitForCaptures(int n, int timeoutMs = 15000) const;

    static QString binary(const QString& name);
    static QString fixture(const QString& name);

private:
    QTemporaryDir m_home;
    QTemporaryDir m_runtime;
    QProcessEnvironment m_env;
    QString m_display;
    std::vector<std::unique_ptr<QProcess>> m_procs;
    QProcess* m_app = nullptr;
    mutable QByteArray m_appLog;
};

} // namespace tk::test
