#include "app/ServiceApi.h"

#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QTcpSocket>
#include <QThread>
#include <QTimer>

#include <memory>

namespace tk {

namespace {
constexpr int kPostTimeoutMs = 60'000;
}

const std::array<ServiceApi::Route, 12>& ServiceApi::routes() {
    static const std::array<Route, 12> table{{
        {Endpoint::Ingest, "POST", "/api/ingest", false, true},
        {Endpoint::Captures, "GET", "/api/captures", false, false},
        {Endpoint::CaptureItem, "POST", "/api/captures/", true, true},
        {Endpoint::Health, "GET", "/api/health", false, false},
        {Endpoint::Thumb, "GET", "/thumb/", true, false},
        {Endpoint::Dashboard, "GET", "/", false, false},
        {Endpoint::Sessions, "GET", "/api/sessions", false, false},
        {Endpoint::Sessions, "POST", "/api/sessions", false, false},
        {Endpoint::Doc, "GET", "/api/doc/", true, false},
        {Endpoint::Crash, "POST", "/api/crash", false, true},
        {Endpoint::Integrations, "GET", "/api/integrations", false, false},
        {Endpoint::Integrations, "POST", "/api/integrations", false, false},
    }};
    return table;
}

ServiceApi::ServiceApi(QObject* parent) : QObject(parent), m_nam(new QNetworkAccessManager(this)) {
    // Loopback only: a proxy from the environment must never see a capture path.
    m_nam->setProxy(QNetworkProxy::NoProxy);
}

ServiceApi::~ServiceApi() = default;

QUrl ServiceApi::baseUrl() {
    return QUrl(QStringLiteral("http://127.0.0.1:3402"));
}

QUrl ServiceApi::url(const QString& path) {
    // Appended as it is, ids included, without escaping.
    return QUrl(baseUrl().toString() + path, QUrl::TolerantMode);
}

QUrl ServiceApi::url(Endpoint e, const QString& id) {
    for (const auto& r : routes())
        if (r.endpoint == e)
            return url(QLatin1String(r.path) + (r.perItem ? id : QString()));
    return baseUrl();
}

void ServiceApi::post(const QString& path, const QJsonObject& body) {
    send(QStringLiteral("POST"), path, QJsonDocument(body).toJson(QJsonDocument::Compact), false,
         {});
}

void ServiceApi::postJson(const QString& path, const QJsonObject& body, Completion done) {
    send(QStringLiteral("POST"), path, QJsonDocument(body).toJson(QJsonDocument::Compact), true,
         std::move(done));
}

void ServiceApi::get(const QString& path, Completion done) {
    send(QStringLiteral("GET"), path, {}, false, std::move(done));
}

void ServiceApi::send(const QString& method, const QString& path, const QByteArray& body,
                      bool declareJson, Completion done) {
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(
            this, [=, this] { send(method, path, body, declareJson, done); }, Qt::QueuedConnection);
        return;
    }
    if (method == QLatin1String("POST") && !declareJson) {
        sendUntyped(path, body, std::move(done));
        return;
    }
    QNetworkRequest req(url(path));
    if (method == QLatin1String("POST"))
        req.setTransferTimeout(kPostTimeoutMs);
    if (declareJson)
        req.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    QNetworkReply* reply =
        method == QLatin1String("POST") ? m_nam->post(req, body) : m_nam->get(req);
    connect(reply, &QNetworkReply::finished, this, [reply, done = std::move(done)] {
        reply->deleteLater();
        if (!done)
            return;
        Reply r;
        const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        r.transportOk = status.isValid();
        r.status = status.isValid() ? status.toInt() : 0;
        r.body = reply->readAll();
        done(r);
    });
}

void ServiceApi::sendUntyped(const QString& path, const QByteArray& body, Completion done) {
    // Qt's HTTP stack gives every body a form Content-Type; these requests must
    // carry none, so they are written by hand on a loopback socket.
    auto* socket = new QTcpSocket(this);
    auto* timer = new QTimer(socket);
    auto buffer = std::make_shared<QByteArray>();
    auto finish = [socket, buffer, done = std::move(done)](bool timedOut) {
        if (socket->property("tkDone").toBool())
            return;
        socket->setProperty("tkDone", true);
        if (socket->isOpen())
            *buffer += socket->readAll();
        Reply r;
        const int lineEnd = buffer->indexOf("\r\n");
        const QList<QByteArray> status = buffer->left(lineEnd).split(' ');
        if (!timedOut && lineEnd > 0 && status.size() >= 2 && status[0].startsWith("HTTP/")) {
            r.transportOk = true;
            r.status = status[1].toInt();
            const int headEnd = buffer->indexOf("\r\n\r\n");
            if (headEnd > 0)
                r.body = buffer->mid(headEnd + 4);
        }
        socket->abort();
        socket->deleteLater();
        if (done)
            done(r);
    };
    connect(socket, &QTcpSocket::readyRead, socket,
            [socket, buffer] { *buffer += socket->readAll(); });
    connect(socket, &QTcpSocket::disconnected, socket, [finish] { finish(false); });
    connect(socket, &QTcpSocket::errorOccurred, socket, [finish] { finish(false); });
    connect(timer, &QTimer::timeout, socket, [finish] { finish(true); });
    connect(socket, &QTcpSocket::connected, socket, [socket, path, body] {
        const QUrl u = baseUrl();
        QByteArray req = "POST " + path.toUtf8() + " HTTP/1.1\r\n";
        req += "Host: " + u.host().toLatin1() + ':' + QByteArray::number(u.port()) + "\r\n";
        req += "Content-Length: " + QByteArray::number(body.size()) + "\r\n";
        req += "Connection: close\r\n\r\n";
        socket->write(req + body);
    });
    timer->setSingleShot(true);
    timer->start(kPostTimeoutMs);
    const QUrl u = baseUrl();
    socket->connectToHost(u.host(), quint16(u.port()));
}

} // namespace tk
