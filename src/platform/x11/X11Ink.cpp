#include "platform/x11/X11Ink.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/shape.h>

#include <string>
#include <vector>

namespace tk::platform {

namespace {

quint64 key(int tx, int ty) {
    return (quint64(quint32(tx)) << 32) | quint32(ty);
}

unsigned long pixelFor(Display* dpy, QRgb c) {
    XColor xc{};
    xc.red = ushort(qRed(c) * 257);
    xc.green = ushort(qGreen(c) * 257);
    xc.blue = ushort(qBlue(c) * 257);
    xc.flags = DoRed | DoGreen | DoBlue;
    if (XAllocColor(dpy, DefaultColormap(dpy, DefaultScreen(dpy)), &xc))
        return xc.pixel;
    return WhitePixel(dpy, DefaultScreen(dpy));
}

} // namespace

bool X11InkSurface::needed() const {
    auto lock = m_conn->lock();
    Display* dpy = m_conn->display();
    const std::string sel = "_NET_WM_CM_S" + std::to_string(DefaultScreen(dpy));
    return XGetSelectionOwner(dpy, XInternAtom(dpy, sel.c_str(), False)) == None;
}

void X11InkSurface::begin(QRect screen, QRgb ink) {
    end();
    m_screen = screen;
    auto lock = m_conn->lock();
    m_pixel = pixelFor(m_conn->display(), ink);
}

XId X11InkSurface::tileWindow(int tx, int ty, bool create) {
    const auto it = m_tiles.find(key(tx, ty));
    if (it != m_tiles.end())
        return it->second;
    if (!create)
        return 0;
    Display* dpy = m_conn->display();
    XSetWindowAttributes a{};
    a.override_redirect = True; // no decoration, no focus, above the windows it covers
    a.background_pixel = m_pixel;
    a.save_under = True;
    const Window w =
        XCreateWindow(dpy, m_conn->root(), m_screen.x() + tx * kTile, m_screen.y() + ty * kTile,
                      kTile, kTile, 0, CopyFromParent, InputOutput, CopyFromParent,
                      CWOverrideRedirect | CWBackPixel | CWSaveUnder, &a);
    // Nothing visible and nothing clickable until ink lands on it.
    XShapeCombineRectangles(dpy, w, ShapeBounding, 0, 0, nullptr, 0, ShapeSet, Unsorted);
    XShapeCombineRectangles(dpy, w, ShapeInput, 0, 0, nullptr, 0, ShapeSet, Unsorted);
    XMapRaised(dpy, w);
    m_tiles.emplace(key(tx, ty), w);
    return w;
}

void X11InkSurface::combine(std::span<const QRect> rects, int op) {
    if (rects.empty() || m_screen.isEmpty())
        return;
    // Each tile gets its own share of the rectangles, in its own coordinates.
    std::unordered_map<quint64, std::vector<XRectangle>> perTile;
    for (QRect r : rects) {
        r.translate(-m_screen.topLeft());
        r &= QRect(QPoint(0, 0), m_screen.size());
        if (r.isEmpty())
            continue;
        for (int ty = r.top() / kTile; ty <= r.bottom() / kTile; ++ty)
            for (int tx = r.left() / kTile; tx <= r.right() / kTile; ++tx) {
                const QRect part = r & QRect(tx * kTile, ty * kTile, kTile, kTile);
                perTile[key(tx, ty)].push_back({short(part.x() - tx * kTile),
                                                short(part.y() - ty * kTile), ushort(part.width()),
                                                ushort(part.height())});
            }
    }
    auto lock = m_conn->lock();
    Display* dpy = m_conn->display();
    for (auto& [k, xr] : perTile) {
        const XId w = tileWindow(int(k >> 32), int(quint32(k)), op == ShapeUnion);
        if (w)
            XShapeCombineRectangles(dpy, w, ShapeBounding, 0, 0, xr.data(), int(xr.size()), op,
                                    Unsorted);
    }
    XFlush(dpy); // sent, not waited for: the pointer must not wait on the server
}

void X11InkSurface::unite(std::span<const QRect> rects) {
    combine(rects, ShapeUnion);
}

void X11InkSurface::subtract(std::span<const QRect> rects) {
    combine(rects, ShapeSubtract);
}

void X11InkSurface::end() {
    if (m_tiles.empty())
        return;
    auto lock = m_conn->lock();
    Display* dpy = m_conn->display();
    for (const auto& [k, w] : m_tiles)
        XDestroyWindow(dpy, w);
    m_tiles.clear();
    XSync(dpy, False); // gone before the screenshot is taken
}

} // namespace tk::platform
