#include "capture/AacWriter.h"
#include "capture/AudioRecorder.h"
#include "context/AudioDecode.h"
#include "context/Transcriber.h"

#include <QFile>
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
    QTest::newRow("timestamps")
        << QByteArray("\n[00:00:00.000 --> 00:00:02.340]   This button does nothing when I "
                      "click it.\n[00:00:02.340 --> 00:00:04.000]   Please fix it.\n")
        << "This button does nothing when I click it. Please fix it.";
    QTest::newRow("no timestamps")
        << QByteArray(" The menu is cut off.\n") << "The menu is cut off.";
    QTest::newRow("silence") << QByteArray("[00:00:00.000 --> 00:00:01.000]   [BLANK_AUDIO]\n")
                             << "";
    QTest::newRow("noise marker") << QByteArray(" (wind blowing)\n") << "";
}

void TestVoice::whisperOutput() {
    QFETCH(QByteArray, out);
    QFETCH(QString, text);
    QCOMPARE(WhisperEngine::parseOutput(out), text);
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
