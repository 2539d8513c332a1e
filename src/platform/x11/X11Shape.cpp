#include "platform/x11/X11Shape.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/shape.h>

#include <string>
#include <vector>

namespace tk::platform {

bool X11OverlayShape::compositing() const {
    auto lock = m_conn->lock();
    Display* dpy = m_conn->display();
    const std::string sel = "_NET_WM_CM_S" + std::to_string(DefaultScreen(dpy));
    return XGetSelectionOwner(dpy, XInternAtom(dpy, sel.c_str(), False)) != None;
}

void X11OverlayShape::combine(unsigned long window, std::span<const QRect> rects, int op) {
    std::vector<XRectangle> xr;
    xr.reserve(rects.size());
    for (const QRect& r : rects)
        xr.push_back(
            {short(r.x()), short(r.y()), (unsigned short)r.width(), (unsigned short)r.height()});
    auto lock = m_conn->lock();
    // Not waited for: the request is queued and the next flush sends it.
    XShapeCombineRectangles(m_conn->display(), window, ShapeBounding, 0, 0, xr.data(),
                            int(xr.size()), op, Unsorted);
    XFlush(m_conn->display());
}

void X11OverlayShape::clear(unsigned long window) {
    combine(window, {}, ShapeSet);
    auto lock = m_conn->lock();
    XSync(m_conn->display(), False);
}

void X11OverlayShape::unite(unsigned long window, std::span<const QRect> rects) {
    if (!rects.empty())
        combine(window, rects, ShapeUnion);
}

void X11OverlayShape::subtract(unsigned long window, std::span<const QRect> rects) {
    if (!rects.empty())
        combine(window, rects, ShapeSubtract);
}

} // namespace tk::platform
