#include "platform/x11/X11Platform.h"

#include "platform/x11/X11Connection.h"
#include "platform/x11/X11Displays.h"
#include "platform/x11/X11Grabber.h"
#include "platform/x11/X11Input.h"
#include "platform/x11/X11Shape.h"
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
    p->overlay = std::make_unique<X11OverlayShape>(conn);
    p->displays = std::move(displays);
    return p;
}

} // namespace tk::platform
