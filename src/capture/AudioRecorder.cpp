#include "capture/AudioRecorder.h"

#include "capture/AacWriter.h"

#include <QDir>
#include <QFileInfo>
#include <QUuid>

#include <cmath>
#include <mutex>

namespace tk {

namespace {
constexpr size_t kWindow = platform::AudioInput::kRate * AudioRecorder::kMeterMs / 1000;
}

// Touched by the capture thread (samples) and the main thread (meter, finish).
struct AudioRecorder::Shared {
    std::mutex mutex;
    QString path;
    std::unique_ptr<AacWriter> writer;
    bool writerFailed = false;
    int16_t recent[kWindow] = {};
    size_t recentNext = 0;
    size_t recentCount = 0;
};

AudioRecorder::AudioRecorder(std::shared_ptr<platform::AudioInput> input, QObject* parent)
    : QObject(parent), m_input(std::move(input)) {
    m_meter.setInterval(kMeterMs);
    connect(&m_meter, &QTimer::timeout, this, &AudioRecorder::tick);
}

AudioRecorder::~AudioRecorder() {
    if (m_capture)
        finish();
}

float AudioRecorder::levelFor(float dbfs) {
    return (std::max(dbfs, -60.0f) + 60.0f) / 60.0f;
}

float AudioRecorder::rmsDbfs(const int16_t* samples, size_t count) {
    if (count == 0)
        return -INFINITY;
    double sum = 0;
    for (size_t i = 0; i < count; ++i) {
        const double v = samples[i] / 32768.0;
        sum += v * v;
    }
    const double rms = std::sqrt(sum / double(count));
    return rms > 0 ? float(20.0 * std::log10(rms)) : -INFINITY;
}

void AudioRecorder::appendLevel(std::vector<float>& levels, float level) {
    const bool full = levels.size() >= kMaxLevels;
    levels.push_back(level);
    if (full)
        levels.erase(levels.begin());
}

std::optional<QString> AudioRecorder::acceptFile(const QString& path) {
    const QFileInfo info(path);
    if (info.exists() && info.size() > kMinBytes)
        return path;
    return std::nullopt;
}

void AudioRecorder::begin() {
    m_levels.clear();
    m_path = QDir::tempPath() + QStringLiteral("/tk-") +
             QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper() + QStringLiteral(".m4a");
    m_shared = std::make_shared<Shared>();
    m_shared->path = m_path;
    m_capture.reset();
    if (m_input) {
        // The encoder is made with the first samples, on the capture thread:
        // neither the device nor the file may hold up the gesture.
        auto shared = m_shared;
        m_capture = m_input->start([shared](std::span<const int16_t> samples) {
            std::lock_guard g(shared->mutex);
            if (!shared->writer && !shared->writerFailed) {
                shared->writer = AacWriter::create(shared->path, platform::AudioInput::kRate);
                shared->writerFailed = !shared->writer;
            }
            if (shared->writer)
                shared->writer->write(samples);
            for (int16_t s : samples) {
                shared->recent[shared->recentNext] = s;
                shared->recentNext = (shared->recentNext + 1) % kWindow;
                shared->recentCount = std::min(shared->recentCount + 1, kWindow);
            }
        });
    }
    m_meter.start();
}

void AudioRecorder::tick() {
    if (!m_capture || !m_capture->open())
        return;
    float dbfs;
    {
        std::lock_guard g(m_shared->mutex);
        // The ring holds the last 50 ms; order does not matter for RMS.
        dbfs = rmsDbfs(m_shared->recent, m_shared->recentCount);
    }
    appendLevel(m_levels, levelFor(dbfs));
}

std::optional<QString> AudioRecorder::finish() {
    m_meter.stop();
    if (!m_capture)
        return std::nullopt;
    m_capture->stop();
    m_capture.reset();
    {
        std::lock_guard g(m_shared->mutex);
        if (m_shared->writer) {
            m_shared->writer->finish();
            m_shared->writer.reset();
        }
    }
    return acceptFile(m_path);
}

} // namespace tk
