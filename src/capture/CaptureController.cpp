#include "capture/CaptureController.h"

#include "settings/Prefs.h"

#include <QCoreApplication>
#include <QCursor>
#include <QFileInfo>
#include <QGuiApplication>
#include <QProcess>

namespace tk {

CaptureController::CaptureController(std::shared_ptr<platform::Platform> platform, Writer writer,
                                     QObject* parent)
    : QObject(parent), m_platform(std::move(platform)), m_writer(std::move(writer)),
      m_relaunch(relaunchSelf), m_audio(m_platform ? m_platform->audio : nullptr),
      m_overlay(m_platform ? m_platform->ink : nullptr) {
    m_retry.setInterval(kRetryMs);
    connect(&m_retry, &QTimer::timeout, this, &CaptureController::retryTick);
}

CaptureController::~CaptureController() = default;

void CaptureController::setHotkeyActive(bool on) {
    if (m_hotkeyActive == on)
        return;
    m_hotkeyActive = on;
    Q_EMIT hotkeyActiveChanged();
}

bool CaptureController::installTap() {
    auto* tap = m_platform ? m_platform->input.get() : nullptr;
    if (!tap || !tap->permitted())
        return false;
    if (!tap->install([this](const platform::InputEvent& e) { handle(e); }))
        return false;
    Prefs::setBool(Prefs::kRelaunchedForAX, false);
    return true;
}

void CaptureController::start() {
    setHotkeyActive(installTap());
    m_retry.start();
}

void CaptureController::retryTick() {
    auto* tap = m_platform ? m_platform->input.get() : nullptr;
    if (m_hotkeyActive || !tap || !tap->permitted())
        return;
    setHotkeyActive(installTap());
    if (m_hotkeyActive) {
        if (m_onStateChange)
            m_onStateChange(false);
        return;
    }
    if (!Prefs::relaunchedForAX()) {
        Prefs::setBool(Prefs::kRelaunchedForAX, true);
        if (m_relaunch)
            m_relaunch();
    }
}

void CaptureController::handle(const platform::InputEvent& e) {
    using Type = platform::InputEvent::Type;
    switch (e.type) {
    case Type::Moved:
        if (!m_recording)
            return;
        m_pointerPath.push_back({e.pos.x(), e.pos.y(), double(m_clock.nsecsElapsed()) / 1e9});
        m_overlay.add(e.pos);
        return;
    case Type::KeyUp:
        // Modifiers are not looked at: letting go of Alt first keeps the gesture.
        if (e.space && m_recording)
            end();
        return;
    case Type::KeyDown:
        if (e.space && e.alt && !m_recording && !e.autoRepeat)
            begin();
        return;
    }
}

QPointF CaptureController::mouseLocationTopLeft() const {
    return QPointF(QCursor::pos());
}

void CaptureController::begin() {
    if (m_recording)
        return;
    m_recording = true;
    m_startedAt = QDateTime::currentDateTimeUtc();
    m_clock.start();
    m_pointerPath.clear();
    m_downPoint = mouseLocationTopLeft();
    m_pointerPath.push_back({m_downPoint.x(), m_downPoint.y(), 0.0});
    if (m_platform && m_platform->input)
        m_platform->input->setPointerTracking(true);
    m_overlay.show();
    m_audio.begin();
    Q_EMIT recordingChanged();
    if (m_onStateChange)
        m_onStateChange(true);
}

void CaptureController::end() {
    if (!m_recording)
        return;
    m_recording = false;
    if (m_platform && m_platform->input)
        m_platform->input->setPointerTracking(false);
    m_overlay.finish();
    Q_EMIT recordingChanged();
    if (m_onStateChange)
        m_onStateChange(false);
    Gesture g;
    g.startedAt = m_startedAt;
    g.pointerPath = m_pointerPath;
    g.downPoint = m_downPoint;
    g.audioTemp = m_audio.finish();
    g.audioLevels = m_audio.levels();
    if (m_writer)
        m_writer(std::move(g));
}

void relaunchSelf() {
    const QString exe = QFileInfo(QStringLiteral("/proc/self/exe")).symLinkTarget();
    QStringList args = QCoreApplication::arguments();
    if (!args.isEmpty())
        args.removeFirst();
    QProcess::startDetached(exe.isEmpty() ? QCoreApplication::applicationFilePath() : exe, args);
    QTimer::singleShot(400, qApp, &QCoreApplication::quit);
}

} // namespace tk
