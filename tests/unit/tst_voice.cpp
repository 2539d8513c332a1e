#include "capture/AacWriter.h"
#include "capture/AudioRecorder.h"
#include "context/AudioDecode.h"
#include "context/Transcriber.h"

#include <QFile>
#include <QProcessEnvironment>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <cmath>
#include <thread>

using namespace tk;

namespace {

std::vector<int16_t> tone(int samples, double amplitude, double hz = 440) {
    std::vector<int16_t> out(size_t(samples), 0);
    for (int i = 0; i < samples; ++i)
        out[size_t(i)] = int16_t(amplitude * 32767 * std::sin(2 * M_PI * hz * i / 16000.0));
    return out;
}

class ScriptedEngine final : public SpeechEngine {
public:
    ScriptedEngine(bool available, std::optional<QString> answer)
        : m_available(available), m_answer(std::move(answer)) {}
    bool available() const override { return m_available; }
    std::optional<QString> transcribe(const QString&) override {
        ++calls;
        return m_answer;
    }
    int calls = 0;

private:
    bool m_available;
    std::optional<QString> m_answer;
};

// A microphone that plays a fixed recording in real time on its own thread.
class ScriptedMic final : public platform::AudioInput {
public:
    explicit ScriptedMic(std::vector<int16_t> samples) : m_samples(std::move(samples)) {}
    bool available() override { return true; }
    std::unique_ptr<platform::AudioCapture> start(Sink sink) override {
        return std::make_unique<Capture>(m_samples, std::move(sink));
    }

private:
    struct Capture final : platform::AudioCapture {
        Capture(const std::vector<int16_t>& s, Sink sink) {
            m_thread = std::thread([this, s, sink] {
                m_open = true;
                for (size_t at = 0; at < s.size() && !m_stop; at += 160) {
                    sink(std::span(s).subspan(at, std::min<size_t>(160, s.size() - at)));
                    std::this_thread::sleep_for(std::chrono::milliseconds(10));
                }
            });
        }
        ~Capture() override { stop(); }
        bool open() const override { return m_open; }
        void stop() override {
            m_stop = true;
            if (m_thread.joinable())
                m_thread.join();
        }
        std::atomic<bool> m_open{false}, m_stop{false};
        std::thread m_thread;
    };
    std::vector<int16_t> m_samples;
};

} // namespace

class TestVoice : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void levels_data();
    void levels();
    void rms();
    void levelCap();
    void sizeRule_data();
    void sizeRule();
    void engineChoice_data();
    void engineChoice();
    void whisperOutput_data();
    void whisperOutput();
    void whisperEngine_data();
    void whisperEngine();
    void aacRoundTrip();
    void recorderWritesFileAndLevels();
    void recorderWithoutMicrophone();
};

void TestVoice::levels_data() {
    QTest::addColumn<float>("dbfs");
    QTest::addColumn<float>("level");
    QTest::newRow("silence") << -INFINITY << 0.0f;
    QTest::newRow("-80") << -80.0f << 0.0f;
    QTest::newRow("-60") << -60.0f << 0.0f;
    QTest::newRow("-30") << -30.0f << 0.5f;
    QTest::newRow("full scale") << 0.0f << 1.0f;
    QTest::newRow("above full scale is not clamped") << 6.0f << 1.1f;
}

void TestVoice::levels() {
    QFETCH(float, dbfs);
    QFETCH(float, level);
    QVERIFY(std::abs(AudioRecorder::levelFor(dbfs) - level) < 1e-6f);
}

void TestVoice::rms() {
    const std::vector<int16_t> square(800, 32767);
    QVERIFY(std::abs(AudioRecorder::rmsDbfs(square.data(), square.size())) < 0.01f);
    const auto sine = tone(800, 1.0);
    QVERIFY(std::abs(AudioRecorder::rmsDbfs(sine.data(), sine.size()) + 3.01f) < 0.05f);
    const std::vector<int16_t> quiet(800, 0);
    QCOMPARE(AudioRecorder::levelFor(AudioRecorder::rmsDbfs(quiet.data(), quiet.size())), 0.0f);
}

void TestVoice::levelCap() {
    std::vector<float> levels;
    for (int i = 0; i < 2500; ++i)
        AudioRecorder::appendLevel(levels, float(i));
    QCOMPARE(levels.size(), size_t(2400));
    QCOMPARE(levels.front(), 100.0f);
    QCOMPARE(levels.back(), 2499.0f);
}

void TestVoice::sizeRule_data() {
    QTest::addColumn<int>("bytes");
    QTest::addColumn<bool>("kept");
    QTest::newRow("1000 rejected") << 1000 << false;
    QTest::newRow("1001 kept") << 1001 << true;
    QTest::newRow("empty") << 0 << false;
    QTest::newRow("missing") << -1 << false;
}

void TestVoice::sizeRule() {
    QFETCH(int, bytes);
    QFETCH(bool, kept);
    QTemporaryDir dir;
    const QString path = dir.filePath("tk-X.m4a");
    if (bytes >= 0) {
        QFile f(path);
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write(QByteArray(bytes, 'a'));
    }
    QCOMPARE(AudioRecorder::acceptFile(path).has_value(), kept);
}

void TestVoice::engineChoice_data() {
    QTest::addColumn<bool>("newerThere");
    QTest::addColumn<QVariant>("newerSays"); // invalid: fails
    QTest::addColumn<bool>("olderThere");
    QTest::addColumn<QVariant>("olderSays");
    QTest::addColumn<QVariant>("result");
    QTest::addColumn<int>("olderCalls");
    const QVariant none;
    QTest::newRow("newer hears") << true << QVariant("  hello there \n") << true << QVariant("old")
                                 << QVariant("hello there") << 0;
    QTest::newRow("newer hears nothing: older")
        << true << QVariant("  ") << true << QVariant("old") << QVariant("old") << 1;
    QTest::newRow("newer fails: older")
        << true << none << true << QVariant("old") << QVariant("old") << 1;
    QTest::newRow("newer missing: older")
        << false << QVariant("new") << true << QVariant("old") << QVariant("old") << 1;
    QTest::newRow("older's empty result is kept, not nothing")
        << true << QVariant("") << true << QVariant("") << QVariant("") << 1;
    QTest::newRow("older fails") << false << none << true << none << none << 1;
    QTest::newRow("older not there") << false << none << false << QVariant("x") << none << 0;
}

void TestVoice::engineChoice() {
    QFETCH(bool, newerThere);
    QFETCH(QVariant, newerSays);
    QFETCH(bool, olderThere);
    QFETCH(QVariant, olderSays);
    QFETCH(QVariant, result);
    QFETCH(int, olderCalls);
    auto opt = [](const QVariant& v) {
        return v.isValid() ? std::optional<QString>(v.toString()) : std::nullopt;
    };
    ScriptedEngine newer(newerThere, opt(newerSays));
    ScriptedEngine older(olderThere, opt(olderSays));
    const auto got = Transcriber::run(&newer, older, "/x.m4a");
    QCOMPARE(got, opt(result));
    QCOMPARE(older.calls, olderCalls);
}

void TestVoice::whisperOutput_data() {
    QTest::addColumn<QByteArray>("out");
    QTest::addColumn<QString>("text");
    auto fixture = [](const char* name) {
        QFile f(QStringLiteral(TK_FIXTURES "/voice/") + QLatin1String(name));
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("unreadable fixture");
    };
    QTest::newRow("segments with timestamps")
        << fixture("whisper-cli-stdout.txt")
        << "This button does nothing when I click it. The save dialog closes before I can type "
           "the file name, and then the list is empty.";
    QTest::newRow("silence") << fixture("whisper-cli-silence.txt") << "";
    QTest::newRow("segments run together without timestamps")
        << QByteArray("\n This button does nothing. Please fix it.\n")
        << "This button does nothing. Please fix it.";
    QTest::newRow("tags in any case")
        << QByteArray("[00:00:00.000 --> 00:00:01.000]   [Music]\n"
                      "[00:00:01.000 --> 00:00:02.000]   [ Silence ] the menu\n")
        << "the menu";
    QTest::newRow("sound-only segments")
        << QByteArray("[00:00:00.000 --> 00:00:01.000]   (wind blowing)\n"
                      "[00:00:01.000 --> 00:00:02.000]   *cough*\n"
                      "[00:00:02.000 --> 00:00:03.000]   \xe2\x99\xaa\n")
        << "";
    QTest::newRow("brackets inside speech stay")
        << QByteArray("[00:00:00.000 --> 00:00:02.000]   The blue one (on the left) is cut off.\n")
        << "The blue one (on the left) is cut off.";
}

void TestVoice::whisperOutput() {
    QFETCH(QByteArray, out);
    QFETCH(QString, text);
    QCOMPARE(WhisperEngine::parseOutput(out), text);
}

void TestVoice::whisperEngine_data() {
    QTest::addColumn<bool>("tool");
    QTest::addColumn<bool>("model");
    QTest::addColumn<QString>("says"); // fixture name, printed by the stand-in
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<bool>("available");
    QTest::addColumn<QString>("result");
    const QString speech = "This button does nothing when I click it. The save dialog closes "
                           "before I can type the file name, and then the list is empty.";
    QTest::newRow("installed and hears speech")
        << true << true << "whisper-cli-stdout.txt" << 0 << true << speech;
    QTest::newRow("installed, hears silence: older")
        << true << true << "whisper-cli-silence.txt" << 0 << true << "older";
    QTest::newRow("tool fails: older")
        << true << true << "whisper-cli-stdout.txt" << 1 << true << "older";
    QTest::newRow("no model: older") << true << false << "" << 0 << false << "older";
    QTest::newRow("no tool: older") << false << true << "" << 0 << false << "older";
}

// whisper-cli stands in as a script on PATH that checks what it is handed (a
// model file and a 16 kHz mono WAV) and prints a recorded answer.
void TestVoice::whisperEngine() {
    QFETCH(bool, tool);
    QFETCH(bool, model);
    QFETCH(QString, says);
    QFETCH(int, exitCode);
    QFETCH(bool, available);
    QFETCH(QString, result);
    QTemporaryDir bin, models, work;
    if (tool) {
        QFile script(bin.filePath("whisper-cli"));
        QVERIFY(script.open(QIODevice::WriteOnly));
        script.write(
            QStringLiteral("#!/bin/sh\n"
                           "while [ $# -gt 0 ]; do\n"
                           "  case $1 in -m) m=$2; shift ;; -f) f=$2; shift ;; esac; shift\n"
                           "done\n"
                           "[ -s \"$m\" ] || exit 20\n"
                           "[ \"$(head -c 4 \"$f\")\" = RIFF ] || exit 21\n"
                           "[ $(od -An -tu2 -j22 -N2 \"$f\") = 1 ] || exit 22\n"
                           "[ $(od -An -tu4 -j24 -N4 \"$f\") = 16000 ] || exit 23\n"
                           "[ $(wc -c < \"$f\") -gt 16000 ] || exit 24\n"
                           "cat '%1'\n"
                           "exit %2\n")
                .arg(QStringLiteral(TK_FIXTURES "/voice/") + says)
                .arg(exitCode)
                .toUtf8());
        script.close();
        script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    if (model) {
        QFile m(models.filePath("ggml-tiny.en.bin"));
        QVERIFY(m.open(QIODevice::WriteOnly));
        m.write("ggml");
    }
    const QString audio = work.filePath("voice.m4a");
    auto w = AacWriter::create(audio, 16000);
    QVERIFY(w);
    QVERIFY(w->write(tone(16000, 0.3)));
    QVERIFY(w->finish());
    w.reset();

    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", bin.path().toLocal8Bit() + ":/usr/bin:/bin");
    WhisperEngine newer(models.path());
    ScriptedEngine older(true, QStringLiteral("older"));
    const bool there = newer.available();
    const auto got = Transcriber::run(&newer, older, audio);
    qputenv("PATH", path);
    QCOMPARE(there, available);
    QVERIFY2(got == std::optional<QString>(result), qPrintable(got.value_or("(nothing)")));
    QCOMPARE(older.calls, result == "older" ? 1 : 0);
}

void TestVoice::aacRoundTrip() {
    QTemporaryDir dir;
    const QString path = dir.filePath("a.m4a");
    auto w = AacWriter::create(path, 16000);
    QVERIFY(w);
    const auto loud = tone(16000, 0.5);
    QVERIFY(w->write(std::span(loud).first(7000)));
    QVERIFY(w->write(std::span(loud).subspan(7000)));
    QVERIFY(w->finish());
    w.reset();
    const auto back = decodeToPcm16k(path);
    QVERIFY(back);
    // One second in, one second out (the container trims the encoder's delay).
    QVERIFY2(std::abs(int(back->size()) - 16000) < 1100, qPrintable(QString::number(back->size())));
    const float db = AudioRecorder::rmsDbfs(back->data() + 4000, 8000);
    QVERIFY2(std::abs(db - (-9.03f)) < 1.5f, qPrintable(QString::number(db)));
    QVERIFY(!decodeToPcm16k(dir.filePath("missing.m4a")));
    QFile junk(dir.filePath("junk.m4a"));
    QVERIFY(junk.open(QIODevice::WriteOnly));
    junk.write("not audio at all");
    junk.close();
    QVERIFY(!decodeToPcm16k(junk.fileName()));
}

void TestVoice::recorderWritesFileAndLevels() {
    // Half a second of quiet, then a loud tone.
    std::vector<int16_t> samples(8000, 0);
    const auto loud = tone(8000, 0.8);
    samples.insert(samples.end(), loud.begin(), loud.end());
    AudioRecorder rec(std::make_shared<ScriptedMic>(samples));
    rec.begin();
    QTest::qWait(1200);
    const auto file = rec.finish();
    QVERIFY(file);
    QVERIFY(QFileInfo(*file).fileName().startsWith("tk-"));
    QVERIFY(file->endsWith(".m4a"));
    const auto pcm = decodeToPcm16k(*file);
    QVERIFY(pcm && pcm->size() > 12000);
    const auto& lv = rec.levels();
    QVERIFY2(lv.size() >= 15, qPrintable(QString::number(lv.size())));
    QVERIFY(*std::min_element(lv.begin(), lv.end()) < 0.05f);
    QVERIFY(*std::max_element(lv.begin(), lv.end()) > 0.8f);
    QFile::remove(*file);
    const size_t kept = lv.size();
    QTest::qWait(200);
    QCOMPARE(rec.levels().size(), kept); // the meter stopped with the recording
}

void TestVoice::recorderWithoutMicrophone() {
    AudioRecorder rec(nullptr);
    rec.begin();
    QTest::qWait(150);
    QVERIFY(!rec.finish());
    QVERIFY(rec.levels().empty());
}

QTEST_GUILESS_MAIN(TestVoice)
#include "tst_voice.moc"
