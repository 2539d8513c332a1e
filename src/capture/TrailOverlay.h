#pragma once

#include "platform/Platform.h"

#include <QPointF>

#include <memory>

namespace tk {

class TrailView;

// The click-through window that carries the trail while a gesture is held.
class TrailOverlay {
public:
    explicit TrailOverlay(std::shared_ptr<platform::InkSurface> ink);
    ~TrailOverlay();

    bool show(); // false when there is no screen to draw on
    void add(QPointF globalTopLeft);
    void finish();
    TrailView* view() const { return m_view.get(); }

private:
    std::shared_ptr<platform::InkSurface> m_ink;
    std::unique_ptr<TrailView> m_view;
};

} // namespace tk
