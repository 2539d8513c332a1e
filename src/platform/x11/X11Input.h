#pragma once

#include "platform/Platform.h"
#include "platform/x11/X11Displays.h"

#include <QSocketNotifier>

#include <set>

namespace tk::platform {

// XInput 2 raw events on the root window: seen whatever has focus, never grabbed.
class X11InputTap final : public InputTap {
public:
    explicit X11InputTap(const X11Displays* displays) : m_displays(displays) {}
    ~X11InputTap() override;
    bool permitted() const override { return true; }
    bool install(Handler handler) override;
    bool installed() const override { return m_notifier != nullptr; }
    void setPointerTracking(bool on) override;

private:
    void drain();
    void dispatch(void* xevent);
    void refreshKeycodes();
    bool select(bool motion);

    const X11Displays* m_displays;
    XDisplay* m_dpy = nullptr;
    int m_xiOpcode = 0;
    std::unique_ptr<QSocketNotifier> m_notifier;
    Handler m_handler;
    bool m_tracking = false;
    int m_spaceCode = 0;
    std::set<int> m_altCodes;
    std::set<int> m_altDown; // server may repeat releases: track state ourselves
};

} // namespace tk::platform
