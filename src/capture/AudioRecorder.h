#pragma once

#include "platform/AudioInput.h"

#include <QObject>
#include <QString>
#include <QTimer>

#include <memory>
#include <optional>
#include <vector>

namespace tk {

class AacWriter;

// The voice of one gesture: the default microphone into a temporary .m4a, and
// its loudness twenty times a second.
class AudioRecorder : public QObject {
    Q_OBJECT
public:
    static constexpr int kMeterMs = 50;
    static constexpr size_t kMaxLevels = 2400;
    static constexpr qint64 kMinBytes = 1000;

    explicit AudioRecorder(std::shared_ptr<platform::AudioInput> input, QObject* parent = nullptr);
    ~AudioRecorder() override;

    void begin();
    // The temporary file when it holds more than 1000 bytes.
    std::optional<QString> finish();
    const std::vector<float>& levels() const { return m_levels; }

    // 0 at -60 dBFS and below, 1 at full scale; louder is not clamped.
    static float levelFor(float dbfs);
    static float rmsDbfs(const int16_t* samples, size_t count);
    static void appendLevel(std::vector<float>& levels, float level);
    static std::optional<QString> acceptFile(const QString& path);

private:
    struct Shared;
    void tick();

    std::shared_ptr<platform::AudioInput> m_input;
    std::shared_ptr<Shared> m_shared;
    std::unique_ptr<platform::AudioCapture> m_capture;
    QString m_path;
    QTimer m_meter;
    std::vector<float> m_levels;
};

} // namespace tk
