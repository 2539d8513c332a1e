#pragma once

#include "platform/Platform.h"

namespace tk::platform {

// Nothing when no X display answers or XInput 2 is missing.
std::unique_ptr<Platform> makeX11Platform();

} // namespace tk::platform
