#include "app/ServiceApi.h"
#include "settings/Prefs.h"
#include "support/HttpPeer.h"
#include "writer/Ingest.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

using namespace tk;
using tk::test::HttpPeer;

class TestIngest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void request();
    void status_data();
    void status();
    void refusedQueuesOnce();
    void slowAnswerIsNotAFailure();
    void successDrainsBacklogInOrder();
    void drainWithEmptyListWritesNothing();
    void postHelperDeclaresNoType();

private:
    void settle(int ms = 300) { QTest::qWait(ms); }
    QTemporaryDir m_config;
    ServiceApi* m_api = nullptr;
    Ingest* m_ingest = nullptr;
    HttpPeer* m_peer = nullptr;
};

void TestIngest::initTestCase() {
    qputenv("XDG_CONFIG_HOME", m_config.path().toUtf8());
}

void TestIngest::init() {
    Prefs::setPendingIngest({});
    m_api = new ServiceApi(this);
    m_ingest = new Ingest(*m_api);
    m_peer = new HttpPeer(this);
    QVERIFY2(m_peer->listen(3402), "127.0.0.1:3402 is taken by another process");
}

void TestIngest::cleanup() {
    delete m_ingest;
    delete m_api;
    delete m_peer;
}

void TestIngest::request() {
    const QString dir = QStringLiteral("/home/u/TolmeskCaptures/a b,c");
    m_ingest->ingest(dir);
    QVERIFY(m_peer->waitForRequests(1));
    const auto& r = m_peer->requests().first();
    QCOMPARE(r.method, QByteArray("POST"));
    QCOMPARE(r.path, QByteArray("/api/ingest"));
    QCOMPARE(r.headers.value("content-type"), QByteArray("application/json"));
    const QJsonObject body = QJsonDocument::fromJson(r.body).object();
    QCOMPARE(body.keys(), QStringList{"dir"});
    QCOMPARE(body["dir"].toString(), dir);
    settle();
    QVERIFY(Prefs::pendingIngest().isEmpty());
}

void TestIngest::status_data() {
    QTest::addColumn<int>("status");
    QTest::addColumn<bool>("queued");
    QTest::newRow("200 taken") << 200 << false;
    QTest::newRow("201 is not 200") << 201 << true;
    QTest::newRow("204 is not 200") << 204 << true;
    QTest::newRow("500") << 500 << true;
    QTest::newRow("503") << 503 << true;
}

void TestIngest::status() {
    QFETCH(int, status);
    QFETCH(bool, queued);
    m_peer->setAnswer(HttpPeer::Answer{status, {}, 0});
    m_ingest->ingest(QStringLiteral("/c/one"));
    QVERIFY(m_peer->waitForRequests(1));
    settle();
    QCOMPARE(Prefs::pendingIngest(), queued ? QStringList{"/c/one"} : QStringList{});
    if (!queued)
        return;
    // The same folder failing again is not listed twice.
    m_ingest->ingest(QStringLiteral("/c/one"));
    QVERIFY(m_peer->waitForRequests(2));
    settle();
    QCOMPARE(Prefs::pendingIngest(), QStringList{"/c/one"});
}

void TestIngest::refusedQueuesOnce() {
    m_peer->close();
    m_ingest->ingest(QStringLiteral("/c/a"));
    m_ingest->ingest(QStringLiteral("/c/b"));
    m_ingest->ingest(QStringLiteral("/c/a"));
    QTRY_COMPARE_WITH_TIMEOUT(Prefs::pendingIngest(), (QStringList{"/c/a", "/c/b"}), 5000);
    settle();
    QCOMPARE(Prefs::pendingIngest(), (QStringList{"/c/a", "/c/b"}));
}

void TestIngest::slowAnswerIsNotAFailure() {
    m_peer->setAnswer(HttpPeer::Answer{200, {}, 2500});
    m_ingest->ingest(QStringLiteral("/c/slow"));
    QVERIFY(m_peer->waitForRequests(1));
    QTest::qWait(3000);
    QVERIFY(Prefs::pendingIngest().isEmpty());
}

void TestIngest::successDrainsBacklogInOrder() {
    Prefs::setPendingIngest({"/c/1", "/c/2", "/c/3"});
    m_ingest->ingest(QStringLiteral("/c/new"));
    QVERIFY(m_peer->waitForRequests(4));
    settle();
    QStringList got;
    for (const auto& r : m_peer->requests())
        got << QJsonDocument::fromJson(r.body).object()["dir"].toString();
    QCOMPARE(got.first(), QStringLiteral("/c/new"));
    got.removeFirst();
    got.sort();
    QCOMPARE(got, (QStringList{"/c/1", "/c/2", "/c/3"}));
    QVERIFY(Prefs::pendingIngest().isEmpty());
    QCOMPARE(m_peer->requests().size(), 4); // the drains that follow find nothing

    // A backlog that fails again keeps its stored order.
    m_peer->setAnswer(HttpPeer::Answer{500, {}, 0});
    Prefs::setPendingIngest({"/c/x", "/c/y"});
    m_ingest->drainPending();
    QVERIFY(m_peer->waitForRequests(6));
    QTRY_COMPARE_WITH_TIMEOUT(Prefs::pendingIngest().size(), 2, 3000);
    QStringList back = Prefs::pendingIngest();
    back.sort();
    QCOMPARE(back, (QStringList{"/c/x", "/c/y"}));
}

void TestIngest::drainWithEmptyListWritesNothing() {
    Prefs::setValue(Prefs::kPendingIngest, QVariant());
    m_ingest->drainPending();
    settle();
    QCOMPARE(m_peer->requests().size(), 0);
}

void TestIngest::postHelperDeclaresNoType() {
    m_api->post(QStringLiteral("/api/sessions"), QJsonObject{{"end", true}});
    QVERIFY(m_peer->waitForRequests(1));
    const auto& r = m_peer->requests().first();
    QCOMPARE(r.path, QByteArray("/api/sessions"));
    QVERIFY(!r.headers.contains("content-type"));
    QCOMPARE(QJsonDocument::fromJson(r.body).object()["end"].toBool(), true);
    QCOMPARE(ServiceApi::url(ServiceApi::Endpoint::Thumb, QStringLiteral("ab-c")).toString(),
             QStringLiteral("http://127.0.0.1:3402/thumb/ab-c"));
}

QTEST_GUILESS_MAIN(TestIngest)
#include "tst_ingest.moc"
