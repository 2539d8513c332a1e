#pragma once

#include "context/AX.h"
#include "context/Browser.h"

#include <QByteArray>
#include <QJsonObject>

#include <array>
#include <optional>
#include <vector>

namespace tk {

// The record written as context.json beside each screenshot.
struct CaptureContext {
    struct AppInfo {
        QString bundleId;
        QString name;
    };
    struct WindowInfo {
        QString title;
    };
    struct Pointer {
        std::vector<PointerSample> path;
        std::array<double, 2> downAt{};
    };
    struct AXInfo {
        std::vector<AxElement> atPoint;
        std::optional<AxElement> lassoAncestor;
        QString permission;
    };

    QString id;
    QString startedAt;
    QString endedAt;
    double displayScale = 2.0;
    AppInfo app;
    WindowInfo window;
    std::optional<BrowserPage> browser;
    Pointer pointer;
    AXInfo ax;
    std::optional<std::vector<double>> audioLevels;
};

QJsonObject toJson(const CaptureContext& c);
std::optional<CaptureContext> contextFromJson(const QJsonObject& o);
// Pretty-printed, keys sorted at every level; nothing when any number is not finite.
std::optional<QByteArray> encodeContext(const CaptureContext& c);

} // namespace tk
