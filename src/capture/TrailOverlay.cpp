#include "capture/TrailOverlay.h"

#include "capture/TrailView.h"

#include <QGuiApplication>
#include <QScreen>

namespace tk {

TrailOverlay::TrailOverlay(std::shared_ptr<platform::InkSurface> ink) : m_ink(std::move(ink)) {}

TrailOverlay::~TrailOverlay() = default;

bool TrailOverlay::show() {
    QScreen* screen = QGuiApplication::primaryScreen();
    if (!screen)
        return false;
    m_view = std::make_unique<TrailView>(m_ink);
    // Override-redirect: no window manager decoration, focus or taskbar entry.
    m_view->setWindowFlags(Qt::Window | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint |
                           Qt::Tool | Qt::WindowTransparentForInput | Qt::WindowDoesNotAcceptFocus |
                           Qt::X11BypassWindowManagerHint);
    m_view->setGeometry(screen->geometry());
    if (m_view->shaped())
        m_ink->begin(screen->geometry(), TrailView::inkColour().rgb());
    else
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
    if (m_view->shaped())
        m_ink->end();
    m_view->hide();
    m_view.reset();
}

} // namespace tk
