#include "support/HttpPeer.h"

#include <QDeadlineTimer>
#include <QPointer>
#include <QTcpSocket>
#include <QTest>
#include <QTimer>

namespace tk::test {

HttpPeer::HttpPeer(QObject* parent) : QObject(parent) {
    setAnswer(Answer{});
    connect(&m_server, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket* s = m_server.nextPendingConnection()) {
            connect(s, &QTcpSocket::readyRead, this, [this, s] { serve(s); });
            connect(s, &QTcpSocket::disconnected, this, [this, s] {
                m_buffers.remove(s);
                s->deleteLater();
            });
        }
    });
}

HttpPeer::~HttpPeer() {
    // Sockets die with the server after our members; they must not call back.
    for (QTcpSocket* s : m_server.findChildren<QTcpSocket*>()) {
        QObject::disconnect(s, nullptr, this, nullptr);
        delete s;
    }
}

bool HttpPeer::listen(quint16 port) {
    return m_server.listen(QHostAddress::LocalHost, port);
}

void HttpPeer::close() {
    m_server.close();
    for (auto it = m_buffers.begin(); it != m_buffers.end(); ++it)
        it.key()->abort();
}

bool HttpPeer::waitForRequests(int n, int timeoutMs) {
    QDeadlineTimer deadline(timeoutMs);
    while (m_requests.size() < n && !deadline.hasExpired())
        QTest::qWait(10);
    return m_requests.size() >= n;
}

void HttpPeer::serve(QTcpSocket* s) {
    QByteArray& buf = m_buffers[s];
    buf += s->readAll();
    for (;;) {
        const int headEnd = buf.indexOf("\r\n\r\n");
        if (headEnd < 0)
            return;
        const QList<QByteArray> lines = buf.left(headEnd).split('\n');
        Request r;
        const QList<QByteArray> first = lines.value(0).trimmed().split(' ');
        r.method = first.value(0);
        r.path = first.value(1);
        for (int i = 1; i < lines.size(); ++i) {
            const int colon = lines[i].indexOf(':');
            if (colon > 0)
                r.headers.insert(lines[i].left(colon).trimmed().toLower(),
                                 lines[i].mid(colon + 1).trimmed());
        }
        const int length = r.headers.value("content-length", "0").toInt();
        if (buf.size() < headEnd + 4 + length)
            return;
        r.body = buf.mid(headEnd + 4, length);
        buf.remove(0, headEnd + 4 + length);
        m_requests.append(r);
        Q_EMIT received();
        const Answer a = m_answer(r);
        QPointer<QTcpSocket> socket(s);
        auto reply = [socket, a] {
            if (!socket)
                return;
            QByteArray out = "HTTP/1.1 " + QByteArray::number(a.status) + " Scripted\r\n";
            out += "Content-Type: " + a.contentType + "\r\n";
            out += "Content-Length: " + QByteArray::number(a.body.size()) + "\r\n";
            out += "Connection: keep-alive\r\n\r\n";
            if (a.status != 204 && a.status != 304)
                out += a.body;
            socket->write(out);
        };
        if (a.delayMs > 0)
            QTimer::singleShot(a.delayMs, this, reply);
        else
            reply();
    }
}

} // namespace tk::test
