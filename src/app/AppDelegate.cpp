#include "app/AppDelegate.h"

#include "app/ServiceApi.h"
#include "capture/CaptureController.h"
#include "context/Transcriber.h"
#include "writer/CaptureWriter.h"
#include "writer/Ingest.h"

#include <QGuiApplication>
#include <QLoggingCategory>
#include <QScreen>

Q_DECLARE_LOGGING_CATEGORY(lcTolmesk)

namespace tk {

AppDelegate::AppDelegate(std::shared_ptr<platform::Platform> platform, QObject* parent)
    : QObject(parent), m_platform(std::move(platform)), m_api(std::make_unique<ServiceApi>()),
      m_ingest(std::make_unique<Ingest>(*m_api)) {
    // One recording at a time: a single recogniser's memory, one core left for
    // new gestures. Waited for before the hand-off it calls back into goes away.
    auto* transcripts = new QThreadPool(this);
    transcripts->setObjectName(QStringLiteral("transcripts"));
    transcripts->setMaxThreadCount(1);
    auto writer = [this, transcripts](Gesture g) {
        CaptureWriter::Deps deps;
        deps.platform = m_platform;
        deps.ingest = m_ingest.get();
        deps.transcribe = [transcripts](const QString& audio, CaptureWriter::TranscriptDone done) {
            transcripts->start(
                [audio, done = std::move(done)] { done(Transcriber::runInstalled(audio)); });
        };
        m_writers.start(
            [g = std::move(g), deps = std::move(deps)] { CaptureWriter::write(g, deps); });
    };
    m_controller = std::make_unique<CaptureController>(m_platform, writer);
}

AppDelegate::~AppDelegate() {
    m_writers.waitForDone();
    if (auto* transcripts = findChild<QThreadPool*>(QStringLiteral("transcripts")))
        transcripts->waitForDone();
}

void AppDelegate::syncScreenScales() {
    std::vector<std::pair<QString, double>> scales;
    for (QScreen* s : QGuiApplication::screens())
        scales.emplace_back(s->name(), s->devicePixelRatio());
    m_platform->displays->setScales(std::move(scales));
}

void AppDelegate::launch() {
    syncScreenScales();
    connect(qApp, &QGuiApplication::screenAdded, this, &AppDelegate::syncScreenScales);
    connect(qApp, &QGuiApplication::screenRemoved, this, &AppDelegate::syncScreenScales);

    m_controller->setOnStateChange([](bool) {});
    m_controller->start();

    m_drain.setInterval(kDrainMs);
    connect(&m_drain, &QTimer::timeout, this, [this] { m_ingest->drainPending(); });
    m_drain.start();

    const bool trusted = m_platform->accessibility->trusted();
    qCInfo(lcTolmesk).noquote() << QStringLiteral("Tolmesk up. hotkey=%1 ax=%2")
                                       .arg(m_controller->hotkeyActive()
                                                ? QStringLiteral("Alt+Space")
                                                : QStringLiteral("menu-only"),
                                            trusted ? QStringLiteral("granted")
                                                    : QStringLiteral("denied"));
}

} // namespace tk
