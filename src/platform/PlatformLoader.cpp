#include "platform/Platform.h"

#include <QLoggingCategory>
#include <QtGlobal>

#ifdef TK_HAVE_X11
#include <X11/Xlib.h>

#include "platform/atspi/AtspiAccessibility.h"
#include "platform/x11/X11Platform.h"
#endif
#ifdef TK_HAVE_PULSE
#include "platform/pulse/PulseAudioInput.h"
#endif

Q_LOGGING_CATEGORY(lcPlatform, "tolmesk.platform", QtWarningMsg)

namespace tk::platform {

void prepareProcess() {
#ifdef TK_HAVE_X11
    // The writer queries X from background threads.
    XInitThreads();
#endif
}

std::unique_ptr<Platform> loadPlatform() {
    const QByteArray wanted = qgetenv("TK_PLATFORM");
    if (wanted == "null")
        return makeNullPlatform();
#ifdef TK_HAVE_X11
    if (auto p = makeX11Platform()) {
        p->accessibility = makeAtspiAccessibility(x11WindowsAt(*p));
        p->audio = makeNullPlatform()->audio;
#ifdef TK_HAVE_PULSE
        p->audio = makePulseAudioInput();
#endif
        return p;
    }
    if (wanted == "x11")
        qCWarning(lcPlatform) << "TK_PLATFORM=x11 but no X display answers; using null";
#else
    if (wanted == "x11")
        qCWarning(lcPlatform) << "built without X11; using null";
#endif
    return makeNullPlatform();
}

} // namespace tk::platform
