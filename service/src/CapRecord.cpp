#include "CapRecord.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace tk::service {

QByteArray pipelineText(const StoredCap& c) {
    QJsonArray levels;
    for (double v : c.levels)
        levels.append(v);
    const QJsonObject o{
        {QStringLiteral("candidates"), QJsonArray::fromStringList(c.candidates)},
        {QStringLiteral("levels"), QJsonObject{{QStringLiteral("v"), levels}}},
        {QStringLiteral("webhook"), QJsonObject{{QStringLiteral("configured"), c.webhookConfigured},
                                                {QStringLiteral("delivered"),
                                                 QJsonArray::fromStringList(c.webhookDelivered)}}},
    };
    return QJsonDocument(o).toJson(QJsonDocument::Compact);
}

QJsonObject toJson(const StoredCap& c) {
    QJsonObject o{{QStringLiteral("id"), c.id}, {QStringLiteral("status"), c.status}};
    const auto put = [&o](const char* key, const QString& v) {
        if (!v.isEmpty())
            o.insert(QLatin1String(key), v);
    };
    put("ts", c.ts);
    put("app", c.app);
    put("url", c.url);
    put("transcript", c.transcript);
    put("title", c.title);
    put("type", c.type);
    put("severity", c.severity);
    put("element_path", c.elementPath);
    put("annotated", c.annotated);
    put("dir", c.dir);
    if (c.confidence)
        o.insert(QStringLiteral("confidence"), *c.confidence);
    o.insert(QStringLiteral("pipeline"), QString::fromUtf8(pipelineText(c)));
    if (!c.sessionId.isEmpty())
        o.insert(QStringLiteral("session"), c.sessionId);
    return o;
}

bool isKnownStatus(const QString& s) {
    return s == QLatin1String("inbox") || s == QLatin1String("done") ||
           s == QLatin1String("discarded");
}

} // namespace tk::service
