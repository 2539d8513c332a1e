#include "Service.h"

#include "Analysis.h"
#include "CaptureImages.h"
#include "Pages.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QFutureWatcher>
#include <QHttpServerRequest>
#include <QHttpServerResponder>
#include <QJsonDocument>
#include <QLoggingCategory>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTcpSocket>
#include <QTimer>
#include <QUrlQuery>
#include <QtConcurrent/QtConcurrentRun>

#include <cmath>
#include <sys/socket.h>

namespace tk::service {

Q_LOGGING_CATEGORY(lcService, "tolmesk.service")

namespace {

using Status = QHttpServerResponder::StatusCode;

constexpr qint64 kBodyLimit = 1 << 20;
constexpr qint64 kContextLimit = 16 << 20;
constexpr qint64 kTranscriptLimit = 1 << 20;
constexpr qint64 kCrashReadLimit = 256 << 10;
constexpr int kNameLimit = 200;

const QByteArray kJson = QByteArrayLiteral("application/json");

bool validId(const QString& id) {
    static const QRegularExpression re(QStringLiteral("^[A-Za-z0-9][A-Za-z0-9_.-]{0,63}$"));
    return re.match(id).hasMatch();
}

QByteArray header(const QHttpServerRequest& r, const char* name) {
    for (const auto& h : r.headers())
        if (h.first.compare(name, Qt::CaseInsensitive) == 0)
            return h.second.trimmed();
    return {};
}

void send(QHttpServerResponder& out, Status status, const QByteArray& type, const QByteArray& body,
          const QByteArray& cache = QByteArrayLiteral("no-store")) {
    out.writeStatusLine(status);
    out.writeHeader(QByteArrayLiteral("Content-Type"), type);
    out.writeHeader(QByteArrayLiteral("Content-Length"), QByteArray::number(body.size()));
    out.writeHeader(QByteArrayLiteral("Cache-Control"), cache);
    out.writeHeader(QByteArrayLiteral("X-Content-Type-Options"), QByteArrayLiteral("nosniff"));
    if (type.startsWith("text/html"))
        out.writeHeader(QByteArrayLiteral("Content-Security-Policy"),
                        QByteArrayLiteral("default-src 'self'; img-src 'self' data:; "
                                          "object-src 'none'; frame-ancestors 'none'; "
                                          "base-uri 'none'; form-action 'self'"));
    out.writeBody(body);
}

void sendJson(QHttpServerResponder& out, Status status, const QJsonDocument& doc) {
    send(out, status, kJson, doc.toJson(QJsonDocument::Compact));
}

void sendJson(QHttpServerResponder& out, Status status, const QJsonObject& o) {
    sendJson(out, status, QJsonDocument(o));
}

void sendError(QHttpServerResponder& out, Status status, const QString& message) {
    sendJson(out, status, QJsonObject{{QStringLiteral("error"), message}});
}

// The body as a JSON object whatever Content-Type says: the menu sends none.
std::optional<QJsonObject> jsonBody(const QHttpServerRequest& r) {
    QJsonParseError err{};
    const QJsonDocument doc = QJsonDocument::fromJson(r.body(), &err);
    if (err.error != QJsonParseError::NoError || !doc.isObject())
        return std::nullopt;
    return doc.object();
}

// A regular file (no link out of the folder) read whole, up to `limit` bytes.
std::optional<QByteArray> readSmallFile(const QString& path, qint64 limit) {
    const QFileInfo fi(path);
    if (fi.isSymLink() || !fi.isFile() || fi.size() > limit)
        return std::nullopt;
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return std::nullopt;
    return f.read(limit);
}

struct Folder {
    QString id;
    QString path;
    QString notCapture; // why this is permanently not a capture
};

Folder checkFolder(const QString& dir, const QString& root) {
    Folder f;
    const QString outside = QStringLiteral("outside the captures root");
    if (!QDir::isAbsolutePath(dir)) {
        f.notCapture = outside;
        return f;
    }
    const QString clean = QDir::cleanPath(dir);
    const QFileInfo fi(clean);
    if (fi.path() != QDir::cleanPath(root) || !validId(fi.fileName())) {
        f.notCapture = outside;
        return f;
    }
    if (!fi.exists() && !fi.isSymLink()) {
        f.notCapture = QStringLiteral("missing folder");
        return f;
    }
    // Links may not lead out of the root.
    const QString canonical = fi.canonicalFilePath();
    if (!fi.isDir() || canonical.isEmpty() ||
        QFileInfo(canonical).path() != QFileInfo(root).canonicalFilePath()) {
        f.notCapture = fi.isDir() ? outside : QStringLiteral("missing folder");
        return f;
    }
    f.id = fi.fileName();
    f.path = clean;
    return f;
}

QString defaultDataDir() {
    QString base = qEnvironmentVariable("XDG_DATA_HOME");
    if (base.isEmpty() || !QDir::isAbsolutePath(base))
        base = QDir::homePath() + QStringLiteral("/.local/share");
    return base + QStringLiteral("/tolmesk-service");
}

QString defaultCrashDir() {
    QString base = qEnvironmentVariable("XDG_STATE_HOME");
    if (base.isEmpty() || !QDir::isAbsolutePath(base))
        base = QDir::homePath() + QStringLiteral("/.local/state");
    return base + QStringLiteral("/Tolmesk/DiagnosticReports");
}

} // namespace

std::optional<ServiceOptions> parseOptions(const QStringList& args, QString* error) {
    ServiceOptions o;
    o.dataDir = defaultDataDir();
    o.capturesRoot = QDir::homePath() + QStringLiteral("/TolmeskCaptures");
    o.crashDir = defaultCrashDir();
    const auto fail = [error](const QString& why) {
        if (error)
            *error = why;
        return std::nullopt;
    };
    for (int i = 1; i < args.size(); ++i) {
        const QString& a = args.at(i);
        if (i + 1 >= args.size())
            return fail(QStringLiteral("unknown or incomplete option: %1").arg(a));
        const QString v = args.at(++i);
        bool ok = true;
        if (a == QLatin1String("--port")) {
            const uint p = v.toUInt(&ok);
            ok = ok && p <= 65535;
            o.port = quint16(p);
        } else if (a == QLatin1String("--data-dir"))
            o.dataDir = v;
        else if (a == QLatin1String("--captures-root"))
            o.capturesRoot = v;
        else if (a == QLatin1String("--crash-dir"))
            o.crashDir = v;
        else if (a == QLatin1String("--integrations"))
            o.integrationsFile = v;
        else if (a == QLatin1String("--busy-timeout-ms"))
            o.busyMs = v.toInt(&ok);
        else if (a == QLatin1String("--webhook-backoff-ms"))
            o.webhookBackoffMs = v.toInt(&ok);
        else
            return fail(QStringLiteral("unknown option: %1").arg(a));
        if (!ok || v.isEmpty())
            return fail(QStringLiteral("bad value for %1: %2").arg(a, v));
    }
    for (QString* p : {&o.dataDir, &o.capturesRoot, &o.crashDir})
        *p = QDir::cleanPath(QDir(*p).absolutePath());
    if (o.integrationsFile.isEmpty())
        o.integrationsFile = o.dataDir + QStringLiteral("/integrations.json");
    return o;
}

void GuardedListener::incomingConnection(qintptr fd) {
    auto* s = new QTcpSocket(this);
    if (!s->setSocketDescriptor(fd)) {
        delete s;
        return;
    }
    m_received.insert(s, 0);
    // Connected before the HTTP server's own reader, so this sees the bytes first.
    connect(s, &QTcpSocket::readyRead, this, [this, s] {
        auto it = m_received.find(s);
        if (it == m_received.end())
            return;
        if (it.value() < 0) { // already refused: drop whatever still arrives
            s->readAll();
            return;
        }
        it.value() += s->bytesAvailable();
        if (it.value() <= m_limit + 64 * 1024)
            return;
        it.value() = -1;
        s->readAll();
        const QByteArray body = QByteArrayLiteral("{\"error\":\"body larger than 1 MiB\"}");
        s->write("HTTP/1.1 413 Payload Too Large\r\nContent-Type: application/json\r\n"
                 "Connection: close\r\nContent-Length: " +
                 QByteArray::number(body.size()) + "\r\n\r\n" + body);
        s->flush();
        // Closing now would reset the connection and lose the answer while the
        // client is still sending: end our side, drain theirs, close later.
        ::shutdown(int(s->socketDescriptor()), SHUT_WR);
        QTimer::singleShot(3000, s, [s] { s->abort(); });
    });
    connect(s, &QObject::destroyed, this, [this, s] { m_received.remove(s); });
    addPendingConnection(s);
}

Service::Service(ServiceOptions o, QObject* parent)
    : QAbstractHttpServer(parent), m_opt(std::move(o)), m_integrations(m_opt.integrationsFile),
      m_webhooks(m_opt.webhookBackoffMs) {
    m_pool.setMaxThreadCount(std::max(2, QThread::idealThreadCount()));
    connect(&m_webhooks, &WebhookSender::delivered, this,
            [this](const QString& id, const QString& name) {
                if (m_store.addDelivered(id, name) == Store::Result::Transient)
                    qCWarning(lcService) << "could not record delivery of" << id << "to" << name;
            });
}

Service::~Service() {
    m_pool.waitForDone();
}

bool Service::start() {
    if (!QDir().mkpath(m_opt.dataDir) ||
        !QDir().mkpath(m_opt.dataDir + QStringLiteral("/thumbs")) ||
        !QDir().mkpath(m_opt.dataDir + QStringLiteral("/annotated"))) {
        qCCritical(lcService) << "cannot create the data folder" << m_opt.dataDir;
        return false;
    }
    QFile::setPermissions(m_opt.dataDir,
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    if (!m_store.open(m_opt.dataDir + QStringLiteral("/captures.db"), m_opt.busyMs)) {
        qCCritical(lcService) << "cannot open the database:" << m_store.lastError();
        return false;
    }
    m_listener = new GuardedListener(kBodyLimit, this);
    if (!m_listener->listen(QHostAddress::LocalHost, m_opt.port)) {
        qCCritical(lcService).nospace()
            << "cannot listen on 127.0.0.1:" << m_opt.port << ": " << m_listener->errorString();
        return false;
    }
    m_port = m_listener->serverPort();
    bind(m_listener);
    return true;
}

bool Service::hostAllowed(const QHttpServerRequest& r) const {
    const QByteArray host = header(r, "host").toLower();
    const QByteArray port = QByteArray::number(m_port);
    return host == "127.0.0.1:" + port || host == "localhost:" + port;
}

bool Service::originAllowed(const QHttpServerRequest& r) const {
    const QByteArray site = header(r, "sec-fetch-site").toLower();
    if (site == "cross-site" || site == "same-site")
        return false;
    const QByteArray origin = header(r, "origin").toLower();
    if (origin.isEmpty())
        return true;
    const QByteArray port = QByteArray::number(m_port);
    return origin == "http://127.0.0.1:" + port || origin == "http://localhost:" + port;
}

void Service::missingHandler(const QHttpServerRequest& r, QTcpSocket* socket) {
    auto out = makeResponder(r, socket);
    sendError(out, Status::NotFound, QStringLiteral("not found"));
}

bool Service::handleRequest(const QHttpServerRequest& r, QTcpSocket* socket) {
    if (m_listener)
        m_listener->requestDone(socket);
    if (!hostAllowed(r)) {
        auto out = makeResponder(r, socket);
        sendError(out, Status::Forbidden, QStringLiteral("host not allowed"));
        return true;
    }
    const auto method = r.method();
    if (method != QHttpServerRequest::Method::Get && method != QHttpServerRequest::Method::Post) {
        auto out = makeResponder(r, socket);
        sendError(out, Status::MethodNotAllowed, QStringLiteral("method not allowed"));
        return true;
    }
    if (method == QHttpServerRequest::Method::Post) {
        auto out = makeResponder(r, socket);
        if (!originAllowed(r)) {
            sendError(out, Status::Forbidden, QStringLiteral("cross-site request refused"));
            return true;
        }
        if (r.body().size() > kBodyLimit) {
            sendError(out, Status::PayloadTooLarge, QStringLiteral("body larger than 1 MiB"));
            return true;
        }
        if (r.url().path() == QLatin1String("/api/ingest")) {
            ingest(r, socket);
            return true;
        }
    }
    auto out = makeResponder(r, socket);
    route(r, out);
    return true;
}

void Service::route(const QHttpServerRequest& r, QHttpServerResponder& out) {
    const bool get = r.method() == QHttpServerRequest::Method::Get;
    const QString path = r.url().path(QUrl::FullyEncoded);
    const auto item = [&path](const char* prefix) -> std::optional<QString> {
        const QLatin1String p(prefix);
        if (!path.startsWith(p))
            return std::nullopt;
        return path.mid(p.size());
    };
    const auto wrongMethod = [&out] {
        sendError(out, Status::MethodNotAllowed, QStringLiteral("method not allowed"));
    };
    const auto badId = [&out] { sendError(out, Status::NotFound, QStringLiteral("unknown id")); };

    if (path == QLatin1String("/api/health")) {
        if (!get)
            return wrongMethod();
        return sendJson(out, Status::Ok,
                        QJsonObject{{QStringLiteral("ok"), true},
                                    {QStringLiteral("awaiting"), m_awaiting > 0}});
    }
    if (path == QLatin1String("/api/captures")) {
        if (!get)
            return wrongMethod();
        const QUrlQuery q = r.query();
        if (!q.hasQueryItem(QStringLiteral("limit")) && !q.hasQueryItem(QStringLiteral("session")))
            return send(out, Status::Ok, kJson, m_store.listJson());
        bool ok = true;
        int limit = -1;
        if (q.hasQueryItem(QStringLiteral("limit"))) {
            limit = q.queryItemValue(QStringLiteral("limit")).toInt(&ok);
            ok = ok && limit >= 0;
        }
        const QString session = q.queryItemValue(QStringLiteral("session"));
        if (!ok || (!session.isEmpty() && !validId(session)))
            return sendError(out, Status::BadRequest, QStringLiteral("bad limit or session"));
        return sendJson(out, Status::Ok, QJsonDocument(m_store.list(limit, session)));
    }
    if (auto id = item("/api/captures/")) {
        if (!validId(*id))
            return badId();
        if (get) {
            const auto c = m_store.capture(*id);
            return c ? sendJson(out, Status::Ok, toJson(*c)) : badId();
        }
        return updateCapture(*id, r, out);
    }
    if (auto id = item("/thumb/")) {
        if (!get)
            return wrongMethod();
        if (!validId(*id))
            return badId();
        return serveFile(m_opt.dataDir + QStringLiteral("/thumbs/") + *id + QStringLiteral(".jpg"),
                         QByteArrayLiteral("image/jpeg"), out);
    }
    if (auto id = item("/annotated/")) {
        if (!get)
            return wrongMethod();
        if (!validId(*id))
            return badId();
        return serveFile(m_opt.dataDir + QStringLiteral("/annotated/") + *id +
                             QStringLiteral(".jpg"),
                         QByteArrayLiteral("image/jpeg"), out);
    }
    if (path == QLatin1String("/api/sessions")) {
        if (get)
            return sendJson(out, Status::Ok, QJsonDocument(m_store.sessions()));
        return postSessions(r, out);
    }
    if (auto id = item("/api/doc/")) {
        if (!get)
            return wrongMethod();
        if (!validId(*id))
            return badId();
        return serveDoc(*id, out);
    }
    if (path == QLatin1String("/api/crash")) {
        if (get)
            return sendJson(out, Status::Ok, QJsonDocument(m_store.crashes(50)));
        return postCrash(r, out);
    }
    if (path == QLatin1String("/api/integrations")) {
        if (get) {
            QJsonArray a;
            for (const Integration& i : m_integrations.all())
                a.append(toJson(i));
            return sendJson(out, Status::Ok, QJsonDocument(a));
        }
        return postIntegrations(r, out);
    }
    if (path == QLatin1String("/") || path == QLatin1String("/index.html")) {
        if (!get)
            return wrongMethod();
        return serveResource(QStringLiteral("dashboard.html"), out);
    }
    if (auto name = item("/static/")) {
        if (!get)
            return wrongMethod();
        return serveResource(*name, out);
    }
    sendError(out, Status::NotFound, QStringLiteral("not found"));
}

void Service::serveFile(const QString& path, const QByteArray& type, QHttpServerResponder& out) {
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return sendError(out, Status::NotFound, QStringLiteral("no image"));
    send(out, Status::Ok, type, f.readAll(), QByteArrayLiteral("private, max-age=86400"));
}

void Service::serveResource(const QString& name, QHttpServerResponder& out) {
    static const QRegularExpression re(QStringLiteral("^[a-z-]+\\.(html|css|js|svg)$"));
    QFile f(QStringLiteral(":/web/") + name);
    if (!re.match(name).hasMatch() || !f.open(QIODevice::ReadOnly))
        return sendError(out, Status::NotFound, QStringLiteral("not found"));
    QByteArray type = QByteArrayLiteral("text/html; charset=utf-8");
    if (name.endsWith(QLatin1String(".css")))
        type = QByteArrayLiteral("text/css; charset=utf-8");
    else if (name.endsWith(QLatin1String(".js")))
        type = QByteArrayLiteral("text/javascript; charset=utf-8");
    else if (name.endsWith(QLatin1String(".svg")))
        type = QByteArrayLiteral("image/svg+xml");
    send(out, Status::Ok, type, f.readAll());
}

void Service::serveDoc(const QString& id, QHttpServerResponder& out) {
    const auto s = m_store.session(id);
    if (!s)
        return sendError(out, Status::NotFound, QStringLiteral("unknown session"));
    send(out, Status::Ok, QByteArrayLiteral("text/html; charset=utf-8"),
         sessionDocument(*s, m_store.list(-1, id)));
}

void Service::updateCapture(const QString& id, const QHttpServerRequest& r,
                            QHttpServerResponder& out) {
    const auto body = jsonBody(r);
    if (!body)
        return sendError(out, Status::BadRequest, QStringLiteral("body is not a JSON object"));
    const QJsonValue path = body->value(QLatin1String("element_path"));
    const QJsonValue conf = body->value(QLatin1String("confidence"));
    const QJsonValue status = body->value(QLatin1String("status"));
    const bool confirming = body->contains(QLatin1String("element_path"));
    if (!confirming && !body->contains(QLatin1String("status")))
        return sendError(out, Status::BadRequest,
                         QStringLiteral("expected element_path and confidence, or status"));
    if (confirming) {
        const double c = conf.isUndefined() ? 1.0 : conf.toDouble(-1);
        if (!path.isString() || path.toString().trimmed().isEmpty() ||
            path.toString().size() > 2000 || (!conf.isUndefined() && !conf.isDouble()) ||
            !std::isfinite(c) || c < 0 || c > 1)
            return sendError(out, Status::BadRequest,
                             QStringLiteral("element_path must be text, confidence 0..1"));
    }
    if (body->contains(QLatin1String("status")) &&
        (!status.isString() || !isKnownStatus(status.toString())))
        return sendError(out, Status::BadRequest,
                         QStringLiteral("status must be inbox, done or discarded"));
    if (!m_store.capture(id))
        return sendError(out, Status::NotFound, QStringLiteral("unknown id"));
    Store::Result res = Store::Result::Ok;
    if (confirming)
        res =
            m_store.confirmElement(id, path.toString(), conf.isUndefined() ? 1.0 : conf.toDouble());
    if (res == Store::Result::Ok && body->contains(QLatin1String("status")))
        res = m_store.setStatus(id, status.toString());
    if (res == Store::Result::NotFound)
        return sendError(out, Status::NotFound, QStringLiteral("unknown id"));
    if (res == Store::Result::Transient)
        return sendError(out, Status::ServiceUnavailable, QStringLiteral("storage busy"));
    sendJson(out, Status::Ok, toJson(*m_store.capture(id)));
}

void Service::postSessions(const QHttpServerRequest& r, QHttpServerResponder& out) {
    const auto body = jsonBody(r);
    if (!body)
        return sendError(out, Status::BadRequest, QStringLiteral("body is not a JSON object"));
    const QJsonValue name = body->value(QLatin1String("name"));
    if (name.isString()) {
        QString n = name.toString().left(kNameLimit);
        if (n.isEmpty())
            n = QStringLiteral("Session");
        const auto s = m_store.startSession(n);
        if (!s)
            return sendError(out, Status::ServiceUnavailable, QStringLiteral("storage busy"));
        return sendJson(out, Status::Ok, *s);
    }
    if (body->value(QLatin1String("end")).toBool(false)) {
        const auto ended = m_store.endSession();
        if (!ended)
            return sendError(out, Status::ServiceUnavailable, QStringLiteral("storage busy"));
        return sendJson(
            out, Status::Ok,
            QJsonObject{{QStringLiteral("ended"),
                         ended->isEmpty() ? QJsonValue(QJsonValue::Null) : QJsonValue(*ended)}});
    }
    sendError(out, Status::BadRequest,
              QStringLiteral("expected {\"name\": text} or {\"end\": true}"));
}

void Service::postCrash(const QHttpServerRequest& r, QHttpServerResponder& out) {
    const auto body = jsonBody(r);
    if (!body || !body->value(QLatin1String("reports")).isArray())
        return sendError(out, Status::BadRequest,
                         QStringLiteral("expected {\"reports\": [names]}"));
    static const QRegularExpression re(QStringLiteral("^[A-Za-z0-9][A-Za-z0-9_.:+ -]{0,200}$"));
    QJsonArray stored, skipped;
    for (const QJsonValue& v : body->value(QLatin1String("reports")).toArray()) {
        const QString name = v.toString();
        // File names only: nothing that could walk out of the reports folder.
        if (!v.isString() || !re.match(name).hasMatch() || name.contains(QLatin1String(".."))) {
            skipped.append(v.isString() ? QJsonValue(name.left(100)) : QJsonValue(QString()));
            continue;
        }
        const QString file = m_opt.crashDir + QLatin1Char('/') + name;
        const QFileInfo fi(file);
        QFile f(file);
        if (fi.isSymLink() || !fi.isFile() || !f.open(QIODevice::ReadOnly)) {
            skipped.append(name);
            continue;
        }
        const QString text = QString::fromUtf8(f.read(kCrashReadLimit));
        if (m_store.addCrash(name, text, fi.size()) != Store::Result::Ok)
            return sendError(out, Status::ServiceUnavailable, QStringLiteral("storage busy"));
        stored.append(name);
    }
    sendJson(out, Status::Ok,
             QJsonObject{{QStringLiteral("stored"), stored}, {QStringLiteral("skipped"), skipped}});
}

void Service::postIntegrations(const QHttpServerRequest& r, QHttpServerResponder& out) {
    const auto body = jsonBody(r);
    if (!body || !body->value(QLatin1String("id")).isString() ||
        !body->value(QLatin1String("enabled")).isBool())
        return sendError(out, Status::BadRequest,
                         QStringLiteral("expected {\"id\": text, \"enabled\": true|false}"));
    switch (m_integrations.setEnabled(body->value(QLatin1String("id")).toString(),
                                      body->value(QLatin1String("enabled")).toBool())) {
    case IntegrationConfig::Toggle::NotFound:
        return sendError(out, Status::NotFound, QStringLiteral("unknown integration"));
    case IntegrationConfig::Toggle::WriteFailed:
        return sendError(out, Status::ServiceUnavailable,
                         QStringLiteral("could not write the integrations file"));
    case IntegrationConfig::Toggle::Ok:
        break;
    }
    QJsonArray a;
    for (const Integration& i : m_integrations.all())
        a.append(toJson(i));
    sendJson(out, Status::Ok, QJsonDocument(a));
}

void Service::ingest(const QHttpServerRequest& r, QTcpSocket* socket) {
    auto out = std::make_shared<QHttpServerResponder>(makeResponder(r, socket));
    const auto body = jsonBody(r);
    if (!body || !body->value(QLatin1String("dir")).isString())
        return sendError(*out, Status::BadRequest, QStringLiteral("expected {\"dir\": path}"));
    const QString dir = body->value(QLatin1String("dir")).toString();
    const auto notCapture = [&out, &dir](const QString& why) {
        qCInfo(lcService).noquote() << "not a capture:" << dir << "(" + why + ")";
        sendJson(*out, Status::Ok,
                 QJsonObject{{QStringLiteral("ingested"), false}, {QStringLiteral("reason"), why}});
    };
    const Folder folder = checkFolder(dir, m_opt.capturesRoot);
    if (!folder.notCapture.isEmpty())
        return notCapture(folder.notCapture);
    const auto raw = readSmallFile(folder.path + QStringLiteral("/context.json"), kContextLimit);
    std::optional<CaptureContext> ctx;
    if (raw) {
        const QJsonDocument doc = QJsonDocument::fromJson(*raw);
        if (doc.isObject())
            ctx = contextFromJson(doc.object());
    }
    if (!ctx)
        return notCapture(QStringLiteral("no context record"));

    StoredCap cap;
    cap.id = folder.id;
    cap.dir = folder.path;
    cap.ts = ctx->startedAt;
    cap.app = ctx->app.name == QLatin1String("?") ? QString() : ctx->app.name;
    cap.title = ctx->window.title;
    if (ctx->browser) {
        cap.url = ctx->browser->url;
        if (!ctx->browser->title.isEmpty())
            cap.title = ctx->browser->title;
    }
    if (const auto t =
            readSmallFile(folder.path + QStringLiteral("/transcript.txt"), kTranscriptLimit))
        cap.transcript = QString::fromUtf8(*t).trimmed();
    const Classification cls = classify(cap.transcript);
    cap.type = cls.type;
    cap.severity = cls.severity;
    if (const auto g = guessElement(*ctx)) {
        cap.elementPath = g->path;
        cap.confidence = g->confidence;
        cap.candidates = g->candidates;
    }
    if (ctx->audioLevels)
        cap.levels = *ctx->audioLevels;

    ImagePaths paths{folder.path + QStringLiteral("/shot.png"),
                     m_opt.dataDir + QStringLiteral("/thumbs/") + cap.id + QStringLiteral(".jpg"),
                     m_opt.dataDir + QStringLiteral("/annotated/") + cap.id +
                         QStringLiteral(".jpg")};
    if (QFileInfo(paths.shot).isSymLink())
        paths.shot.clear();

    ++m_awaiting;
    QPointer<QTcpSocket> alive(socket);
    auto* watcher = new QFutureWatcher<ImageResult>(this);
    connect(watcher, &QFutureWatcher<ImageResult>::finished, this,
            [this, watcher, out, alive, cap, paths]() mutable {
                watcher->deleteLater();
                --m_awaiting;
                const ImageResult img = watcher->result();
                const auto reply = [&](Status s, const QJsonObject& o) {
                    if (alive && alive->isOpen())
                        sendJson(*out, s, o);
                };
                if (!img.ok) {
                    qCWarning(lcService) << "could not write the images of" << cap.id;
                    return reply(
                        Status::ServiceUnavailable,
                        {{QStringLiteral("error"), QStringLiteral("could not store images")}});
                }
                cap.hasThumb = img.shotReadable;
                if (img.shotReadable)
                    cap.annotated = paths.annotated;
                const QList<Integration> hooks = m_integrations.enabled();
                bool created = false;
                if (m_store.upsert(cap, int(hooks.size()), created) != Store::Result::Ok)
                    return reply(Status::ServiceUnavailable,
                                 {{QStringLiteral("error"), QStringLiteral("storage busy")}});
                if (created && !hooks.isEmpty())
                    if (const auto stored = m_store.capture(cap.id))
                        m_webhooks.send(cap.id, toJson(*stored), hooks);
                reply(Status::Ok, {{QStringLiteral("ingested"), true},
                                   {QStringLiteral("id"), cap.id},
                                   {QStringLiteral("created"), created}});
            });
    const CaptureContext context = *ctx;
    watcher->setFuture(QtConcurrent::run(&m_pool, [paths, context] {
        return paths.shot.isEmpty() ? ImageResult{} : makeImages(paths, context);
    }));
}

} // namespace tk::service
