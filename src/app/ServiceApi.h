#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QObject>
#include <QUrl>

#include <array>
#include <functional>

class QNetworkAccessManager;

namespace tk {

// The one way to the capture service on 127.0.0.1:3402. Lives on the main
// thread; callers elsewhere may use it, their requests hop there.
class ServiceApi : public QObject {
    Q_OBJECT
public:
    enum class Endpoint {
        Ingest,
        Captures,
        CaptureItem,
        Health,
        Thumb,
        Dashboard,
        Sessions,
        Doc,
        Crash,
        Integrations,
    };
    struct Route {
        Endpoint endpoint;
        const char* method;
        const char* path;
        bool perItem; // the item's id is appended as it is
        bool jsonBody;
    };
    static const std::array<Route, 12>& routes();

    struct Reply {
        bool transportOk = false; // a response arrived
        int status = 0;           // HTTP status; 0 without a response
        QByteArray body;
    };
    using Completion = std::function<void(const Reply&)>;

    explicit ServiceApi(QObject* parent = nullptr);
    ~ServiceApi() override;

    static QUrl baseUrl();
    static QUrl url(const QString& path);
    static QUrl url(Endpoint e, const QString& id = {});

    // Fire and forget: JSON body, no Content-Type, 60 s timeout, reply ignored.
    void post(const QString& path, const QJsonObject& body);
    // A POST with "application/json"; the completion runs on the main thread.
    void postJson(const QString& path, const QJsonObject& body, Completion done);
    void get(const QString& path, Completion done);

private:
    void send(const QString& method, const QString& path, const QByteArray& body, bool declareJson,
              Completion done);
    void sendUntyped(const QString& path, const QByteArray& body, Completion done);
    QNetworkAccessManager* m_nam;
};

} // namespace tk
