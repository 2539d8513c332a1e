#include "ServiceProcess.h"

#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QUuid>
#include <QWebSocket>
#include <QtTest>

using namespace tk::service::test;

namespace {

QString newId() {
    return QUuid::createUuid().toString(QUuid::WithoutBraces);
}

QStringList chromiumFlags(const QString& profile) {
    return {QStringLiteral("--headless=new"),
            QStringLiteral("--no-sandbox"),
            QStringLiteral("--disable-gpu"),
            QStringLiteral("--no-first-run"),
            QStringLiteral("--disable-background-networking"),
            QStringLiteral("--disable-component-update"),
            QStringLiteral("--disable-sync"),
            QStringLiteral("--user-data-dir=") + profile};
}

// Chromium driven over its DevTools protocol.
class Browser {
public:
    bool start(const QString& chromium, const QString& profile, const QString& url) {
        m_proc.setProgram(chromium);
        m_proc.setArguments(chromiumFlags(profile) +
                            QStringList{QStringLiteral("--remote-debugging-port=0"),
                                        QStringLiteral("--window-size=1280,2400"), url});
        m_proc.setStandardErrorFile(QProcess::nullDevice()); // D-Bus chatter
        m_proc.start();
        QByteArray port;
        QElapsedTimer t;
        t.start();
        while (t.elapsed() < 30000 && port.isEmpty()) {
            QFile f(profile + QStringLiteral("/DevToolsActivePort"));
            if (f.open(QIODevice::ReadOnly))
                port = f.readLine().trimmed();
            QTest::qWait(100);
        }
        if (port.isEmpty())
            return false;
        QString ws;
        while (t.elapsed() < 30000 && ws.isEmpty()) {
            const HttpReply r = http(quint16(port.toUInt()), "GET", "/json/list");
            for (const QJsonValue& v : r.json().array())
                if (v.toObject().value("type").toString() == QLatin1String("page"))
                    ws = v.toObject().value("webSocketDebuggerUrl").toString();
            if (ws.isEmpty())
                QTest::qWait(100);
        }
        QObject::connect(&m_ws, &QWebSocket::textMessageReceived, [this](const QString& m) {
            const QJsonObject o = QJsonDocument::fromJson(m.toUtf8()).object();
            if (o.contains("id"))
                m_answers.insert(o.value("id").toInt(), o);
        });
        m_ws.open(QUrl(ws));
        t.restart();
        while (m_ws.state() != QAbstractSocket::ConnectedState && t.elapsed() < 10000)
            QTest::qWait(20);
        return m_ws.state() == QAbstractSocket::ConnectedState;
    }
    ~Browser() {
        m_ws.close();
        m_proc.terminate();
        if (!m_proc.waitForFinished(5000))
            m_proc.kill();
        m_proc.waitForFinished(5000);
    }
    QJsonValue eval(const QString& expression) {
        const int id = ++m_next;
        m_ws.sendTextMessage(QString::fromUtf8(
            QJsonDocument(QJsonObject{{"id", id},
                                      {"method", "Runtime.evaluate"},
                                      {"params", QJsonObject{{"expression", expression},
                                                             {"returnByValue", true},
                                                             {"awaitPromise", true}}}})
                .toJson(QJsonDocument::Compact)));
        QElapsedTimer t;
        t.start();
        while (!m_answers.contains(id) && t.elapsed() < 10000)
            QTest::qWait(20);
        return m_answers.take(id).value("result").toObject().value("result").toObject().value(
            "value");
    }

private:
    QProcess m_proc;
    QWebSocket m_ws;
    QHash<int, QJsonObject> m_answers;
    int m_next = 0;
};

QString statusOf(ServiceProcess& svc, const QString& id) {
    for (const QJsonValue& v : svc.captures())
        if (v.toObject().value("id").toString() == id)
            return v.toObject().value("status").toString();
    return {};
}

} // namespace

class TestServiceDashboard : public QObject {
    Q_OBJECT
    ServiceProcess m_svc;
    QString m_chromium;
    QStringList m_ids;
    QString m_session;

private Q_SLOTS:
    void initTestCase() {
        m_chromium = QStandardPaths::findExecutable(QStringLiteral("chromium"));
        if (m_chromium.isEmpty())
            QSKIP("chromium is not installed (Debian package chromium)");
        QVERIFY(m_svc.start());
        for (int i = 0; i < 2; ++i) {
            m_ids << newId();
            QCOMPARE(m_svc
                         .ingest(makeCapture(m_svc.root(), m_ids.last(),
                                             FixtureOptions::said("the pay button is broken")))
                         .status,
                     200);
        }
        m_session = m_svc.post("/api/sessions", {{"name", "Checkout run"}})
                        .json()
                        .object()
                        .value("id")
                        .toString();
        for (int i = 0; i < 6; ++i) {
            m_ids << newId();
            QCOMPARE(m_svc
                         .ingest(makeCapture(
                             m_svc.root(), m_ids.last(),
                             FixtureOptions::said(QStringLiteral("step %1 looks confusing").arg(i),
                                                  QSize(1280, 800))))
                         .status,
                     200);
        }
        QCOMPARE(m_svc.post("/api/sessions", {{"end", true}}).status, 200);
    }
    void cleanupTestCase() { m_svc.stop(); }

    void listShowsCapturesAndDiscards() {
        QTemporaryDir profile;
        Browser b;
        QVERIFY(b.start(m_chromium, profile.path(),
                        QStringLiteral("http://127.0.0.1:%1/").arg(m_svc.port())));
        QTRY_COMPARE_WITH_TIMEOUT(b.eval("document.querySelectorAll('#caps .cap').length").toInt(),
                                  8, 20000);
        const QString thumbsLoaded =
            "Promise.all([...document.querySelectorAll('#caps img.thumb')].map(i => "
            "i.decode().then("
            "() => i.naturalWidth > 0, () => false))).then(r => r.length > 0 && r.every(Boolean))";
        QCOMPARE(b.eval(thumbsLoaded), QJsonValue(true));
        QVERIFY(b.eval("document.body.innerText").toString().contains("the pay button is broken"));
        QVERIFY(b.eval("document.querySelector('#sessions a').getAttribute('href')")
                    .toString()
                    .endsWith(m_session));

        const QString victim = m_ids.first();
        QCOMPARE(
            b.eval(
                QStringLiteral(
                    "document.querySelector('.cap[data-id=\"%1\"] button.discard').click(), true")
                    .arg(victim)),
            QJsonValue(true));
        QTRY_COMPARE_WITH_TIMEOUT(statusOf(m_svc, victim), QStringLiteral("discarded"), 10000);
        QTRY_COMPARE_WITH_TIMEOUT(b.eval("document.querySelectorAll('#caps .cap').length").toInt(),
                                  7, 10000);
        QCOMPARE(
            b.eval(QStringLiteral("!!document.querySelector('.cap[data-id=\"%1\"]')").arg(victim)),
            QJsonValue(false));

        const QString done = m_ids.at(1);
        b.eval(QStringLiteral("document.querySelector('.cap[data-id=\"%1\"] button.done').click()")
                   .arg(done));
        QTRY_COMPARE_WITH_TIMEOUT(statusOf(m_svc, done), QStringLiteral("done"), 10000);
    }

    void sessionDocumentPrints() {
        QTemporaryDir work;
        const QString pdf = work.path() + QStringLiteral("/doc.pdf");
        QProcess p;
        p.setProgram(m_chromium);
        p.setArguments(
            chromiumFlags(work.path() + QStringLiteral("/profile")) +
            QStringList{
                QStringLiteral("--no-pdf-header-footer"), QStringLiteral("--print-to-pdf=") + pdf,
                QStringLiteral("http://127.0.0.1:%1/api/doc/%2").arg(m_svc.port()).arg(m_session)});
        p.setStandardErrorFile(QProcess::nullDevice());
        p.start();
        QVERIFY(p.waitForFinished(90000));
        QFile f(pdf);
        QVERIFY(f.open(QIODevice::ReadOnly));
        const QByteArray bytes = f.readAll();
        QVERIFY(bytes.startsWith("%PDF"));
        const qsizetype pages = QString::fromLatin1(bytes).count(
            QRegularExpression(QStringLiteral("/Type\\s*/Page[^s]")));
        // Six captures, a few to a page.
        QVERIFY2(pages >= 2 && pages <= 4, qPrintable(QString::number(pages)));
        QVERIFY2(bytes.size() > 40000, "the screenshots are missing from the document");
    }
};

QTEST_GUILESS_MAIN(TestServiceDashboard)
#include "tst_service_dashboard.moc"
