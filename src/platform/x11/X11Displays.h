#pragma once

#include "platform/Platform.h"
#include "platform/x11/X11Connection.h"

#include <mutex>

namespace tk::platform {

class X11Displays final : public Displays {
public:
    explicit X11Displays(std::shared_ptr<X11Connection> conn) : m_conn(std::move(conn)) {}
    std::vector<Monitor> monitors() const override;
    std::optional<QPoint> pointerPixels() const override;
    void setScales(std::vector<std::pair<QString, double>> scales) override;

    // Root pixels to global points: the toolkit keeps a screen's top-left and
    // divides the rest by its scale.
    QPointF toPoints(QPoint px) const;

private:
    std::vector<Monitor> queryMonitors() const;
    std::shared_ptr<X11Connection> m_conn;
    mutable std::mutex m_scaleMutex;
    std::vector<std::pair<QString, double>> m_scales;
    mutable std::vector<Monitor> m_cache; // for toPoints on the input path
};

} // namespace tk::platform
