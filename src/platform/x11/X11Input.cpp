#include "platform/x11/X11Input.h"

#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#include <X11/extensions/XInput2.h>
#include <X11/keysym.h>

namespace tk::platform {

X11InputTap::~X11InputTap() {
    m_notifier.reset();
    if (m_dpy)
        XCloseDisplay(m_dpy);
}

void X11InputTap::refreshKeycodes() {
    m_spaceCode = XKeysymToKeycode(m_dpy, XK_space);
    m_altCodes.clear();
    for (KeySym sym : {XK_Alt_L, XK_Alt_R}) {
        if (int code = XKeysymToKeycode(m_dpy, sym))
            m_altCodes.insert(code);
    }
    // Seed from the keyboard as it is now, so an Alt held at install counts.
    char keys[32] = {};
    XQueryKeymap(m_dpy, keys);
    m_altDown.clear();
    for (int code : m_altCodes)
        if (keys[code / 8] & (1 << (code % 8)))
            m_altDown.insert(code);
}

bool X11InputTap::install(Handler handler) {
    if (m_notifier)
        return true;
    Display* dpy = XOpenDisplay(nullptr);
    if (!dpy)
        return false;
    int event = 0, error = 0, opcode = 0;
    int major = 2, minor = 0;
    if (!XQueryExtension(dpy, "XInputExtension", &opcode, &event, &error) ||
        XIQueryVersion(dpy, &major, &minor) != Success || major < 2) {
        XCloseDisplay(dpy);
        return false;
    }
    m_dpy = dpy;
    if (!select(false)) {
        m_dpy = nullptr;
        XCloseDisplay(dpy);
        return false;
    }
    XSync(dpy, False);
    m_xiOpcode = opcode;
    m_handler = std::move(handler);
    refreshKeycodes();
    m_notifier = std::make_unique<QSocketNotifier>(ConnectionNumber(dpy), QSocketNotifier::Read);
    QObject::connect(m_notifier.get(), &QSocketNotifier::activated, [this] { drain(); });
    drain();
    return true;
}

bool X11InputTap::select(bool motion) {
    unsigned char bits[XIMaskLen(XI_LASTEVENT)] = {};
    XIEventMask mask;
    mask.deviceid = XIAllMasterDevices;
    mask.mask_len = sizeof(bits);
    mask.mask = bits;
    XISetMask(bits, XI_RawKeyPress);
    XISetMask(bits, XI_RawKeyRelease);
    if (motion)
        XISetMask(bits, XI_RawMotion);
    return XISelectEvents(m_dpy, DefaultRootWindow(m_dpy), &mask, 1) == Success;
}

void X11InputTap::setPointerTracking(bool on) {
    if (!m_dpy || on == m_tracking)
        return;
    m_tracking = on;
    select(on);
    XFlush(m_dpy);
}

void X11InputTap::drain() {
    // Replies read by XQueryPointer can queue events behind the socket's back,
    // so keep going while Xlib holds any.
    while (XPending(m_dpy) > 0) {
        XEvent ev;
        XNextEvent(m_dpy, &ev);
        dispatch(&ev);
    }
}

void X11InputTap::dispatch(void* xevent) {
    XEvent& ev = *static_cast<XEvent*>(xevent);
    if (ev.type != GenericEvent || ev.xcookie.extension != m_xiOpcode)
        return;
    if (!XGetEventData(m_dpy, &ev.xcookie))
        return;
    const auto* raw = static_cast<const XIRawEvent*>(ev.xcookie.data);
    InputEvent out;
    bool deliver = false;
    switch (ev.xcookie.evtype) {
    case XI_RawKeyPress:
        if (m_altCodes.count(raw->detail))
            m_altDown.insert(raw->detail);
        out.type = InputEvent::Type::KeyDown;
        out.space = raw->detail == m_spaceCode;
        out.alt = !m_altDown.empty();
        out.autoRepeat = (raw->flags & XIKeyRepeat) != 0;
        deliver = true;
        break;
    case XI_RawKeyRelease:
        m_altDown.erase(raw->detail);
        out.type = InputEvent::Type::KeyUp;
        out.space = raw->detail == m_spaceCode;
        deliver = true;
        break;
    case XI_RawMotion: {
        if (!m_tracking)
            break;
        Window rootRet = 0, child = 0;
        int rx = 0, ry = 0, wx = 0, wy = 0;
        unsigned int state = 0;
        if (XQueryPointer(m_dpy, DefaultRootWindow(m_dpy), &rootRet, &child, &rx, &ry, &wx, &wy,
                          &state)) {
            out.type = InputEvent::Type::Moved;
            out.pos = m_displays->toPoints(QPoint(rx, ry));
            deliver = true;
        }
        break;
    }
    default:
        break;
    }
    XFreeEventData(m_dpy, &ev.xcookie);
    if (deliver && m_handler)
        m_handler(out);
}

} // namespace tk::platform
