#pragma once

#include "platform/Platform.h"

#include <QObject>
#include <QThreadPool>
#include <QTimer>

#include <memory>

namespace tk {

class CaptureController;
class Ingest;
class ServiceApi;

// Wires the parts together at launch and owns them for the life of the process.
class AppDelegate : public QObject {
    Q_OBJECT
public:
    explicit AppDelegate(std::shared_ptr<platform::Platform> platform, QObject* parent = nullptr);
    ~AppDelegate() override;

    void launch();
    CaptureController& controller() { return *m_controller; }

    static constexpr int kDrainMs = 30'000;

private:
    void syncScreenScales();

    std::shared_ptr<platform::Platform> m_platform;
    std::unique_ptr<ServiceApi> m_api;
    std::unique_ptr<Ingest> m_ingest;
    std::unique_ptr<CaptureController> m_controller;
    QThreadPool m_writers;
    QTimer m_drain;
};

} // namespace tk
