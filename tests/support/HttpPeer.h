#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QObject>
#include <QTcpServer>

#include <functional>

namespace tk::test {

// A small real HTTP/1.1 server on loopback that records what it is sent and
// answers with a scripted status, optionally late.
class HttpPeer : public QObject {
    Q_OBJECT
public:
    struct Request {
        QByteArray method;
        QByteArray path;
        QHash<QByteArray, QByteArray> headers; // names lower-cased
        QByteArray body;
    };
    struct Answer {
        int status = 200;
        QByteArray body;
        int delayMs = 0;
        QByteArray contentType = "application/json";
    };

    explicit HttpPeer(QObject* parent = nullptr);
    ~HttpPeer() override;
    bool listen(quint16 port = 3402);
    void close();
    bool isListening() const { return m_server.isListening(); }

    void setAnswer(Answer a) {
        m_answer = [a](const Request&) { return a; };
    }
    void setAnswer(std::function<Answer(const Request&)> f) { m_answer = std::move(f); }
    const QList<Request>& requests() const { return m_requests; }
    void clear() { m_requests.clear(); }
    // Waits, running the event loop, until at least `n` requests arrived.
    bool waitForRequests(int n, int timeoutMs = 5000);

Q_SIGNALS:
    void received();

private:
    void serve(QTcpSocket* s);
    QTcpServer m_server;
    std::function<Answer(const Request&)> m_answer;
    QList<Request> m_requests;
    QHash<QTcpSocket*, QByteArray> m_buffers;
};

} // namespace tk::test
