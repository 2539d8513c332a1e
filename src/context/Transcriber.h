#pragma once

#include <QString>

#include <functional>
#include <memory>
#include <optional>

namespace tk {

// One way of turning a recording into text.
class SpeechEngine {
public:
    virtual ~SpeechEngine() = default;
    virtual bool available() const = 0;
    // Blocking. Nothing on failure; "" when nothing was heard.
    virtual std::optional<QString> transcribe(const QString& audioPath) = 0;
};

// whisper.cpp's command-line tool with a ggml model, when both are installed.
class WhisperEngine final : public SpeechEngine {
public:
    explicit WhisperEngine(QString modelDir = {});
    bool available() const override;
    std::optional<QString> transcribe(const QString& audioPath) override;
    // The tool's printout to plain text: timestamps and markers dropped.
    static QString parseOutput(const QByteArray& out);
    static QString defaultModelDir(); // $XDG_DATA_HOME/tolmesk/models

private:
    QString model() const;
    QString m_modelDir;
};

// pocketsphinx in process with Debian's en-us model.
class PocketsphinxEngine final : public SpeechEngine {
public:
    explicit PocketsphinxEngine(
        QString modelDir = QStringLiteral("/usr/share/pocketsphinx/model/en-us"));
    bool available() const override; // the model files are present
    std::optional<QString> transcribe(const QString& audioPath) override;

private:
    QString m_modelDir;
};

class Transcriber {
public:
    using Completion = std::function<void(std::optional<QString>)>;
    // Returns at once; `done` runs later on a worker thread of its own.
    static void transcribe(const QString& audioPath, Completion done);
    // Blocking, with the engines installed on this machine.
    static std::optional<QString> runInstalled(const QString& audioPath);
    // The choice between the two engines, blocking: the newer one first when it
    // is there; failing or hearing nothing, the older one decides.
    static std::optional<QString> run(SpeechEngine* newer, SpeechEngine& older,
                                      const QString& audioPath);
};

} // namespace tk
