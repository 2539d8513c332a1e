#include "context/Browser.h"

#include "context/JsonRead.h"

namespace tk {

QJsonObject toJson(const BrowserPage& p) {
    return QJsonObject{{QStringLiteral("url"), p.url}, {QStringLiteral("title"), p.title}};
}

std::optional<BrowserPage> browserPageFromJson(const QJsonObject& o) {
    BrowserPage p;
    if (!json::readString(o, "url", p.url) || !json::readString(o, "title", p.title))
        return std::nullopt;
    return p;
}

std::optional<BrowserPage> Browser::active(const QString&) {
    return std::nullopt;
}

} // namespace tk
