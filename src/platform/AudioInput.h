#pragma once

#include <QString>

#include <memory>
#include <optional>

namespace tk::platform {

// The default microphone. Capture is not built yet; every backend reports it
// unavailable, which is the no-microphone path of a gesture.
class AudioInput {
public:
    virtual ~AudioInput() = default;
    virtual bool available() = 0;
};

} // namespace tk::platform
