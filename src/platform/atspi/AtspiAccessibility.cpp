#include "platform/atspi/AtspiAccessibility.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>

namespace tk::platform {
namespace {

constexpr int kBusTimeoutMs = 1000;

class AtspiAccessibility final : public Accessibility {
public:
    bool trusted() override {
        // A private connection per call: the writer asks from its own thread.
        QDBusConnection bus = QDBusConnection::sessionBus();
        if (!bus.isConnected())
            return false;
        QDBusMessage msg = QDBusMessage::createMethodCall(
            QStringLiteral("org.a11y.Bus"), QStringLiteral("/org/a11y/bus"),
            QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
        msg << QStringLiteral("org.a11y.Status") << QStringLiteral("IsEnabled");
        const QDBusMessage reply = bus.call(msg, QDBus::Block, kBusTimeoutMs);
        if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
            return false;
        const QVariant v = reply.arguments().first().value<QDBusVariant>().variant();
        return v.typeId() == QMetaType::Bool && v.toBool();
    }

    // Element resolution over the AT-SPI tree is not built yet: it yields what a
    // failing lookup yields.
    std::vector<AxElement> chain(QPointF, int) override { return {}; }
};

} // namespace

std::unique_ptr<Accessibility> makeAtspiAccessibility() {
    return std::make_unique<AtspiAccessibility>();
}

} // namespace tk::platform
