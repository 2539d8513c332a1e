#include "platform/x11/X11Platform.h"

#include "platform/x11/X11Connection.h"
#include "platform/x11/X11Displays.h"
#include "platform/x11/X11Grabber.h"
#include "platform/x11/X11Ink.h"
#include "platform/x11/X11Input.h"
#include "platform/x11/X11Workspace.h"

#include <QLoggingCategory>

#include <X11/Xlib.h>

Q_DECLARE_LOGGING_CATEGORY(lcPlatform)

namespace tk::platform {
namespace {

// Xlib's default handler exits the process; a vanished window during a query
// must only fail that query.
int quietErrors(Display*, XErrorEvent* e) {
    qCDebug(lcPlatform) << "X error" << e->error_code << "request" << e->request_code;
    return 0;
}

} // namespace

std::unique_ptr<Platform> makeX11Platform() {
    auto conn = X11Connection::open();
    if (!conn)
        return nullptr;
    XSetErrorHandler(quietErrors);
    auto p = std::make_unique<Platform>();
    p->name = QStringLiteral("x11");
    auto displays = std::make_unique<X11Displays>(conn);
    displays->monitors();
    p->input = std::make_unique<X11InputTap>(displays.get());
    p->grabber = std::make_unique<X11Grabber>(conn, displays.get());
    p->workspace = std::make_unique<X11Workspace>(conn);
    // Its own connection: the trail must not wait behind a grab of an earlier capture.
    auto inkConn = X11Connection::open();
    p->ink = std::make_unique<X11InkSurface>(inkConn ? inkConn : conn);
    p->displays = std::move(displays);
    return p;
}

std::function<std::vector<qint64>(QPoint)> x11WindowsAt(const Platform& p) {
    auto ws = std::dynamic_pointer_cast<X11Workspace>(p.workspace);
    auto displays = std::dynamic_pointer_cast<X11Displays>(p.displays);
    if (!ws)
        return {};
    return [ws, displays](QPoint points) {
        // Points to root pixels: the inverse of what the input path does.
        QPoint px = points;
        if (displays)
            for (const auto& m : displays->monitors()) {
                const QPointF tl = m.pixels.topLeft();
                const QPointF back = tl + (QPointF(points) - tl) * m.scale;
                if (m.pixels.contains(back.toPoint())) {
                    px = back.toPoint();
                    break;
                }
            }
        return ws->pidsAt(px);
    };
}

} // namespace tk::platform
