#include "ServiceProcess.h"

#include <QFile>
#include <QTcpServer>
#include <QTcpSocket>
#include <QUuid>
#include <QtTest>

using namespace tk::service::test;

namespace {

// A webhook receiver on loopback that fails the first `failFirst` posts.
class Receiver : public QObject {
public:
    explicit Receiver(int failFirst) : m_failFirst(failFirst) {
        m_server.listen(QHostAddress::LocalHost, 0);
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket* s = m_server.nextPendingConnection()) {
                connect(s, &QTcpSocket::readyRead, s, [this, s] { read(s); });
                connect(s, &QTcpSocket::disconnected, s, &QObject::deleteLater);
            }
        });
    }
    QString url() const {
        return QStringLiteral("http://127.0.0.1:%1/hook").arg(m_server.serverPort());
    }
    int attempts = 0;
    QList<QJsonObject> bodies;

private:
    void read(QTcpSocket* s) {
        QByteArray& buf = m_buf[s];
        buf += s->readAll();
        const qsizetype end = buf.indexOf("\r\n\r\n");
        if (end < 0)
            return;
        const QByteArray head = buf.left(end).toLower();
        const qsizetype at = head.indexOf("content-length:");
        const qsizetype len =
            at < 0 ? 0 : head.mid(at + 15, head.indexOf('\r', at) - at - 15).trimmed().toLongLong();
        if (buf.size() < end + 4 + len)
            return;
        ++attempts;
        const bool fail = attempts <= m_failFirst;
        if (!fail)
            bodies << QJsonDocument::fromJson(buf.mid(end + 4, len)).object();
        m_buf.remove(s);
        s->write(fail ? "HTTP/1.1 500 Oops\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"
                      : "HTTP/1.1 204 No Content\r\nConnection: close\r\n\r\n");
        s->disconnectFromHost();
    }
    QTcpServer m_server;
    int m_failFirst;
    QHash<QTcpSocket*, QByteArray> m_buf;
};

QJsonObject webhookOf(ServiceProcess& svc, const QString& id) {
    for (const QJsonValue& v : svc.captures()) {
        const QJsonObject c = v.toObject();
        if (c.value("id").toString() == id)
            return QJsonDocument::fromJson(c.value("pipeline").toString().toUtf8())
                .object()
                .value("webhook")
                .toObject();
    }
    return {};
}

void writeHooks(const QString& file, const QList<QPair<QString, QString>>& hooks) {
    QJsonArray a;
    int n = 0;
    for (const auto& h : hooks)
        a.append(QJsonObject{
            {"id", QString::number(++n)}, {"name", h.first}, {"url", h.second}, {"enabled", true}});
    QFile f(file);
    QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    f.write(QJsonDocument(QJsonObject{{"integrations", a}}).toJson());
}

} // namespace

class TestServiceWebhooks : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void deliversWithRetry() {
        Receiver flaky(1); // the first post fails, the retry succeeds
        Receiver down(100);
        ServiceProcess svc;
        writeHooks(svc.integrationsFile(), {{"Tracker", flaky.url()}, {"Dead", down.url()}});
        QVERIFY(svc.start());
        const QString id = QUuid::createUuid().toString(QUuid::WithoutBraces);
        const QString dir =
            makeCapture(svc.root(), id, FixtureOptions::said("the save button is broken"));
        QElapsedTimer t;
        t.start();
        QCOMPARE(svc.ingest(dir).status, 200);
        QVERIFY2(t.elapsed() < 5000, "ingest waited for the webhooks");
        QCOMPARE(webhookOf(svc, id).value("configured").toInt(), 2);

        QTRY_COMPARE_WITH_TIMEOUT(flaky.bodies.size(), 1, 15000);
        QCOMPARE(flaky.attempts, 2);
        QCOMPARE(flaky.bodies.at(0).value("id").toString(), id);
        QCOMPARE(flaky.bodies.at(0).value("transcript").toString(),
                 QStringLiteral("the save button is broken"));
        QTRY_COMPARE_WITH_TIMEOUT(webhookOf(svc, id).value("delivered").toArray(),
                                  QJsonArray{"Tracker"}, 10000);
        // The dead one is retried a few times with growing pauses, then given up.
        QTRY_COMPARE_WITH_TIMEOUT(down.attempts, 4, 15000);
        QTest::qWait(2000);
        QCOMPARE(down.attempts, 4);

        // Re-ingesting (the transcript arriving later) sends nothing again.
        QCOMPARE(svc.ingest(dir).status, 200);
        QTest::qWait(1000);
        QCOMPARE(flaky.attempts, 2);
        QCOMPARE(webhookOf(svc, id).value("delivered").toArray(), QJsonArray{"Tracker"});
    }

    void disabledOrMissingConfigSendsNothing() {
        Receiver r(0);
        ServiceProcess svc;
        QVERIFY(svc.start()); // no integrations file at all
        const QString id = QUuid::createUuid().toString(QUuid::WithoutBraces);
        QCOMPARE(svc.ingest(makeCapture(svc.root(), id)).status, 200);
        QCOMPARE(webhookOf(svc, id).value("configured").toInt(-1), 0);
        QCOMPARE(svc.get("/api/integrations").json().array().size(), 0);

        writeHooks(svc.integrationsFile(), {{"Tracker", r.url()}});
        QCOMPARE(svc.post("/api/integrations", {{"id", "1"}, {"enabled", false}}, false).status,
                 200);
        const QString second = QUuid::createUuid().toString(QUuid::WithoutBraces);
        QCOMPARE(svc.ingest(makeCapture(svc.root(), second)).status, 200);
        QTest::qWait(500);
        QCOMPARE(r.attempts, 0);
        QCOMPARE(webhookOf(svc, second).value("configured").toInt(-1), 0);
    }
};

QTEST_GUILESS_MAIN(TestServiceWebhooks)
#include "tst_service_webhooks.moc"
