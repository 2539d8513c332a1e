#pragma once

#include "platform/Platform.h"

#include <functional>

namespace tk::platform {

// Processes whose application windows lie under a point, topmost first.
using WindowsAt = std::function<std::vector<qint64>(QPoint)>;

std::unique_ptr<Accessibility> makeAtspiAccessibility(WindowsAt windowsAt = {});

} // namespace tk::platform
