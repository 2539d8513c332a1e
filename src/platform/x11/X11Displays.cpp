#include "platform/x11/X11Displays.h"

#include <X11/Xlib.h>
#include <X11/extensions/Xrandr.h>

namespace tk::platform {

std::vector<Monitor> X11Displays::queryMonitors() const {
    std::vector<Monitor> out;
    auto lock = m_conn->lock();
    Display* dpy = m_conn->display();
    int n = 0;
    XRRMonitorInfo* info = XRRGetMonitors(dpy, m_conn->root(), True, &n);
    for (int i = 0; info && i < n; ++i) {
        Monitor m;
        char* name = XGetAtomName(dpy, info[i].name);
        m.name = QString::fromLocal8Bit(name ? name : "");
        if (name)
            XFree(name);
        m.pixels = QRect(info[i].x, info[i].y, info[i].width, info[i].height);
        m.primary = info[i].primary;
        out.push_back(m);
    }
    if (info)
        XRRFreeMonitors(info);
    if (out.empty()) {
        // No RandR monitors (some nested servers): the root window is the screen.
        Monitor m;
        m.name = QStringLiteral("root");
        m.pixels = QRect(0, 0, DisplayWidth(dpy, DefaultScreen(dpy)),
                         DisplayHeight(dpy, DefaultScreen(dpy)));
        m.primary = true;
        out.push_back(m);
    }
    bool anyPrimary = false;
    for (const auto& m : out)
        anyPrimary = anyPrimary || m.primary;
    if (!anyPrimary)
        out.front().primary = true;
    std::lock_guard g(m_scaleMutex);
    for (auto& m : out)
        for (const auto& [name, scale] : m_scales)
            if (name == m.name && scale > 0)
                m.scale = scale;
    return out;
}

std::vector<Monitor> X11Displays::monitors() const {
    auto out = queryMonitors();
    std::lock_guard g(m_scaleMutex);
    m_cache = out;
    return out;
}

std::optional<QPoint> X11Displays::pointerPixels() const {
    auto lock = m_conn->lock();
    Window rootRet = 0, child = 0;
    int rx = 0, ry = 0, wx = 0, wy = 0;
    unsigned int mask = 0;
    if (!XQueryPointer(m_conn->display(), m_conn->root(), &rootRet, &child, &rx, &ry, &wx, &wy,
                       &mask))
        return std::nullopt;
    return QPoint(rx, ry);
}

void X11Displays::setScales(std::vector<std::pair<QString, double>> scales) {
    {
        std::lock_guard g(m_scaleMutex);
        m_scales = std::move(scales);
    }
    monitors();
}

QPointF X11Displays::toPoints(QPoint px) const {
    std::lock_guard g(m_scaleMutex);
    for (const auto& m : m_cache) {
        if (m.pixels.contains(px)) {
            const QPointF tl = m.pixels.topLeft();
            return tl + (QPointF(px) - tl) / m.scale;
        }
    }
    return QPointF(px);
}

} // namespace tk::platform
