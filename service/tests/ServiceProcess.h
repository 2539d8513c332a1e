#pragma once

#include "writer/Context.h"

#include <QByteArray>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QList>
#include <QPair>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

namespace tk::service::test {

struct HttpReply {
    int status = 0;                        // 0: no answer
    QHash<QByteArray, QByteArray> headers; // names lower-cased
    QByteArray body;
    QJsonDocument json() const { return QJsonDocument::fromJson(body); }
};

using Headers = QList<QPair<QByteArray, QByteArray>>;

// A blocking HTTP/1.1 exchange over a fresh loopback connection; usable from
// any thread. The Host header is added unless `headers` names one.
HttpReply http(quint16 port, const QByteArray& method, const QByteArray& path,
               const QByteArray& body = {}, const Headers& headers = {}, int timeoutMs = 15000);

// The real tolmesk-service executable on a free port with its own folders.
class ServiceProcess {
public:
    ServiceProcess();
    ~ServiceProcess();
    bool start(const QStringList& extra = {});
    void stop();
    quint16 port() const { return m_port; }
    QString dataDir() const { return m_tmp.path() + QStringLiteral("/data"); }
    QString root() const { return m_tmp.path() + QStringLiteral("/TolmeskCaptures"); }
    QString crashDir() const { return m_tmp.path() + QStringLiteral("/crash"); }
    QString integrationsFile() const { return m_tmp.path() + QStringLiteral("/hooks.json"); }
    QString tempPath() const { return m_tmp.path(); }
    QByteArray log() const { return m_log; }

    HttpReply get(const QByteArray& path) { return http(m_port, "GET", path); }
    HttpReply post(const QByteArray& path, const QJsonObject& body, bool declareJson = true);
    HttpReply ingest(const QString& dir);
    QJsonArray captures();

private:
    QTemporaryDir m_tmp;
    QProcess m_proc;
    quint16 m_port = 0;
    QByteArray m_log;
};

struct FixtureOptions {
    QString transcript;           // written as transcript.txt when not empty
    QSize shot = QSize(640, 400); // no shot.png when empty
    QString startedAt = QStringLiteral("2026-03-01T09:15:02Z");
    bool withElement = true;

    static FixtureOptions said(const QString& t, QSize shot = QSize(640, 400)) {
        FixtureOptions o;
        o.transcript = t;
        o.shot = shot;
        return o;
    }
    static FixtureOptions shotOf(QSize shot) { return said({}, shot); }
    static FixtureOptions at(const QString& ts) {
        FixtureOptions o;
        o.startedAt = ts;
        return o;
    }
};

// A capture folder as the app writes it, built with the app's own record code.
CaptureContext sampleContext(const QString& id, const FixtureOptions& o = {});
QString makeCapture(const QString& root, const QString& id, const FixtureOptions& o = {});

} // namespace tk::service::test
