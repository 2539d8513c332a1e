#include "platform/Platform.h"

namespace tk::platform {
namespace {

// Honest stand-ins: every query reports "unavailable" and yields the failure value.
class NullInputTap final : public InputTap {
public:
    bool permitted() const override { return false; }
    bool install(Handler) override { return false; }
    bool installed() const override { return false; }
    void setPointerTracking(bool) override {}
};

class NullDisplays final : public Displays {
public:
    std::vector<Monitor> monitors() const override { return {}; }
    std::optional<QPoint> pointerPixels() const override { return std::nullopt; }
    void setScales(std::vector<std::pair<QString, double>>) override {}
};

class NullGrabber final : public ScreenGrabber {
public:
    bool available() const override { return false; }
    std::optional<Grab> grabUnderPointer(std::span<const unsigned long>) override {
        return std::nullopt;
    }
};

class NullWorkspace final : public Workspace {
public:
    std::optional<FrontApp> frontApp() override { return std::nullopt; }
};

class NullAccessibility final : public Accessibility {
public:
    bool trusted() override { return false; }
    std::vector<AxElement> chain(QPointF, int) override { return {}; }
};

class NullAudioInput final : public AudioInput {
public:
    bool available() override { return false; }
    std::unique_ptr<AudioCapture> start(Sink) override { return nullptr; }
};

class NullInkSurface final : public InkSurface {
public:
    bool needed() const override { return false; }
    void begin(QRect, QRgb) override {}
    void unite(std::span<const QRect>) override {}
    void subtract(std::span<const QRect>) override {}
    void end() override {}
};

} // namespace

std::unique_ptr<Platform> makeNullPlatform() {
    auto p = std::make_unique<Platform>();
    p->name = QStringLiteral("null");
    p->input = std::make_unique<NullInputTap>();
    p->displays = std::make_unique<NullDisplays>();
    p->grabber = std::make_unique<NullGrabber>();
    p->workspace = std::make_unique<NullWorkspace>();
    p->accessibility = std::make_unique<NullAccessibility>();
    p->ink = std::make_unique<NullInkSurface>();
    p->audio = std::make_unique<NullAudioInput>();
    return p;
}

} // namespace tk::platform
