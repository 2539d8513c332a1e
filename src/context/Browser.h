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

class Browser {
public:
    // The page shown by the front application when it is a known browser.
    // Reading pages is not built yet: it yields what a failed lookup yields.
    static std::optional<BrowserPage> active(const QString& frontBundleId);
};

} // namespace tk
