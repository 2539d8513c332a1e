#pragma once

#include "capture/AudioRecorder.h"
#include "capture/TrailOverlay.h"
#include "platform/Platform.h"
#include "writer/CaptureWriter.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <functional>

namespace tk {

// Owns the gesture: hold Alt+Space, the pointer's path, the trail, the voice;
// on release the gathered copies go to the writer.
class CaptureController : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool recording READ recording NOTIFY recordingChanged FINAL)
    Q_PROPERTY(bool hotkeyActive READ hotkeyActive NOTIFY hotkeyActiveChanged FINAL)
public:
    using Writer = std::function<void(Gesture)>;
    using Relaunch = std::function<void()>;

    CaptureController(std::shared_ptr<platform::Platform> platform, Writer writer,
                      QObject* parent = nullptr);
    ~CaptureController() override;

    void setOnStateChange(std::function<void(bool)> cb) { m_onStateChange = std::move(cb); }
    // What the watchdog does when the tap fails although it should work.
    void setRelaunch(Relaunch r) { m_relaunch = std::move(r); }

    void start();
    void begin();
    void end();
    // The tap's callback body.
    void handle(const platform::InputEvent& e);
    // One tick of the 2 s watchdog that installs the tap once it can.
    void retryTick();

    bool recording() const { return m_recording; }
    bool hotkeyActive() const { return m_hotkeyActive; }
    const std::vector<PointerSample>& pointerPath() const { return m_pointerPath; }
    QPointF downPoint() const { return m_downPoint; }
    TrailOverlay& overlay() { return m_overlay; }

    static constexpr int kRetryMs = 2000;

Q_SIGNALS:
    void recordingChanged();
    void hotkeyActiveChanged();

private:
    bool installTap();
    QPointF mouseLocationTopLeft() const;
    void setHotkeyActive(bool on);

    std::shared_ptr<platform::Platform> m_platform;
    Writer m_writer;
    Relaunch m_relaunch;
    std::function<void(bool)> m_onStateChange;
    bool m_hotkeyActive = false;
    bool m_recording = false;
    QDateTime m_startedAt;
    QElapsedTimer m_clock; // t of each sample: monotonic, immune to clock changes
    std::vector<PointerSample> m_pointerPath;
    QPointF m_downPoint;
    AudioRecorder m_audio;
    TrailOverlay m_overlay;
    QTimer m_retry;
};

// Starts a detached copy of this executable with the same arguments, then quits.
void relaunchSelf();

} // namespace tk
