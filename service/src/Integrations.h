#pragma once

#include <QDateTime>
#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QString>

class QNetworkAccessManager;

namespace tk::service {

// A webhook the service delivers new captures to.
struct Integration {
    QString id;
    QString name;
    QString url;
    bool enabled = false;
};
QJsonObject toJson(const Integration& i);
std::optional<Integration> integrationFromJson(const QJsonObject& o);

// The webhooks, kept in a JSON file the user edits; re-read when it changes.
class IntegrationConfig {
public:
    explicit IntegrationConfig(QString file) : m_file(std::move(file)) {}
    QList<Integration> all();
    QList<Integration> enabled();
    enum class Toggle { Ok, NotFound, WriteFailed };
    Toggle setEnabled(const QString& id, bool enabled);
    QString file() const { return m_file; }

private:
    void reload();
    QString m_file;
    QDateTime m_loadedMtime;
    qint64 m_loadedSize = -1;
    bool m_wrapped = false; // {"integrations": [...]} rather than a bare array
    QList<Integration> m_items;
};

// Posts each new capture to the enabled webhooks, retrying with backoff. Runs
// on the thread it lives on without blocking it.
class WebhookSender : public QObject {
    Q_OBJECT
public:
    explicit WebhookSender(int backoffMs, QObject* parent = nullptr);
    void send(const QString& captureId, const QJsonObject& body, const QList<Integration>& to);
    int inFlight() const { return m_inFlight; }

Q_SIGNALS:
    void delivered(const QString& captureId, const QString& integrationName);
    void gaveUp(const QString& captureId, const QString& integrationName);

private:
    void attempt(const QString& captureId, const QByteArray& body, const Integration& to,
                 int tryNo);
    QNetworkAccessManager* m_nam;
    int m_backoffMs;
    int m_inFlight = 0;
};

} // namespace tk::service
