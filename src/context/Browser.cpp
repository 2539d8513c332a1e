#include "context/Browser.h"

#include "context/JsonRead.h"
#include "platform/Accessibility.h"

#include <QHash>

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

std::optional<QString> Browser::addressAttribute(const QString& appId) {
    // The Chromium family names it "URI", Firefox "DocURL".
    static const QHash<QString, QString> table{
        {QStringLiteral("chromium"), QStringLiteral("URI")},
        {QStringLiteral("google-chrome"), QStringLiteral("URI")},
        {QStringLiteral("brave-browser"), QStringLiteral("URI")},
        {QStringLiteral("firefox"), QStringLiteral("DocURL")},
        {QStringLiteral("firefox-esr"), QStringLiteral("DocURL")},
    };
    const auto it = table.find(appId);
    if (it == table.end())
        return std::nullopt;
    return *it;
}

std::optional<BrowserPage> Browser::active(const QString& frontBundleId, qint64 pid,
                                           platform::Accessibility& ax) {
    const auto attribute = addressAttribute(frontBundleId);
    if (!attribute || pid <= 0 || !ax.trusted())
        return std::nullopt;
    const auto doc = ax.shownDocument(pid, *attribute);
    if (!doc)
        return std::nullopt;
    BrowserPage page{doc->address.trimmed(), doc->name.trimmed()};
    if (!page.url.startsWith(QLatin1String("http")))
        return std::nullopt;
    return page;
}

} // namespace tk
