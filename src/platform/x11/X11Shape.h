#pragma once

#include "platform/Platform.h"
#include "platform/x11/X11Connection.h"

namespace tk::platform {

class X11OverlayShape final : public OverlayShape {
public:
    explicit X11OverlayShape(std::shared_ptr<X11Connection> conn) : m_conn(std::move(conn)) {}
    bool compositing() const override;
    void clear(unsigned long window) override;
    void unite(unsigned long window, std::span<const QRect> rects) override;
    void subtract(unsigned long window, std::span<const QRect> rects) override;

private:
    void combine(unsigned long window, std::span<const QRect> rects, int op);
    std::shared_ptr<X11Connection> m_conn;
};

} // namespace tk::platform
