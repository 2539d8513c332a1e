#pragma once

#include "platform/Platform.h"

namespace tk::platform {

std::unique_ptr<Accessibility> makeAtspiAccessibility();

} // namespace tk::platform
