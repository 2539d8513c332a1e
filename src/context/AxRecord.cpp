#include "context/AxRecord.h"

#include "context/JsonRead.h"

namespace tk {

QJsonObject toJson(const AxElement& e) {
    return QJsonObject{{QStringLiteral("role"), e.role},   {QStringLiteral("title"), e.title},
                       {QStringLiteral("value"), e.value}, {QStringLiteral("x"), e.x},
                       {QStringLiteral("y"), e.y},         {QStringLiteral("w"), e.w},
                       {QStringLiteral("h"), e.h}};
}

std::optional<AxElement> axElementFromJson(const QJsonObject& o) {
    AxElement e;
    if (!json::readString(o, "role", e.role) || !json::readString(o, "title", e.title) ||
        !json::readString(o, "value", e.value) || !json::readNumber(o, "x", e.x) ||
        !json::readNumber(o, "y", e.y) || !json::readNumber(o, "w", e.w) ||
        !json::readNumber(o, "h", e.h))
        return std::nullopt;
    return e;
}

} // namespace tk
