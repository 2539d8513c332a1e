// Voice figures: transcription speed and memory, recorder overhead and the time
// from key-down to the first captured sample.
#include "capture/AudioRecorder.h"
#include "context/AudioDecode.h"
#include "context/Transcriber.h"
#include "platform/Platform.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QTimer>

#include <sys/resource.h>

#include <atomic>
#include <cstdio>

namespace {

double rssMiB(const char* key) {
    QFile f(QStringLiteral("/proc/self/status"));
    if (!f.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : f.readAll().split('\n'))
        if (line.startsWith(key))
            return line.mid(int(qstrlen(key))).trimmed().split(' ').value(0).toDouble() / 1024.0;
    return 0;
}

double cpuSeconds() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           double(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// Notes when the first samples arrive, then hands them on.
class Stopwatch final : public tk::platform::AudioInput {
public:
    explicit Stopwatch(std::shared_ptr<tk::platform::AudioInput> real) : m_real(std::move(real)) {}
    bool available() override { return m_real->available(); }
    std::unique_ptr<tk::platform::AudioCapture> start(Sink sink) override {
        m_clock.start();
        m_firstMs = -1;
        return m_real->start([this, sink](std::span<const int16_t> s) {
            if (m_firstMs.load() < 0)
                m_firstMs = m_clock.nsecsElapsed() / 1e6;
            sink(s);
        });
    }
    double firstMs() const { return m_firstMs; }

private:
    std::shared_ptr<tk::platform::AudioInput> m_real;
    QElapsedTimer m_clock;
    std::atomic<double> m_firstMs{-1};
};

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() >= 3 && args[1] == QLatin1String("--transcribe")) {
        for (const QString& file : args.mid(2)) {
            const auto pcm = tk::decodeToPcm16k(file);
            const double seconds = pcm ? double(pcm->size()) / 16000.0 : 0;
            const double idle = rssMiB("VmRSS:");
            tk::PocketsphinxEngine engine;
            QElapsedTimer t;
            t.start();
            const auto text = engine.transcribe(file);
            const double ms = t.nsecsElapsed() / 1e6;
            std::printf(
                "%s\t%.2f s audio\t%.0f ms\tRTF %.2f\tRSS %.0f -> peak %.0f -> %.0f MiB\t%s\n",
                qPrintable(file.section('/', -1)), seconds, ms, ms / 1000 / seconds, idle,
                rssMiB("VmHWM:"), rssMiB("VmRSS:"),
                qPrintable(text.value_or(QStringLiteral("(failed)"))));
        }
        return 0;
    }
    if (args.size() >= 2 && args[1] == QLatin1String("--record")) {
        auto platform = tk::platform::loadPlatform();
        auto watch = std::make_shared<Stopwatch>(platform->audio);
        tk::AudioRecorder rec(watch);
        std::vector<double> firsts;
        for (int round = 0; round < 5; ++round) {
            const double cpu0 = cpuSeconds();
            QElapsedTimer wall;
            wall.start();
            rec.begin();
            QTimer::singleShot(2000, &app, &QCoreApplication::quit);
            app.exec();
            const auto file = rec.finish();
            const double cpu = cpuSeconds() - cpu0;
            std::printf("recording %d: first sample after %.1f ms, CPU %.1f %% of one core, "
                        "%s\n",
                        round, watch->firstMs(), 100.0 * cpu / (wall.nsecsElapsed() / 1e9),
                        file ? "file kept" : "no file");
            if (file)
                QFile::remove(*file);
        }
        return 0;
    }
    std::fprintf(stderr, "voice_timing --transcribe FILE... | --record\n");
    return 2;
}
