#include "capture/TrailOverlay.h"

#include "capture/TrailView.h"

#include <QGuiApplication>
#include <QScreen>

namespace tk {

TrailOverlay::TrailOverlay(std::shared_ptr<platform::OverlayShape> shape)
    : m_shape(std::move(shape)) {}

TrailOverlay::~TrailOverlay() = default;

bool TrailOverlay::show() {
    QScreen* screen = QGuiApplication::primaryScreen();
    if (!screen)
        return false;
    m_view = std::make_unique<TrailView>(m_shape);
    // Override-redirect: no window manager decoration, focus or taskbar entry.
    m_view->setWindowFlags(Qt::Window | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint |
                           Qt::Tool | Qt::WindowTransparentForInput | Qt::WindowDoesNotAcceptFocus |
                           Qt::X11BypassWindowManagerHint);
    m_view->setGeometry(screen->geometry());
    if (m_view->shaped())
        m_shape->clear(m_view->winId()); // nothing visible until ink is drawn
    m_view->show();
    return true;
}

void TrailOverlay::add(QPointF p) {
    if (!m_view || !QGuiApplication::primaryScreen())
        return;
    // Global coordinates used as they are: the view sits on the primary screen.
    m_view->add(p);
}

void TrailOverlay::finish() {
    if (!m_view)
        return;
    m_view->hide();
    m_view.reset();
}

} // namespace tk
