#pragma once

#include "context/AX.h"
#include "platform/Platform.h"

#include <QDateTime>
#include <QPointF>
#include <QString>

#include <functional>
#include <optional>
#include <vector>

namespace tk {

class Ingest;

// What one finished gesture hands to the writer: copies, never shared state.
struct Gesture {
    QDateTime startedAt;
    std::vector<PointerSample> pointerPath;
    QPointF downPoint;
    std::optional<QString> audioTemp;
    std::vector<float> audioLevels;
};

class CaptureWriter {
public:
    using TranscriptDone = std::function<void(std::optional<QString>)>;
    using Transcribe = std::function<void(const QString& audioPath, TranscriptDone done)>;

    struct Deps {
        std::shared_ptr<platform::Platform> platform;
        Ingest* ingest = nullptr;
        Transcribe transcribe;                     // absent: no transcript
        std::vector<unsigned long> excludeWindows; // our own windows, kept out of the shot
    };

    // Builds one capture folder and hands it to the service. Blocking; runs on a
    // background thread; every failure inside is absorbed.
    static QString write(const Gesture& gesture, const Deps& deps);

    // $HOME/TolmeskCaptures, fixed at first use.
    static QString root();
    static std::optional<std::vector<double>> downsample(const std::vector<float>& levels, int n);
    static QString internetDate(const QDateTime& t);
};

} // namespace tk
