#pragma once

#include "platform/Platform.h"

#include <QString>

#include <chrono>
#include <span>

namespace tk {

class Screenshot {
public:
    static constexpr std::chrono::milliseconds kNativeBound{4000};

    // Grabs the monitor under the pointer and writes it as PNG to `path`. Waits
    // at most `bound`; a grab that finishes later still writes its file.
    static bool nativeShot(std::shared_ptr<platform::ScreenGrabber> grabber, const QString& path,
                           std::vector<unsigned long> exclude,
                           std::chrono::milliseconds bound = kNativeBound);

    // The first screenshot tool found on PATH, waited for; its outcome is not checked.
    static void fallbackShot(const QString& path);
    static QStringList fallbackCommand(const QString& path); // empty when none is installed
};

} // namespace tk
