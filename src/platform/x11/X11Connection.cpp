#include "platform/x11/X11Connection.h"

#include <X11/Xlib.h>

namespace tk::platform {

std::shared_ptr<X11Connection> X11Connection::open() {
    Display* dpy = XOpenDisplay(nullptr);
    if (!dpy)
        return nullptr;
    return std::shared_ptr<X11Connection>(new X11Connection(dpy));
}

XId X11Connection::root() const {
    return DefaultRootWindow(m_dpy);
}

X11Connection::~X11Connection() {
    XCloseDisplay(m_dpy);
}

XId X11Connection::atom(const char* name) {
    return XInternAtom(m_dpy, name, False);
}

} // namespace tk::platform
