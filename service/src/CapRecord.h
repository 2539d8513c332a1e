#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <optional>
#include <vector>

namespace tk::service {

// One stored capture, as the list shows it. Empty strings are left out of the
// JSON form: the readers treat absent and empty alike except for the title.
struct StoredCap {
    QString id;
    QString ts;
    QString app;
    QString url;
    QString transcript;
    QString title;
    QString type;
    QString severity;
    QString elementPath;
    QString annotated;
    QString status = QStringLiteral("inbox");
    QString dir;
    std::optional<double> confidence;
    // Held inside "pipeline".
    QStringList candidates;
    std::vector<double> levels;
    int webhookConfigured = 0;
    QStringList webhookDelivered;
    // Service-side only.
    QString sessionId;
    bool confirmed = false;
    bool hasThumb = false;
};

// The "pipeline" text: a compact JSON object with candidates, levels and webhook.
QByteArray pipelineText(const StoredCap& c);
QJsonObject toJson(const StoredCap& c);

// The statuses a capture may be moved to.
bool isKnownStatus(const QString& s);

} // namespace tk::service
