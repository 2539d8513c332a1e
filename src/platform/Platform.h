#pragma once

// The seam to the desktop. Everything that talks to X11, AT-SPI, PulseAudio,
// D-Bus or a desktop tool sits behind one of these interfaces.

#include <QImage>
#include <QPoint>
#include <QPointF>
#include <QRect>
#include <QString>

#include "platform/Accessibility.h"
#include "platform/AudioInput.h"

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace tk::platform {

struct InputEvent {
    enum class Type { Moved, KeyDown, KeyUp };
    Type type = Type::Moved;
    bool space = false;      // the key is Space on the running keymap
    bool alt = false;        // Alt was held when the key went down
    bool autoRepeat = false; // the server marked the press as a repeat
    QPointF pos;             // pointer, global top-left points (Moved only)
};

// Listen-only global input: nothing is grabbed, every key still reaches the
// focused application.
class InputTap {
public:
    using Handler = std::function<void(const InputEvent&)>;
    virtual ~InputTap() = default;
    // Whether installing can succeed at all on this backend (the tap's precondition).
    virtual bool permitted() const = 0;
    virtual bool install(Handler handler) = 0;
    virtual bool installed() const = 0;
    // Pointer motion is only wanted while a gesture is held; off, the idle
    // process is not woken by every mouse move.
    virtual void setPointerTracking(bool on) = 0;
};

struct Monitor {
    QString name;
    QRect pixels; // root-window pixels
    double scale = 1.0;
    bool primary = false;
};

// Thread-safe: the writer asks from its background thread.
class Displays {
public:
    virtual ~Displays() = default;
    virtual std::vector<Monitor> monitors() const = 0;
    virtual std::optional<QPoint> pointerPixels() const = 0;
    // Record the toolkit's scale per monitor name (taken on the main thread).
    virtual void setScales(std::vector<std::pair<QString, double>> scales) = 0;
};

struct Grab {
    QImage image; // physical pixels of one monitor, no cursor
    double scale = 1.0;
};

class ScreenGrabber {
public:
    virtual ~ScreenGrabber() = default;
    virtual bool available() const = 0;
    // The monitor under the pointer (else the primary). Windows in `exclude`
    // are kept out of the picture.
    virtual std::optional<Grab> grabUnderPointer(std::span<const unsigned long> exclude) = 0;
};

struct FrontApp {
    QString id;   // desktop entry id or WM_CLASS class; "?" unknown
    QString name; // desktop entry Name or WM_CLASS class; "?" unknown
    QString title;
    qint64 pid = 0;
};

class Workspace {
public:
    virtual ~Workspace() = default;
    // The active window's application; nothing when no window is active.
    virtual std::optional<FrontApp> frontApp() = 0;
};

// Ink on servers without a compositor, where a translucent window shows black:
// the server itself paints the ink as small click-through windows cut to the
// drawn pixels, so that each edit stays small however large the drawing grows.
class InkSurface {
public:
    virtual ~InkSurface() = default;
    virtual bool needed() const = 0; // no compositor on this screen
    virtual void begin(QRect screen, QRgb ink) = 0;
    virtual void unite(std::span<const QRect> rects) = 0; // global pixels
    virtual void subtract(std::span<const QRect> rects) = 0;
    virtual void end() = 0; // gone from the screen when this returns
};

struct Platform {
    QString name;
    std::shared_ptr<InputTap> input;
    std::shared_ptr<Displays> displays;
    std::shared_ptr<ScreenGrabber> grabber;
    std::shared_ptr<Workspace> workspace;
    std::shared_ptr<Accessibility> accessibility;
    std::shared_ptr<AudioInput> audio;
    std::shared_ptr<InkSurface> ink;
};

// Process-wide set-up that must come before the toolkit connects to a display.
void prepareProcess();

// Picks a backend: TK_PLATFORM=null|x11 wins, else x11 when a display answers.
std::unique_ptr<Platform> loadPlatform();
std::unique_ptr<Platform> makeNullPlatform();

} // namespace tk::platform
