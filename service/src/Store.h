#pragma once

#include "CapRecord.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QSqlDatabase>
#include <QString>

#include <optional>

namespace tk::service {

// SQLite storage of captures, sessions and crash reports. One connection,
// used from the thread that opened it.
class Store {
public:
    enum class Result { Ok, NotFound, Transient };

    Store() = default;
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    // busyMs: how long a write waits for another process's lock before giving up.
    bool open(const QString& file, int busyMs);
    QString lastError() const { return m_lastError; }

    // Insert or refresh one capture. New ones join the open session and take
    // `webhookConfigured`; refreshes keep status, session, webhook state and a
    // confirmed element. `created` says which happened.
    Result upsert(const StoredCap& incoming, int webhookConfigured, bool& created);
    std::optional<StoredCap> capture(const QString& id);
    // Every capture, newest first, as the list's JSON text; cached until a write.
    QByteArray listJson();
    QJsonArray list(int limit, const QString& sessionId = {});
    Result setStatus(const QString& id, const QString& status);
    Result confirmElement(const QString& id, const QString& path, double confidence);
    Result addDelivered(const QString& id, const QString& name);

    QJsonArray sessions();
    std::optional<QJsonObject> session(const QString& id);
    // Ends any open session, then opens a new one.
    std::optional<QJsonObject> startSession(const QString& name);
    // The ended session's id, or an empty text when none was open.
    std::optional<QString> endSession();

    Result addCrash(const QString& name, const QString& text, qint64 size);
    QJsonArray crashes(int limit);

private:
    bool exec(const QString& sql);
    bool fail(const class QSqlQuery& q);
    QString m_connection;
    QString m_lastError;
    bool m_transient = false;
    quint64 m_generation = 1;
    quint64 m_cachedGeneration = 0;
    QByteArray m_cachedList;
};

} // namespace tk::service
