#pragma once

#include "platform/Platform.h"
#include "platform/x11/X11Connection.h"
#include "platform/x11/X11Displays.h"

namespace tk::platform {

class X11Grabber final : public ScreenGrabber {
public:
    X11Grabber(std::shared_ptr<X11Connection> conn, const X11Displays* displays);
    bool available() const override { return true; }
    std::optional<Grab> grabUnderPointer(std::span<const unsigned long> exclude) override;

private:
    std::optional<QImage> grabRect(const QRect& r);
    std::shared_ptr<X11Connection> m_conn;
    const X11Displays* m_displays;
    bool m_shm = false;
};

} // namespace tk::platform
