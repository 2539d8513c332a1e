#include "Store.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QLoggingCategory>
#include <QSqlError>
#include <QSqlQuery>
#include <QUuid>
#include <QVariant>

namespace tk::service {

Q_LOGGING_CATEGORY(lcStore, "tolmesk.service.store")

namespace {

const char* const kCapColumns =
    "id, ts, app, url, transcript, title, type, severity, element_path, annotated, status, dir, "
    "confidence, candidates, levels, webhook_configured, webhook_delivered, session_id, "
    "confirmed, has_thumb";

QString nowText() {
    return QDateTime::currentDateTimeUtc().toString(Qt::ISODate);
}

qint64 sortKey(const QString& ts) {
    const QDateTime t = QDateTime::fromString(ts, Qt::ISODate);
    return t.isValid() ? t.toMSecsSinceEpoch() : QDateTime::currentMSecsSinceEpoch();
}

QStringList stringList(const QVariant& v) {
    QStringList out;
    for (const QJsonValue& x : QJsonDocument::fromJson(v.toByteArray()).array())
        if (x.isString())
            out << x.toString();
    return out;
}

QByteArray listText(const QStringList& l) {
    return QJsonDocument(QJsonArray::fromStringList(l)).toJson(QJsonDocument::Compact);
}

QByteArray numbersText(const std::vector<double>& v) {
    QJsonArray a;
    for (double x : v)
        a.append(x);
    return QJsonDocument(a).toJson(QJsonDocument::Compact);
}

StoredCap readCap(const QSqlQuery& q) {
    StoredCap c;
    c.id = q.value(0).toString();
    c.ts = q.value(1).toString();
    c.app = q.value(2).toString();
    c.url = q.value(3).toString();
    c.transcript = q.value(4).toString();
    c.title = q.value(5).toString();
    c.type = q.value(6).toString();
    c.severity = q.value(7).toString();
    c.elementPath = q.value(8).toString();
    c.annotated = q.value(9).toString();
    c.status = q.value(10).toString();
    c.dir = q.value(11).toString();
    if (!q.value(12).isNull())
        c.confidence = q.value(12).toDouble();
    c.candidates = stringList(q.value(13));
    for (const QJsonValue& v : QJsonDocument::fromJson(q.value(14).toByteArray()).array())
        c.levels.push_back(v.toDouble());
    c.webhookConfigured = q.value(15).toInt();
    c.webhookDelivered = stringList(q.value(16));
    c.sessionId = q.value(17).toString();
    c.confirmed = q.value(18).toBool();
    c.hasThumb = q.value(19).toBool();
    return c;
}

QJsonObject sessionJson(const QSqlQuery& q) {
    QJsonObject o{{QStringLiteral("id"), q.value(0).toString()},
                  {QStringLiteral("name"), q.value(1).toString()},
                  {QStringLiteral("started_at"), q.value(2).toString()},
                  {QStringLiteral("count"), q.value(4).toInt()}};
    o.insert(QStringLiteral("ended_at"),
             q.value(3).isNull() ? QJsonValue(QJsonValue::Null) : q.value(3).toString());
    return o;
}

const char* const kSessionSelect =
    "SELECT s.id, s.name, s.started_at, s.ended_at, "
    "(SELECT COUNT(*) FROM captures c WHERE c.session_id = s.id) FROM sessions s ";

} // namespace

Store::~Store() {
    if (m_connection.isEmpty())
        return;
    QSqlDatabase::database(m_connection, false).close();
    QSqlDatabase::removeDatabase(m_connection);
}

bool Store::open(const QString& file, int busyMs) {
    m_connection = QStringLiteral("tk-service-") + QUuid::createUuid().toString(QUuid::Id128);
    QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), m_connection);
    db.setDatabaseName(file);
    db.setConnectOptions(QStringLiteral("QSQLITE_BUSY_TIMEOUT=%1").arg(busyMs));
    if (!db.open()) {
        m_lastError = db.lastError().text();
        return false;
    }
    const bool ok =
        exec(QStringLiteral("PRAGMA journal_mode=WAL")) &&
        exec(QStringLiteral("PRAGMA synchronous=NORMAL")) &&
        exec(QStringLiteral(
            "CREATE TABLE IF NOT EXISTS captures (seq INTEGER PRIMARY KEY AUTOINCREMENT, "
            "id TEXT NOT NULL UNIQUE, sort_ms INTEGER NOT NULL, "
            "ts TEXT, app TEXT, url TEXT, transcript TEXT, title TEXT, type TEXT, severity TEXT, "
            "element_path TEXT, annotated TEXT, status TEXT NOT NULL, dir TEXT, confidence REAL, "
            "candidates TEXT, levels TEXT, webhook_configured INTEGER NOT NULL DEFAULT 0, "
            "webhook_delivered TEXT, session_id TEXT, confirmed INTEGER NOT NULL DEFAULT 0, "
            "has_thumb INTEGER NOT NULL DEFAULT 0, created_at TEXT, updated_at TEXT)")) &&
        exec(QStringLiteral("CREATE INDEX IF NOT EXISTS captures_order ON captures "
                            "(sort_ms DESC, seq DESC)")) &&
        exec(QStringLiteral("CREATE INDEX IF NOT EXISTS captures_session ON captures "
                            "(session_id)")) &&
        exec(QStringLiteral("CREATE TABLE IF NOT EXISTS sessions (id TEXT PRIMARY KEY, "
                            "name TEXT NOT NULL, started_at TEXT NOT NULL, ended_at TEXT)")) &&
        exec(QStringLiteral("CREATE TABLE IF NOT EXISTS crashes (name TEXT PRIMARY KEY, "
                            "received_at TEXT NOT NULL, size INTEGER, text TEXT)"));
    return ok;
}

bool Store::exec(const QString& sql) {
    QSqlQuery q(QSqlDatabase::database(m_connection, false));
    if (!q.exec(sql))
        return fail(q);
    return true;
}

bool Store::fail(const QSqlQuery& q) {
    m_lastError = q.lastError().text();
    qCWarning(lcStore) << "database:" << m_lastError;
    return false;
}

Store::Result Store::upsert(const StoredCap& in, int webhookConfigured, bool& created) {
    created = false;
    QSqlDatabase db = QSqlDatabase::database(m_connection, false);
    if (!db.transaction()) {
        m_lastError = db.lastError().text();
        return Result::Transient;
    }
    const auto rollback = [&db] {
        db.rollback();
        return Result::Transient;
    };
    QSqlQuery q(db);
    q.prepare(QStringLiteral("SELECT confirmed, element_path, confidence, candidates FROM "
                             "captures WHERE id = ?"));
    q.addBindValue(in.id);
    if (!q.exec())
        return fail(q), rollback();
    const bool exists = q.next();
    const QString now = nowText();
    if (exists) {
        const bool confirmed = q.value(0).toBool();
        QSqlQuery u(db);
        u.prepare(QStringLiteral(
            "UPDATE captures SET ts=?, sort_ms=?, app=?, url=?, transcript=?, title=?, type=?, "
            "severity=?, annotated=?, dir=?, levels=?, has_thumb=?, updated_at=?, "
            "element_path=CASE WHEN confirmed THEN element_path ELSE ? END, "
            "confidence=CASE WHEN confirmed THEN confidence ELSE ? END, candidates=? "
            "WHERE id=?"));
        u.addBindValue(in.ts);
        u.addBindValue(sortKey(in.ts));
        u.addBindValue(in.app);
        u.addBindValue(in.url);
        u.addBindValue(in.transcript);
        u.addBindValue(in.title);
        u.addBindValue(in.type);
        u.addBindValue(in.severity);
        u.addBindValue(in.annotated);
        u.addBindValue(in.dir);
        u.addBindValue(numbersText(in.levels));
        u.addBindValue(in.hasThumb);
        u.addBindValue(now);
        u.addBindValue(in.elementPath);
        u.addBindValue(in.confidence ? QVariant(*in.confidence) : QVariant());
        u.addBindValue(confirmed ? q.value(3) : QVariant(listText(in.candidates)));
        u.addBindValue(in.id);
        if (!u.exec())
            return fail(u), rollback();
    } else {
        QString session;
        QSqlQuery s(db);
        if (!s.exec(QStringLiteral("SELECT id FROM sessions WHERE ended_at IS NULL "
                                   "ORDER BY rowid DESC LIMIT 1")))
            return fail(s), rollback();
        if (s.next())
            session = s.value(0).toString();
        QSqlQuery i(db);
        i.prepare(QStringLiteral(
            "INSERT INTO captures (id, sort_ms, ts, app, url, transcript, title, type, "
            "severity, element_path, annotated, status, dir, confidence, candidates, levels, "
            "webhook_configured, webhook_delivered, session_id, confirmed, has_thumb, "
            "created_at, updated_at) VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,0,?,?,?)"));
        for (const QVariant& v : {QVariant(in.id),
                                  QVariant(sortKey(in.ts)),
                                  QVariant(in.ts),
                                  QVariant(in.app),
                                  QVariant(in.url),
                                  QVariant(in.transcript),
                                  QVariant(in.title),
                                  QVariant(in.type),
                                  QVariant(in.severity),
                                  QVariant(in.elementPath),
                                  QVariant(in.annotated),
                                  QVariant(QStringLiteral("inbox")),
                                  QVariant(in.dir),
                                  in.confidence ? QVariant(*in.confidence) : QVariant(),
                                  QVariant(listText(in.candidates)),
                                  QVariant(numbersText(in.levels)),
                                  QVariant(webhookConfigured),
                                  QVariant(QByteArray("[]")),
                                  session.isEmpty() ? QVariant() : QVariant(session),
                                  QVariant(in.hasThumb),
                                  QVariant(now),
                                  QVariant(now)})
            i.addBindValue(v);
        if (!i.exec())
            return fail(i), rollback();
        created = true;
    }
    if (!db.commit()) {
        m_lastError = db.lastError().text();
        return rollback();
    }
    ++m_generation;
    return Result::Ok;
}

std::optional<StoredCap> Store::capture(const QString& id) {
    QSqlQuery q(QSqlDatabase::database(m_connection, false));
    q.prepare(
        QStringLiteral("SELECT %1 FROM captures WHERE id = ?").arg(QLatin1String(kCapColumns)));
    q.addBindValue(id);
    if (!q.exec() || !q.next())
        return std::nullopt;
    return readCap(q);
}

QJsonArray Store::list(int limit, const QString& sessionId) {
    QSqlQuery q(QSqlDatabase::database(m_connection, false));
    q.setForwardOnly(true);
    const QString where = sessionId.isEmpty() ? QString() : QStringLiteral("WHERE session_id = ? ");
    // A session reads like a story: oldest first.
    const QString order = sessionId.isEmpty() ? QStringLiteral("sort_ms DESC, seq DESC")
                                              : QStringLiteral("sort_ms ASC, seq ASC");
    q.prepare(QStringLiteral("SELECT %1 FROM captures %2ORDER BY %3 LIMIT ?")
                  .arg(QLatin1String(kCapColumns), where, order));
    if (!sessionId.isEmpty())
        q.addBindValue(sessionId);
    q.addBindValue(limit < 0 ? -1 : limit);
    QJsonArray out;
    if (!q.exec()) {
        fail(q);
        return out;
    }
    while (q.next())
        out.append(toJson(readCap(q)));
    return out;
}

QByteArray Store::listJson() {
    if (m_cachedGeneration != m_generation) {
        m_cachedList = QJsonDocument(list(-1)).toJson(QJsonDocument::Compact);
        m_cachedGeneration = m_generation;
    }
    return m_cachedList;
}

Store::Result Store::setStatus(const QString& id, const QString& status) {
    QSqlQuery q(QSqlDatabase::database(m_connection, false));
    q.prepare(QStringLiteral("UPDATE captures SET status = ?, updated_at = ? WHERE id = ?"));
    q.addBindValue(status);
    q.addBindValue(nowText());
    q.addBindValue(id);
    if (!q.exec())
        return fail(q), Result::Transient;
    if (q.numRowsAffected() < 1)
        return Result::NotFound;
    ++m_generation;
    return Result::Ok;
}

Store::Result Store::confirmElement(const QString& id, const QString& path, double confidence) {
    QSqlQuery q(QSqlDatabase::database(m_connection, false));
    q.prepare(QStringLiteral("UPDATE captures SET element_path = ?, confidence = ?, "
                             "confirmed = 1, updated_at = ? WHERE id = ?"));
    q.addBindValue(path);
    q.addBindValue(confidence);
    q.addBindValue(nowText());
    q.addBindValue(id);
    if (!q.exec())
        return fail(q), Result::Transient;
    if (q.numRowsAffected() < 1)
        return Result::NotFound;
    ++m_generation;
    return Result::Ok;
}

Store::Result Store::addDelivered(const QString& id, const QString& name) {
    auto c = capture(id);
    if (!c)
        return Result::NotFound;
    if (c->webhookDelivered.contains(name))
        return Result::Ok;
    c->webhookDelivered << name;
    QSqlQuery q(QSqlDatabase::database(m_connection, false));
    q.prepare(QStringLiteral("UPDATE captures SET webhook_delivered = ? WHERE id = ?"));
    q.addBindValue(listText(c->webhookDelivered));
    q.addBindValue(id);
    if (!q.exec())
        return fail(q), Result::Transient;
    ++m_generation;
    return Result::Ok;
}

QJsonArray Store::sessions() {
    QSqlQuery q(QSqlDatabase::database(m_connection, false));
    QJsonArray out;
    // Newest first: the first element is the one a document export opens.
    if (!q.exec(QLatin1String(kSessionSelect) + QStringLiteral("ORDER BY s.rowid DESC"))) {
        fail(q);
        return out;
    }
    while (q.next())
        out.append(sessionJson(q));
    return out;
}

std::optional<QJsonObject> Store::session(const QString& id) {
    QSqlQuery q(QSqlDatabase::database(m_connection, false));
    q.prepare(QLatin1String(kSessionSelect) + QStringLiteral("WHERE s.id = ?"));
    q.addBindValue(id);
    if (!q.exec() || !q.next())
        return std::nullopt;
    return sessionJson(q);
}

std::optional<QJsonObject> Store::startSession(const QString& name) {
    QSqlDatabase db = QSqlDatabase::database(m_connection, false);
    if (!db.transaction())
        return std::nullopt;
    const QString now = nowText();
    const QString id = QUuid::createUuid().toString(QUuid::WithoutBraces);
    QSqlQuery q(db);
    q.prepare(QStringLiteral("UPDATE sessions SET ended_at = ? WHERE ended_at IS NULL"));
    q.addBindValue(now);
    QSqlQuery i(db);
    i.prepare(QStringLiteral("INSERT INTO sessions (id, name, started_at) VALUES (?,?,?)"));
    i.addBindValue(id);
    i.addBindValue(name);
    i.addBindValue(now);
    if (!q.exec() || !i.exec() || !db.commit()) {
        fail(q.lastError().isValid() ? q : i);
        db.rollback();
        return std::nullopt;
    }
    return session(id);
}

std::optional<QString> Store::endSession() {
    QSqlDatabase db = QSqlDatabase::database(m_connection, false);
    QSqlQuery q(db);
    if (!q.exec(QStringLiteral("SELECT id FROM sessions WHERE ended_at IS NULL")))
        return fail(q), std::nullopt;
    QString id;
    if (q.next())
        id = q.value(0).toString();
    QSqlQuery u(db);
    u.prepare(QStringLiteral("UPDATE sessions SET ended_at = ? WHERE ended_at IS NULL"));
    u.addBindValue(nowText());
    if (!u.exec())
        return fail(u), std::nullopt;
    return id;
}

Store::Result Store::addCrash(const QString& name, const QString& text, qint64 size) {
    QSqlQuery q(QSqlDatabase::database(m_connection, false));
    q.prepare(QStringLiteral("INSERT OR REPLACE INTO crashes (name, received_at, size, text) "
                             "VALUES (?,?,?,?)"));
    q.addBindValue(name);
    q.addBindValue(nowText());
    q.addBindValue(size);
    q.addBindValue(text);
    if (!q.exec())
        return fail(q), Result::Transient;
    return Result::Ok;
}

QJsonArray Store::crashes(int limit) {
    QSqlQuery q(QSqlDatabase::database(m_connection, false));
    q.prepare(QStringLiteral("SELECT name, received_at, size, text FROM crashes "
                             "ORDER BY received_at DESC, rowid DESC LIMIT ?"));
    q.addBindValue(limit);
    QJsonArray out;
    if (!q.exec())
        return fail(q), out;
    while (q.next())
        out.append(QJsonObject{{QStringLiteral("name"), q.value(0).toString()},
                               {QStringLiteral("received_at"), q.value(1).toString()},
                               {QStringLiteral("size"), q.value(2).toLongLong()},
                               {QStringLiteral("text"), q.value(3).toString()}});
    return out;
}

} // namespace tk::service
