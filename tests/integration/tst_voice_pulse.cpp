// The microphone backend against a private PulseAudio: availability, what a
// recording keeps, and the sources that misbehave (silent, stalled, unplugged).
#include "capture/AudioRecorder.h"
#include "context/AudioDecode.h"
#include "platform/pulse/PulseAudioInput.h"
#include "support/DesktopHarness.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTest>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <thread>

using tk::AudioRecorder;
using tk::test::DesktopHarness;

namespace {

std::vector<int16_t> tone(int samples, double amplitude) {
    std::vector<int16_t> out(size_t(samples), 0);
    for (int i = 0; i < samples; ++i)
        out[size_t(i)] = int16_t(amplitude * 32767 * std::sin(2 * M_PI * 440 * i / 16000.0));
    return out;
}

// Fails the run instead of hanging it when a call never returns.
class Watchdog {
public:
    explicit Watchdog(const char* what) {
        m_thread = std::thread([this, what] {
            for (int i = 0; i < 200 && !m_done; ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            if (!m_done) {
                std::fprintf(stderr, "FAIL: %s did not return within 10 s\n", what);
                std::_Exit(1);
            }
        });
    }
    ~Watchdog() {
        m_done = true;
        m_thread.join();
    }

private:
    std::atomic<bool> m_done{false};
    std::thread m_thread;
};

} // namespace

class TestVoicePulse : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void availability_data();
    void availability();
    void recordsTheDefaultSource();
    void stalledSourceDoesNotHoldRelease();
    void sourceUnpluggedWhileRecording();

private:
    QString pipeSource(const QString& name, QString* moduleIndex);
    QString m_server;
    DesktopHarness m_desk;
};

void TestVoicePulse::initTestCase() {
    std::signal(SIGPIPE, SIG_IGN);
    QVERIFY(m_desk.startSound());
    // This process is the client: it talks to the harness's server only.
    m_server = QStringLiteral("unix:%1/pulse/native")
                   .arg(m_desk.env().value(QStringLiteral("XDG_RUNTIME_DIR")));
    qputenv("PULSE_SERVER", m_server.toLocal8Bit());
    qputenv("HOME", m_desk.home().toLocal8Bit());
}

// A source fed by this test through a FIFO; it delivers only what is written.
QString TestVoicePulse::pipeSource(const QString& name, QString* moduleIndex) {
    const QString fifo = m_desk.home() + "/" + name + ".fifo";
    QByteArray out;
    if (m_desk.run("pactl",
                   {"load-module", "module-pipe-source", "source_name=" + name, "file=" + fifo,
                    "format=s16le", "rate=16000", "channels=1"},
                   10000, &out) != 0)
        return {};
    *moduleIndex = QString::fromUtf8(out).trimmed();
    if (m_desk.run("pactl", {"set-default-source", name}) != 0)
        return {};
    return fifo;
}

void TestVoicePulse::availability_data() {
    QTest::addColumn<QString>("server");
    QTest::addColumn<bool>("available");
    QTest::newRow("server with a default source") << QString() << true;
    QTest::newRow("no server") << "unix:" + m_desk.home() + "/nothing-here" << false;
}

void TestVoicePulse::availability() {
    QFETCH(QString, server);
    QFETCH(bool, available);
    if (!server.isEmpty())
        qputenv("PULSE_SERVER", server.toLocal8Bit());
    auto input = tk::platform::makePulseAudioInput();
    const bool got = input->available();
    qputenv("PULSE_SERVER", m_server.toLocal8Bit());
    QCOMPARE(got, available);
    if (!available) {
        // Without a microphone the recorder yields no file and no levels.
        AudioRecorder rec(tk::platform::makePulseAudioInput());
        qputenv("PULSE_SERVER", server.toLocal8Bit());
        rec.begin();
        QTest::qWait(300);
        const auto file = rec.finish();
        qputenv("PULSE_SERVER", m_server.toLocal8Bit());
        QVERIFY(!file);
        QVERIFY(rec.levels().empty());
    }
}

void TestVoicePulse::recordsTheDefaultSource() {
    const QString wav = m_desk.home() + "/tone.wav";
    std::vector<int16_t> burst(4000, 0); // a quarter second of quiet, then a tone
    const auto loud = tone(12000, 0.7);
    burst.insert(burst.end(), loud.begin(), loud.end());
    QVERIFY(tk::writeWav(wav, burst));
    AudioRecorder rec(tk::platform::makePulseAudioInput());
    QElapsedTimer held;
    rec.begin();
    held.start();
    m_desk.play(wav);
    QTest::qWait(1800);
    const auto file = rec.finish();
    const qint64 heldMs = held.elapsed();
    QVERIFY(file);
    const auto pcm = tk::decodeToPcm16k(*file);
    QVERIFY2(pcm, "the recording does not decode");
    const qint64 ms = qint64(pcm->size() / 16);
    QVERIFY2(std::abs(ms - heldMs) <= 200,
             qPrintable(QStringLiteral("recorded %1 ms of %2 ms").arg(ms).arg(heldMs)));
    const auto& lv = rec.levels();
    QVERIFY2(lv.size() >= 30, qPrintable(QString::number(lv.size())));
    QVERIFY(*std::min_element(lv.begin(), lv.end()) < 0.1f);
    QVERIFY(*std::max_element(lv.begin(), lv.end()) > 0.8f);
    QFile::remove(*file);
}

void TestVoicePulse::stalledSourceDoesNotHoldRelease() {
    QString module;
    const QString fifo = pipeSource("stalled", &module);
    QVERIFY(!fifo.isEmpty());
    // Nothing is ever written: the stream opens and then never delivers.
    AudioRecorder rec(tk::platform::makePulseAudioInput());
    rec.begin();
    QTest::qWait(500);
    std::optional<QString> file;
    {
        Watchdog w("finish() on a stalled source");
        file = rec.finish();
    }
    QVERIFY(!file);
    for (float l : rec.levels())
        QCOMPARE(l, 0.0f);
    m_desk.run("pactl", {"unload-module", module});
    m_desk.run("pactl", {"set-default-source", "cap.monitor"});
}

void TestVoicePulse::sourceUnpluggedWhileRecording() {
    QString module;
    const QString fifo = pipeSource("unplugged", &module);
    QVERIFY(!fifo.isEmpty());
    const int fd = ::open(fifo.toLocal8Bit().constData(), O_WRONLY | O_NONBLOCK);
    QVERIFY(fd >= 0);
    std::atomic<bool> feeding{true};
    std::thread feeder([fd, &feeding] {
        const auto chunk = tone(160, 0.5); // 10 ms
        while (feeding) {
            if (::write(fd, chunk.data(), chunk.size() * 2) < 0)
                break;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    });
    AudioRecorder rec(tk::platform::makePulseAudioInput());
    rec.begin();
    QTest::qWait(800);
    feeding = false;
    feeder.join();
    ::close(fd);
    QCOMPARE(m_desk.run("pactl", {"unload-module", module}), 0);
    QTest::qWait(300);
    std::optional<QString> file;
    {
        Watchdog w("finish() after the source went away");
        file = rec.finish();
    }
    m_desk.run("pactl", {"set-default-source", "cap.monitor"});
    // What was heard before the source went is a complete file.
    QVERIFY(file);
    const auto pcm = tk::decodeToPcm16k(*file);
    QVERIFY2(pcm && pcm->size() > 16000 / 2, qPrintable(QString::number(pcm ? pcm->size() : 0)));
    QVERIFY(*std::max_element(rec.levels().begin(), rec.levels().end()) > 0.7f);
    QFile::remove(*file);
}

QTEST_GUILESS_MAIN(TestVoicePulse)
#include "tst_voice_pulse.moc"
