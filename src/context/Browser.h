#pragma once

#include <QJsonObject>
#include <QString>

#include <optional>

namespace tk {

// The page a known browser shows.
struct BrowserPage {
    QString url;
    QString title;
    bool operator==(const BrowserPage&) const = default;
};

QJsonObject toJson(const BrowserPage& p);
std::optional<BrowserPage> browserPageFromJson(const QJsonObject& o);

namespace platform {
class Accessibility;
}

class Browser {
public:
    // Which document attribute holds the address, by application id; nothing
    // for an application that is not a known browser.
    static std::optional<QString> addressAttribute(const QString& appId);
    // The page shown by the front application when it is a known browser: an
    // address beginning with "http" and its title, both trimmed.
    static std::optional<BrowserPage> active(const QString& frontBundleId, qint64 pid,
                                             platform::Accessibility& ax);
};

} // namespace tk
