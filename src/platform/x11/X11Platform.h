#pragma once

#include "platform/Platform.h"

#include <functional>

namespace tk::platform {

// Nothing when no X display answers or XInput 2 is missing.
std::unique_ptr<Platform> makeX11Platform();
// The processes of the application windows under a point, for hit-testing.
std::function<std::vector<qint64>(QPoint)> x11WindowsAt(const Platform& p);

} // namespace tk::platform
