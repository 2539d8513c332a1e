#include "platform/x11/X11Workspace.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>

namespace tk::platform {

QByteArray X11Workspace::property(XId w, XId prop, XId type) {
    Atom actualType = None;
    int format = 0;
    unsigned long count = 0, after = 0;
    unsigned char* data = nullptr;
    if (XGetWindowProperty(m_conn->display(), w, prop, 0, 1 << 16, False, type, &actualType,
                           &format, &count, &after, &data) != Success ||
        !data)
        return {};
    // Xlib hands 32-bit items back as longs.
    const int unit = format == 32 ? int(sizeof(long)) : format / 8;
    QByteArray out(reinterpret_cast<const char*>(data), int(count) * unit);
    XFree(data);
    return actualType == None ? QByteArray() : out;
}

const DesktopEntries& X11Workspace::entries() {
    std::call_once(m_scanOnce,
                   [this] { m_entries = DesktopEntries::scan(DesktopEntries::defaultDataDirs()); });
    return m_entries;
}

std::optional<FrontApp> X11Workspace::frontApp() {
    QString instance, cls;
    FrontApp app;
    {
        auto lock = m_conn->lock();
        Display* dpy = m_conn->display();
        const QByteArray active =
            property(m_conn->root(), m_conn->atom("_NET_ACTIVE_WINDOW"), XA_WINDOW);
        if (active.size() < int(sizeof(long)))
            return std::nullopt;
        const Window w = Window(*reinterpret_cast<const long*>(active.constData()));
        if (w == None)
            return std::nullopt;
        XClassHint hint{};
        if (XGetClassHint(dpy, w, &hint)) {
            instance = QString::fromLocal8Bit(hint.res_name ? hint.res_name : "");
            cls = QString::fromLocal8Bit(hint.res_class ? hint.res_class : "");
            if (hint.res_name)
                XFree(hint.res_name);
            if (hint.res_class)
                XFree(hint.res_class);
        }
        const QByteArray netName =
            property(w, m_conn->atom("_NET_WM_NAME"), m_conn->atom("UTF8_STRING"));
        if (!netName.isEmpty()) {
            app.title = QString::fromUtf8(netName);
        } else {
            const QByteArray name = property(w, XA_WM_NAME, AnyPropertyType);
            app.title = QString::fromLatin1(name);
        }
        const QByteArray pid = property(w, m_conn->atom("_NET_WM_PID"), XA_CARDINAL);
        if (pid.size() >= int(sizeof(long)))
            app.pid = *reinterpret_cast<const long*>(pid.constData());
    }
    if (auto e = entries().match(instance, cls)) {
        app.id = e->id;
        app.name = e->name.isEmpty() ? (cls.isEmpty() ? QStringLiteral("?") : cls) : e->name;
    } else {
        app.id = cls.isEmpty() ? QStringLiteral("?") : cls;
        app.name = app.id;
    }
    return app;
}

std::vector<qint64> X11Workspace::pidsAt(QPoint px) {
    auto lock = m_conn->lock();
    Display* dpy = m_conn->display();
    const Atom pidAtom = m_conn->atom("_NET_WM_PID");
    auto pidOf = [&](Window w) -> qint64 {
        const QByteArray pid = property(w, pidAtom, XA_CARDINAL);
        return pid.size() >= int(sizeof(long)) ? *reinterpret_cast<const long*>(pid.constData())
                                               : 0;
    };
    auto contains = [&](Window w) {
        XWindowAttributes a;
        if (!XGetWindowAttributes(dpy, w, &a) || a.map_state != IsViewable)
            return false;
        int rx = 0, ry = 0;
        Window child = 0;
        XTranslateCoordinates(dpy, w, m_conn->root(), 0, 0, &rx, &ry, &child);
        return QRect(rx, ry, a.width, a.height).contains(px);
    };
    std::vector<Window> bottomUp;
    const QByteArray stacking =
        property(m_conn->root(), m_conn->atom("_NET_CLIENT_LIST_STACKING"), XA_WINDOW);
    for (int i = 0; i + int(sizeof(long)) <= stacking.size(); i += int(sizeof(long)))
        bottomUp.push_back(Window(*reinterpret_cast<const long*>(stacking.constData() + i)));
    if (bottomUp.empty()) {
        // No window manager to ask: the root's own children, bottom to top.
        Window rootRet = 0, parent = 0, *children = nullptr;
        unsigned int n = 0;
        if (XQueryTree(dpy, m_conn->root(), &rootRet, &parent, &children, &n)) {
            bottomUp.assign(children, children + n);
            XFree(children);
        }
    }
    std::vector<qint64> out;
    for (auto it = bottomUp.rbegin(); it != bottomUp.rend(); ++it) {
        if (!contains(*it))
            continue;
        if (const qint64 pid = pidOf(*it); pid > 0)
            out.push_back(pid);
    }
    return out;
}

} // namespace tk::platform
