#pragma once

#include "Integrations.h"
#include "Store.h"

#include <QAbstractHttpServer>
#include <QHash>
#include <QPointer>
#include <QStringList>
#include <QTcpServer>
#include <QThreadPool>

#include <memory>
#include <optional>

class QHttpServerResponder;

namespace tk::service {

struct ServiceOptions {
    quint16 port = 3402; // 0: any free port, printed on stdout
    QString dataDir;     // $XDG_DATA_HOME/tolmesk-service
    QString capturesRoot;
    QString crashDir;
    QString integrationsFile;
    int busyMs = 2000;
    int webhookBackoffMs = 1000;
};
// Command line over the environment's defaults; nothing on bad arguments.
std::optional<ServiceOptions> parseOptions(const QStringList& args, QString* error);

// Refuses requests whose body grows past the limit before it is buffered whole.
class GuardedListener : public QTcpServer {
    Q_OBJECT
public:
    explicit GuardedListener(qint64 limit, QObject* parent = nullptr)
        : QTcpServer(parent), m_limit(limit) {}
    // A complete request was handed over: count afresh on this connection.
    void requestDone(QTcpSocket* s) { m_received[s] = 0; }

protected:
    void incomingConnection(qintptr fd) override;

private:
    qint64 m_limit;
    QHash<QTcpSocket*, qint64> m_received;
};

class Service : public QAbstractHttpServer {
    Q_OBJECT
public:
    explicit Service(ServiceOptions o, QObject* parent = nullptr);
    ~Service() override;
    // Opens storage and listens on 127.0.0.1; false with a log line on failure.
    bool start();
    quint16 port() const { return m_port; }

protected:
    bool handleRequest(const QHttpServerRequest& request, QTcpSocket* socket) override;
    void missingHandler(const QHttpServerRequest& request, QTcpSocket* socket) override;

private:
    struct Reply;
    void route(const QHttpServerRequest& r, QHttpServerResponder& out);
    void ingest(const QHttpServerRequest& r, QTcpSocket* socket);
    void updateCapture(const QString& id, const QHttpServerRequest& r, QHttpServerResponder& out);
    void postSessions(const QHttpServerRequest& r, QHttpServerResponder& out);
    void postCrash(const QHttpServerRequest& r, QHttpServerResponder& out);
    void postIntegrations(const QHttpServerRequest& r, QHttpServerResponder& out);
    void serveFile(const QString& path, const QByteArray& type, QHttpServerResponder& out);
    void serveResource(const QString& name, QHttpServerResponder& out);
    void serveDoc(const QString& id, QHttpServerResponder& out);
    bool hostAllowed(const QHttpServerRequest& r) const;
    bool originAllowed(const QHttpServerRequest& r) const;

    ServiceOptions m_opt;
    quint16 m_port = 0;
    Store m_store;
    IntegrationConfig m_integrations;
    WebhookSender m_webhooks;
    QThreadPool m_pool;
    GuardedListener* m_listener = nullptr;
    int m_awaiting = 0;
};

} // namespace tk::service
