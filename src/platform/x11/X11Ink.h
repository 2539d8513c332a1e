#pragma once

#include "platform/Platform.h"
#include "platform/x11/X11Connection.h"

#include <unordered_map>

namespace tk::platform {

class X11InkSurface final : public InkSurface {
public:
    explicit X11InkSurface(std::shared_ptr<X11Connection> conn) : m_conn(std::move(conn)) {}
    ~X11InkSurface() override { end(); }
    bool needed() const override;
    void begin(QRect screen, QRgb ink) override;
    void unite(std::span<const QRect> rects) override;
    void subtract(std::span<const QRect> rects) override;
    void end() override;

    static constexpr int kTile = 128;

private:
    void combine(std::span<const QRect> rects, int op);
    XId tileWindow(int tx, int ty, bool create);

    std::shared_ptr<X11Connection> m_conn;
    QRect m_screen;
    unsigned long m_pixel = 0;
    std::unordered_map<quint64, XId> m_tiles;
};

} // namespace tk::platform
