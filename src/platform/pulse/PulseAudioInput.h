#pragma once

#include "platform/AudioInput.h"

namespace tk::platform {

// Nothing when built without PulseAudio.
std::unique_ptr<AudioInput> makePulseAudioInput();

} // namespace tk::platform
