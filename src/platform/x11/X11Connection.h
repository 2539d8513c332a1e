#pragma once

#include <memory>
#include <mutex>

struct _XDisplay;

namespace tk::platform {

// Xlib stays out of headers: its macros (Bool, None, Status) break Qt's.
using XDisplay = _XDisplay;
using XId = unsigned long;

// One Xlib connection shared by the query backends. Xlib is only safe across
// threads with XInitThreads, so every use also holds the lock.
class X11Connection {
public:
    static std::shared_ptr<X11Connection> open();
    ~X11Connection();
    X11Connection(const X11Connection&) = delete;
    X11Connection& operator=(const X11Connection&) = delete;

    XDisplay* display() const { return m_dpy; }
    XId root() const;
    std::unique_lock<std::mutex> lock() { return std::unique_lock(m_mutex); }
    XId atom(const char* name);

private:
    explicit X11Connection(XDisplay* dpy) : m_dpy(dpy) {}
    XDisplay* m_dpy;
    std::mutex m_mutex;
};

} // namespace tk::platform
