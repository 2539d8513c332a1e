#include "context/Transcriber.h"

#include "context/AudioDecode.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <pocketsphinx.h>

#include <malloc.h>

#include <thread>

namespace tk {

// ---- whisper.cpp

WhisperEngine::WhisperEngine(QString modelDir)
    : m_modelDir(modelDir.isEmpty() ? defaultModelDir() : std::move(modelDir)) {}

QString WhisperEngine::defaultModelDir() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
           QStringLiteral("/tolmesk/models");
}

QString WhisperEngine::model() const {
    const QStringList models =
        QDir(m_modelDir).entryList({QStringLiteral("ggml-*.bin")}, QDir::Files, QDir::Name);
    return models.isEmpty() ? QString() : QDir(m_modelDir).filePath(models.first());
}

bool WhisperEngine::available() const {
    return !QStandardPaths::findExecutable(QStringLiteral("whisper-cli")).isEmpty() &&
           !model().isEmpty();
}

QString WhisperEngine::parseOutput(const QByteArray& out) {
    static const QRegularExpression stamp(
        QStringLiteral("^\\s*\\[[0-9:.,]+\\s*-->\\s*[0-9:.,]+\\]"));
    // [BLANK_AUDIO], [Music], [ Silence ] anywhere; a segment that is only
    // "(wind blowing)" or "*cough*" or notes: none of that is speech.
    static const QRegularExpression tag(QStringLiteral("\\[[^\\]]*\\]"));
    static const QRegularExpression sound(
        QStringLiteral("^(\\([^)]*\\)|\\*[^*]*\\*|[\\x{266A}\\x{266B}\\s]+)$"));
    QStringList parts;
    for (QString line : QString::fromUtf8(out).split(QLatin1Char('\n'))) {
        line.remove(stamp);
        line.remove(tag);
        line = line.trimmed();
        if (!line.isEmpty() && !sound.match(line).hasMatch())
            parts << line;
    }
    return parts.join(QLatin1Char(' ')).simplified();
}

std::optional<QString> WhisperEngine::transcribe(const QString& audioPath) {
    const QString exe = QStandardPaths::findExecutable(QStringLiteral("whisper-cli"));
    const QString m = model();
    if (exe.isEmpty() || m.isEmpty())
        return std::nullopt;
    const auto pcm = decodeToPcm16k(audioPath);
    QTemporaryDir tmp;
    const QString wav = tmp.filePath(QStringLiteral("voice.wav"));
    if (!pcm || !tmp.isValid() || !writeWav(wav, *pcm))
        return std::nullopt;
    QProcess p;
    p.start(exe, {QStringLiteral("-m"), m, QStringLiteral("-f"), wav, QStringLiteral("-l"),
                  QStringLiteral("en"), QStringLiteral("-np")});
    if (!p.waitForStarted() || !p.waitForFinished(120'000) ||
        p.exitStatus() != QProcess::NormalExit || p.exitCode() != 0)
        return std::nullopt;
    return parseOutput(p.readAllStandardOutput());
}

// ---- pocketsphinx

PocketsphinxEngine::PocketsphinxEngine(QString modelDir) : m_modelDir(std::move(modelDir)) {}

bool PocketsphinxEngine::available() const {
    const QDir d(m_modelDir);
    return d.exists(QStringLiteral("en-us")) && d.exists(QStringLiteral("en-us.lm.bin")) &&
           d.exists(QStringLiteral("cmudict-en-us.dict"));
}

std::optional<QString> PocketsphinxEngine::transcribe(const QString& audioPath) {
    if (!available())
        return std::nullopt;
    const auto pcm = decodeToPcm16k(audioPath);
    if (!pcm)
        return std::nullopt;
    const QDir d(m_modelDir);
    const QByteArray hmm = d.filePath(QStringLiteral("en-us")).toLocal8Bit();
    const QByteArray lm = d.filePath(QStringLiteral("en-us.lm.bin")).toLocal8Bit();
    const QByteArray dict = d.filePath(QStringLiteral("cmudict-en-us.dict")).toLocal8Bit();
    // Loaded per recording and freed after: ~100 MB that an idle app should not hold.
    cmd_ln_t* config =
        cmd_ln_init(nullptr, ps_args(), TRUE, "-hmm", hmm.constData(), "-lm", lm.constData(),
                    "-dict", dict.constData(), "-logfn", "/dev/null", nullptr);
    if (!config)
        return std::nullopt;
    ps_decoder_t* ps = ps_init(config);
    if (!ps) {
        cmd_ln_free_r(config);
        return std::nullopt;
    }
    std::optional<QString> text;
    if (ps_start_utt(ps) >= 0 && ps_process_raw(ps, pcm->data(), pcm->size(), FALSE, TRUE) >= 0 &&
        ps_end_utt(ps) >= 0) {
        int32 score = 0;
        const char* hyp = ps_get_hyp(ps, &score);
        text = QString::fromUtf8(hyp ? hyp : "");
    }
    ps_free(ps);
    cmd_ln_free_r(config);
    // The model's pages go back to the system now, not at some later allocation.
    malloc_trim(0);
    return text;
}

// ---- choice

std::optional<QString> Transcriber::run(SpeechEngine* newer, SpeechEngine& older,
                                        const QString& audioPath) {
    if (newer && newer->available()) {
        if (auto text = newer->transcribe(audioPath); text && !text->trimmed().isEmpty())
            return text->trimmed();
    }
    if (!older.available())
        return std::nullopt;
    return older.transcribe(audioPath);
}

std::optional<QString> Transcriber::runInstalled(const QString& audioPath) {
    WhisperEngine newer;
    PocketsphinxEngine older;
    return run(&newer, older, audioPath);
}

void Transcriber::transcribe(const QString& audioPath, Completion done) {
    std::thread([audioPath, done = std::move(done)] { done(runInstalled(audioPath)); }).detach();
}

} // namespace tk
