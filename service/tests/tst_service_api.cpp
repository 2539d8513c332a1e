#include "ServiceProcess.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTcpSocket>
#include <QUuid>
#include <QtConcurrent/QtConcurrentMap>
#include <QtTest>

using namespace tk::service::test;

namespace {

QString newId() {
    return QUuid::createUuid().toString(QUuid::WithoutBraces);
}

QJsonObject findCap(const QJsonArray& list, const QString& id) {
    for (const QJsonValue& v : list)
        if (v.toObject().value(QLatin1String("id")).toString() == id)
            return v.toObject();
    return {};
}

QJsonObject pipelineOf(const QJsonObject& cap) {
    return QJsonDocument::fromJson(cap.value(QLatin1String("pipeline")).toString().toUtf8())
        .object();
}

} // namespace

class TestServiceApi : public QObject {
    Q_OBJECT
    ServiceProcess m_svc;

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_svc.start()); }
    void cleanupTestCase() { m_svc.stop(); }

    void host_data() {
        QTest::addColumn<QByteArray>("host");
        QTest::addColumn<int>("status");
        const QByteArray p = QByteArray::number(m_svc.port());
        QTest::newRow("loopback") << QByteArray("127.0.0.1:" + p) << 200;
        QTest::newRow("localhost") << QByteArray("localhost:" + p) << 200;
        QTest::newRow("localhost upper case") << QByteArray("LocalHost:" + p) << 200;
        QTest::newRow("rebinding name") << QByteArray("attacker.example:" + p) << 403;
        QTest::newRow("no port") << QByteArray("127.0.0.1") << 403;
        QTest::newRow("other port") << QByteArray("127.0.0.1:1" + p) << 403;
        QTest::newRow("empty") << QByteArray("") << 403;
        QTest::newRow("absent") << QByteArray() << 403;
    }
    void host() {
        QFETCH(QByteArray, host);
        QFETCH(int, status);
        const HttpReply r = http(m_svc.port(), "GET", "/api/health", {}, {{"Host", host}});
        QCOMPARE(r.status, status);
        if (status == 200) {
            QCOMPARE(r.json().object().value("ok"), QJsonValue(true));
            QVERIFY(r.json().object().value("awaiting").isBool());
        }
    }

    void origin_data() {
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<int>("status");
        const QByteArray p = QByteArray::number(m_svc.port());
        QTest::newRow("no origin") << QByteArray() << QByteArray() << 200;
        QTest::newRow("same origin") << QByteArray("Origin") << "http://127.0.0.1:" + p << 200;
        QTest::newRow("same origin by name")
            << QByteArray("Origin") << "http://localhost:" + p << 200;
        QTest::newRow("other site")
            << QByteArray("Origin") << QByteArray("http://evil.example") << 403;
        QTest::newRow("other port")
            << QByteArray("Origin") << QByteArray("http://127.0.0.1:8080") << 403;
        QTest::newRow("opaque origin") << QByteArray("Origin") << QByteArray("null") << 403;
        QTest::newRow("fetch metadata")
            << QByteArray("Sec-Fetch-Site") << QByteArray("cross-site") << 403;
    }
    void origin() {
        QFETCH(QByteArray, name);
        QFETCH(QByteArray, value);
        QFETCH(int, status);
        Headers h;
        if (!name.isEmpty())
            h.append(qMakePair(name, value));
        const HttpReply r = http(m_svc.port(), "POST", "/api/sessions", R"({"end": true})", h);
        QCOMPARE(r.status, status);
        // A refused request changes nothing: reading is still allowed.
        QCOMPARE(http(m_svc.port(), "GET", "/api/sessions", {}, h).status, 200);
    }

    void ingestAnswers_data() {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("reason"); // empty: ingested
        QTest::newRow("capture") << "good" << 200 << "";
        QTest::newRow("capture without screenshot") << "noshot" << 200 << "";
        QTest::newRow("missing folder") << "missing" << 200 << "missing folder";
        QTest::newRow("no context record") << "nocontext" << 200 << "no context record";
        QTest::newRow("context not JSON") << "badcontext" << 200 << "no context record";
        QTest::newRow("context missing keys") << "partialcontext" << 200 << "no context record";
        QTest::newRow("outside the root") << "outside" << 200 << "outside the captures root";
        QTest::newRow("dot-dot out of the root") << "dotdot" << 200 << "outside the captures root";
        QTest::newRow("link out of the root") << "symlink" << 200 << "outside the captures root";
        QTest::newRow("relative path") << "relative" << 200 << "outside the captures root";
        QTest::newRow("the root itself") << "root" << 200 << "outside the captures root";
        QTest::newRow("nested folder") << "nested" << 200 << "outside the captures root";
        QTest::newRow("invalid JSON") << "invalidjson" << 400 << "";
        QTest::newRow("no dir key") << "nodir" << 400 << "";
        QTest::newRow("dir not text") << "dirnumber" << 400 << "";
        QTest::newRow("empty body") << "empty" << 400 << "";
    }
    void ingestAnswers() {
        QFETCH(QString, kind);
        QFETCH(int, status);
        QFETCH(QString, reason);
        const QString id = newId();
        const QString root = m_svc.root();
        QByteArray body;
        QString dir = root + QLatin1Char('/') + id;
        if (kind == QLatin1String("good")) {
            makeCapture(root, id);
        } else if (kind == QLatin1String("noshot")) {
            makeCapture(root, id, FixtureOptions::shotOf(QSize()));
        } else if (kind == QLatin1String("nocontext")) {
            makeCapture(root, id);
            QFile::remove(dir + "/context.json");
        } else if (kind == QLatin1String("badcontext") || kind == QLatin1String("partialcontext")) {
            makeCapture(root, id);
            QFile f(dir + "/context.json");
            QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
            f.write(kind == QLatin1String("badcontext") ? "{not json" : R"({"id": "x"})");
        } else if (kind == QLatin1String("outside")) {
            const QString other = m_svc.tempPath() + "/elsewhere/" + id;
            makeCapture(m_svc.tempPath() + "/elsewhere", id);
            dir = other;
        } else if (kind == QLatin1String("dotdot")) {
            makeCapture(m_svc.tempPath() + "/elsewhere", id);
            dir = root + "/../elsewhere/" + id;
        } else if (kind == QLatin1String("symlink")) {
            makeCapture(m_svc.tempPath() + "/elsewhere", id);
            QVERIFY(QFile::link(m_svc.tempPath() + "/elsewhere/" + id, dir));
        } else if (kind == QLatin1String("relative")) {
            dir = "TolmeskCaptures/" + id;
        } else if (kind == QLatin1String("root")) {
            dir = root;
        } else if (kind == QLatin1String("nested")) {
            makeCapture(root + "/" + id, id);
            dir = root + "/" + id + "/" + id;
        }
        if (kind == QLatin1String("invalidjson"))
            body = "{\"dir\": ";
        else if (kind == QLatin1String("nodir"))
            body = R"({"folder": "/tmp"})";
        else if (kind == QLatin1String("dirnumber"))
            body = R"({"dir": 42})";
        else if (kind != QLatin1String("empty"))
            body = QJsonDocument(QJsonObject{{"dir", dir}}).toJson();
        const HttpReply r =
            http(m_svc.port(), "POST", "/api/ingest", body, {{"Content-Type", "application/json"}});
        QCOMPARE(r.status, status);
        const QJsonObject o = r.json().object();
        const QJsonObject listed = findCap(m_svc.captures(), id);
        if (status != 200) {
            QVERIFY(o.value("error").isString());
            return;
        }
        if (reason.isEmpty()) {
            QCOMPARE(o.value("ingested"), QJsonValue(true));
            QCOMPARE(listed.value("id").toString(), id);
            const int thumb = m_svc.get("/thumb/" + id.toUtf8()).status;
            QCOMPARE(thumb, kind == QLatin1String("noshot") ? 404 : 200);
        } else {
            QCOMPARE(o.value("ingested"), QJsonValue(false));
            QCOMPARE(o.value("reason").toString(), reason);
            QVERIFY(listed.isEmpty());
        }
    }

    void capRecord() {
        const QString id = newId();
        const QString dir = makeCapture(
            m_svc.root(), id, FixtureOptions::said("this button does nothing when I click it"));
        QCOMPARE(m_svc.ingest(dir).status, 200);
        const QJsonObject c = findCap(m_svc.captures(), id);
        QCOMPARE(c.value("dir").toString(), dir);
        QCOMPARE(c.value("ts").toString(), QStringLiteral("2026-03-01T09:15:02Z"));
        QCOMPARE(c.value("app").toString(), QStringLiteral("Notes"));
        QCOMPARE(c.value("title").toString(), QStringLiteral("Checkout"));
        QCOMPARE(c.value("transcript").toString(),
                 QStringLiteral("this button does nothing when I click it"));
        QCOMPARE(c.value("type").toString(), QStringLiteral("bug"));
        QCOMPARE(c.value("severity").toString(), QStringLiteral("high"));
        QCOMPARE(c.value("status").toString(), QStringLiteral("inbox"));
        QVERIFY(c.value("element_path").toString().endsWith("push button[Pay]"));
        const double conf = c.value("confidence").toDouble(-1);
        QVERIFY2(conf > 0.5 && conf <= 1.0, qPrintable(QString::number(conf)));
        QVERIFY(QFileInfo(c.value("annotated").toString()).isFile());
        const QJsonObject p = pipelineOf(c);
        QCOMPARE(p.value("candidates").toArray().first().toString(),
                 c.value("element_path").toString());
        QVERIFY(p.value("candidates").toArray().size() >= 2);
        QCOMPARE(p.value("levels").toObject().value("v").toArray().size(), 5);
        QCOMPARE(p.value("webhook").toObject().value("configured").toInt(-1), 0);
        QVERIFY(p.value("webhook").toObject().value("delivered").isArray());

        const HttpReply thumb = m_svc.get("/thumb/" + id.toUtf8());
        QCOMPARE(thumb.status, 200);
        QCOMPARE(thumb.headers.value("content-type"), QByteArray("image/jpeg"));
        const QImage img = QImage::fromData(thumb.body);
        QVERIFY(!img.isNull());
        QVERIFY(img.width() <= 480 && img.height() <= 300);
        // The annotation drew the lasso in red on the screenshot.
        const QImage ann(c.value("annotated").toString());
        QVERIFY(!ann.isNull());
        const QColor onTrail = ann.pixelColor(140, 95);
        QVERIFY2(onTrail.red() > 180 && onTrail.green() < 120, qPrintable(onTrail.name()));
    }

    void newestFirst() {
        const QString older = newId(), newer = newId();
        QCOMPARE(m_svc
                     .ingest(makeCapture(m_svc.root(), newer,
                                         FixtureOptions::at("2030-01-02T00:00:00Z")))
                     .status,
                 200);
        QCOMPARE(m_svc
                     .ingest(makeCapture(m_svc.root(), older,
                                         FixtureOptions::at("2030-01-01T00:00:00Z")))
                     .status,
                 200);
        const QJsonArray list = m_svc.captures();
        QCOMPARE(list.at(0).toObject().value("id").toString(), newer);
        QCOMPARE(list.at(1).toObject().value("id").toString(), older);
        QCOMPARE(m_svc.get("/api/captures?limit=1").json().array().size(), 1);
        QCOMPARE(m_svc.get("/api/captures?limit=x").status, 400);
    }

    void reingestUpdates() {
        const QString id = newId();
        const QString dir = makeCapture(m_svc.root(), id);
        HttpReply r = m_svc.ingest(dir);
        QCOMPARE(r.json().object().value("created"), QJsonValue(true));
        QJsonObject c = findCap(m_svc.captures(), id);
        QVERIFY(!c.contains("transcript"));
        QVERIFY(!c.contains("type"));
        QCOMPARE(m_svc.post("/api/captures/" + id.toUtf8(), {{"status", "done"}}).status, 200);

        QFile t(dir + "/transcript.txt");
        QVERIFY(t.open(QIODevice::WriteOnly));
        t.write("I love how smooth this is");
        t.close();
        r = m_svc.ingest(dir);
        QCOMPARE(r.status, 200);
        QCOMPARE(r.json().object().value("created"), QJsonValue(false));
        const QJsonArray list = m_svc.captures();
        int copies = 0;
        for (const QJsonValue& v : list)
            copies += v.toObject().value("id").toString() == id;
        QCOMPARE(copies, 1);
        c = findCap(list, id);
        QCOMPARE(c.value("transcript").toString(), QStringLiteral("I love how smooth this is"));
        QCOMPARE(c.value("type").toString(), QStringLiteral("praise"));
        QCOMPARE(c.value("status").toString(), QStringLiteral("done")); // kept
    }

    void updateCapture_data() {
        QTest::addColumn<QByteArray>("id");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("key");
        QTest::addColumn<QJsonValue>("value");
        QTest::newRow("confirm element")
            << QByteArray() << QByteArray(R"({"element_path": "frame/panel", "confidence": 1})")
            << 200 << "element_path" << QJsonValue("frame/panel");
        QTest::newRow("confirm sets confidence")
            << QByteArray() << QByteArray(R"({"element_path": "frame/panel", "confidence": 1})")
            << 200 << "confidence" << QJsonValue(1.0);
        QTest::newRow("mark done") << QByteArray() << QByteArray(R"({"status": "done"})") << 200
                                   << "status" << QJsonValue("done");
        QTest::newRow("discard") << QByteArray() << QByteArray(R"({"status": "discarded"})") << 200
                                 << "status" << QJsonValue("discarded");
        QTest::newRow("unknown status") << QByteArray() << QByteArray(R"({"status": "gone"})")
                                        << 400 << "status" << QJsonValue("inbox");
        QTest::newRow("status not text") << QByteArray() << QByteArray(R"({"status": 3})") << 400
                                         << "status" << QJsonValue("inbox");
        QTest::newRow("confidence above 1")
            << QByteArray() << QByteArray(R"({"element_path": "a", "confidence": 2})") << 400
            << "confidence" << QJsonValue();
        QTest::newRow("empty path")
            << QByteArray() << QByteArray(R"({"element_path": "", "confidence": 1})") << 400
            << "confidence" << QJsonValue();
        QTest::newRow("no known key") << QByteArray() << QByteArray(R"({"colour": "red"})") << 400
                                      << "status" << QJsonValue("inbox");
        QTest::newRow("invalid JSON")
            << QByteArray() << QByteArray("{{") << 400 << "status" << QJsonValue("inbox");
        QTest::newRow("array body")
            << QByteArray() << QByteArray("[]") << 400 << "status" << QJsonValue("inbox");
        QTest::newRow("unknown id")
            << QByteArray("0000aaaa-0000-0000-0000-000000000000")
            << QByteArray(R"({"status": "done"})") << 404 << "" << QJsonValue();
        QTest::newRow("traversal id")
            << QByteArray("..%2F..%2Fetc%2Fpasswd") << QByteArray(R"({"status": "done"})") << 404
            << "" << QJsonValue();
        QTest::newRow("dot-dot id")
            << QByteArray("..") << QByteArray(R"({"status": "done"})") << 404 << "" << QJsonValue();
    }
    void updateCapture() {
        QFETCH(QByteArray, id);
        QFETCH(QByteArray, body);
        QFETCH(int, status);
        QFETCH(QString, key);
        QFETCH(QJsonValue, value);
        const QString fresh = newId();
        QCOMPARE(m_svc.ingest(makeCapture(m_svc.root(), fresh)).status, 200);
        const QByteArray target = id.isEmpty() ? fresh.toUtf8() : id;
        const HttpReply r = http(m_svc.port(), "POST", "/api/captures/" + target, body,
                                 {{"Content-Type", "application/json"}});
        QCOMPARE(r.status, status);
        if (key.isEmpty())
            return;
        const QJsonObject c = findCap(m_svc.captures(), fresh);
        if (value.isUndefined() || value.isNull())
            QVERIFY(c.value(key).toDouble() < 1.0);
        else
            QCOMPARE(c.value(key), value);
    }

    void confirmedElementSurvivesReingest() {
        const QString id = newId();
        const QString dir = makeCapture(m_svc.root(), id);
        QCOMPARE(m_svc.ingest(dir).status, 200);
        QCOMPARE(m_svc
                     .post("/api/captures/" + id.toUtf8(),
                           {{"element_path", "frame[Checkout]/panel"}, {"confidence", 1}})
                     .status,
                 200);
        QCOMPARE(m_svc.ingest(dir).status, 200);
        const QJsonObject c = findCap(m_svc.captures(), id);
        QCOMPARE(c.value("element_path").toString(), QStringLiteral("frame[Checkout]/panel"));
        QCOMPARE(c.value("confidence").toDouble(), 1.0);
    }

    void badRequests_data() {
        QTest::addColumn<QByteArray>("method");
        QTest::addColumn<QByteArray>("path");
        QTest::addColumn<int>("bodyBytes");
        QTest::addColumn<int>("status");
        QTest::newRow("unknown path")
            << QByteArray("GET") << QByteArray("/api/nothing") << 0 << 404;
        QTest::newRow("PUT") << QByteArray("PUT") << QByteArray("/api/captures") << 0 << 405;
        QTest::newRow("DELETE") << QByteArray("DELETE") << QByteArray("/api/sessions") << 0 << 405;
        QTest::newRow("POST to health")
            << QByteArray("POST") << QByteArray("/api/health") << 2 << 405;
        QTest::newRow("thumb of unknown id")
            << QByteArray("GET") << QByteArray("/thumb/abc") << 0 << 404;
        QTest::newRow("thumb traversal")
            << QByteArray("GET") << QByteArray("/thumb/..%2Fcaptures.db") << 0 << 404;
        QTest::newRow("thumb dot-dot")
            << QByteArray("GET") << QByteArray("/thumb/../captures.db") << 0 << 404;
        QTest::newRow("doc of unknown session")
            << QByteArray("GET") << QByteArray("/api/doc/nope") << 0 << 404;
        QTest::newRow("doc traversal")
            << QByteArray("GET") << QByteArray("/api/doc/..%2F..%2Fetc") << 0 << 404;
        QTest::newRow("static traversal")
            << QByteArray("GET") << QByteArray("/static/..%2Fdashboard.html") << 0 << 404;
        QTest::newRow("body just over 1 MiB")
            << QByteArray("POST") << QByteArray("/api/sessions") << (1 << 20) + 10 << 413;
        QTest::newRow("huge body")
            << QByteArray("POST") << QByteArray("/api/ingest") << (8 << 20) << 413;
    }
    void badRequests() {
        QFETCH(QByteArray, method);
        QFETCH(QByteArray, path);
        QFETCH(int, bodyBytes);
        QFETCH(int, status);
        const QByteArray body(bodyBytes, ' ');
        QCOMPARE(http(m_svc.port(), method, path, body).status, status);
        QCOMPARE(m_svc.get("/api/health").status, 200); // still serving
    }

    void sessions() {
        // Without Content-Type, as the menu sends it.
        HttpReply r = m_svc.post("/api/sessions", {{"name", "Run 1"}}, false);
        QCOMPARE(r.status, 200);
        const QString first = r.json().object().value("id").toString();
        QVERIFY(!first.isEmpty());
        const QString inFirst = newId();
        QCOMPARE(m_svc
                     .ingest(makeCapture(m_svc.root(), inFirst,
                                         FixtureOptions::said("why is this greyed out?")))
                     .status,
                 200);

        r = m_svc.post("/api/sessions", {{"name", ""}}, true);
        QCOMPARE(r.status, 200);
        QCOMPARE(r.json().object().value("name").toString(), QStringLiteral("Session"));
        QJsonArray list = m_svc.get("/api/sessions").json().array();
        QCOMPARE(list.at(0).toObject().value("ended_at"), QJsonValue(QJsonValue::Null));
        QCOMPARE(list.at(1).toObject().value("id").toString(), first);
        QVERIFY(list.at(1).toObject().value("ended_at").isString()); // starting ended it
        QCOMPARE(list.at(1).toObject().value("count").toInt(), 1);

        QCOMPARE(m_svc.post("/api/sessions", {{"end", true}}, false).status, 200);
        list = m_svc.get("/api/sessions").json().array();
        for (const QJsonValue& s : list)
            QVERIFY(s.toObject().value("ended_at").isString());
        QCOMPARE(m_svc.post("/api/sessions", {{"end", true}}).json().object().value("ended"),
                 QJsonValue(QJsonValue::Null));
        QCOMPARE(m_svc.post("/api/sessions", {{"name", 5}}).status, 400);
        QCOMPARE(m_svc.post("/api/sessions", {}).status, 400);

        // A capture after the end belongs to no session.
        const QString after = newId();
        QCOMPARE(m_svc.ingest(makeCapture(m_svc.root(), after)).status, 200);
        const HttpReply doc = m_svc.get("/api/doc/" + first.toUtf8());
        QCOMPARE(doc.status, 200);
        QVERIFY(doc.headers.value("content-type").startsWith("text/html"));
        QVERIFY(doc.body.contains("Run 1"));
        QVERIFY(doc.body.contains("why is this greyed out?"));
        QVERIFY(doc.body.contains("/annotated/" + inFirst.toUtf8()));
        QVERIFY(!doc.body.contains(after.toUtf8()));
        QCOMPARE(m_svc.get("/api/captures?session=" + first.toUtf8()).json().array().size(), 1);
    }

    void docEscapesText() {
        QCOMPARE(m_svc.post("/api/sessions", {{"name", "<script>alert(1)</script>"}}).status, 200);
        const QString id = newId();
        QCOMPARE(m_svc
                     .ingest(makeCapture(m_svc.root(), id,
                                         FixtureOptions::said("<img src=x onerror=alert(2)>")))
                     .status,
                 200);
        const QString sid =
            m_svc.get("/api/sessions").json().array().at(0).toObject().value("id").toString();
        const HttpReply doc = m_svc.get("/api/doc/" + sid.toUtf8());
        QVERIFY(!doc.body.contains("<script>alert"));
        QVERIFY(!doc.body.contains("<img src=x"));
        QVERIFY(doc.body.contains("&lt;img src=x"));
        QVERIFY(doc.headers.value("content-security-policy").contains("default-src 'self'"));
        QCOMPARE(m_svc.post("/api/sessions", {{"end", true}}).status, 200);
    }

    void crash() {
        const QString dir = m_svc.crashDir();
        QFile a(dir + "/Tolmesk-2026-03-01-091502.crash");
        QVERIFY(a.open(QIODevice::WriteOnly));
        a.write("signal 11 (SIGSEGV)\nbacktrace:\n#0 0x1234 tk::boom\nversion 0.1.0\n");
        a.close();
        QFile secret(m_svc.tempPath() + "/secret.txt");
        QVERIFY(secret.open(QIODevice::WriteOnly));
        secret.write("do not read");
        secret.close();
        QVERIFY(QFile::link(secret.fileName(), dir + "/Tolmesk-link.crash"));
        const HttpReply r =
            m_svc.post("/api/crash",
                       {{"reports", QJsonArray{"Tolmesk-2026-03-01-091502.crash", "../secret.txt",
                                               "/etc/passwd", "Tolmesk-missing.crash",
                                               "Tolmesk-link.crash", 7}}});
        QCOMPARE(r.status, 200);
        QCOMPARE(r.json().object().value("stored").toArray(),
                 QJsonArray{"Tolmesk-2026-03-01-091502.crash"});
        QCOMPARE(r.json().object().value("skipped").toArray().size(), 5);
        const QJsonArray list = m_svc.get("/api/crash").json().array();
        QCOMPARE(list.size(), 1);
        QVERIFY(list.at(0).toObject().value("text").toString().contains("SIGSEGV"));
        QCOMPARE(m_svc.post("/api/crash", {{"reports", "x"}}).status, 400);
        QCOMPARE(http(m_svc.port(), "POST", "/api/crash", "nope").status, 400);
    }

    void integrations() {
        QFile f(m_svc.integrationsFile());
        QVERIFY(f.open(QIODevice::WriteOnly));
        const auto hook = [](const char* id, const char* name, const char* url, bool on) {
            QJsonObject o{{"id", id}, {"name", name}, {"enabled", on}};
            if (url)
                o.insert("url", url);
            return o;
        };
        f.write(QJsonDocument(QJsonArray{hook("a", "Tracker",
                                              "http:"
                                              "//127.0.0.1:9/hook",
                                              false),
                                         hook("b", "Chat",
                                              "https:"
                                              "//chat.example/hook",
                                              true),
                                         hook("c", "No url", nullptr, true),
                                         hook("d", "File",
                                              "file:"
                                              "///etc/passwd",
                                              true)})
                    .toJson());
        f.close();
        QJsonArray list = m_svc.get("/api/integrations").json().array();
        QCOMPARE(list.size(), 2);
        QCOMPARE(list.at(0).toObject().keys(), (QStringList{"enabled", "id", "name", "url"}));
        // Toggled without a Content-Type, as the settings window does.
        HttpReply r = m_svc.post("/api/integrations", {{"id", "a"}, {"enabled", true}}, false);
        QCOMPARE(r.status, 200);
        QCOMPARE(r.json().array().at(0).toObject().value("enabled"), QJsonValue(true));
        QCOMPARE(m_svc.post("/api/integrations", {{"id", "zz"}, {"enabled", true}}).status, 404);
        QCOMPARE(m_svc.post("/api/integrations", {{"id", "a"}, {"enabled", "yes"}}).status, 400);
        list = m_svc.get("/api/integrations").json().array();
        QCOMPARE(list.at(0).toObject().value("enabled"), QJsonValue(true));
        // Switch both off again so later ingests deliver nowhere.
        QCOMPARE(m_svc.post("/api/integrations", {{"id", "a"}, {"enabled", false}}).status, 200);
        QCOMPARE(m_svc.post("/api/integrations", {{"id", "b"}, {"enabled", false}}).status, 200);
        QVERIFY(QFile(m_svc.integrationsFile()).open(QIODevice::ReadOnly));
    }

    void concurrentIngests() {
        QStringList dirs;
        for (int i = 0; i < 50; ++i)
            dirs << makeCapture(m_svc.root(), newId(),
                                FixtureOptions::said("it crashes", QSize(1280, 800)));
        const QString repeated = makeCapture(m_svc.root(), newId());
        QStringList all = dirs;
        for (int i = 0; i < 20; ++i)
            all.insert(i * 3, repeated);
        const int before = m_svc.captures().size();
        const quint16 port = m_svc.port();
        QThreadPool pool;
        pool.setMaxThreadCount(24);
        const QList<int> codes = QtConcurrent::blockingMapped(&pool, all, [port](const QString& d) {
            return http(port, "POST", "/api/ingest",
                        QJsonDocument(QJsonObject{{"dir", d}}).toJson(), {}, 60000)
                .status;
        });
        QCOMPARE(codes.count(200), all.size());
        const QJsonArray list = m_svc.captures();
        QCOMPARE(list.size(), before + 51);
        QSet<QString> ids;
        for (const QJsonValue& v : list)
            ids.insert(v.toObject().value("id").toString());
        QCOMPARE(ids.size(), list.size());
        for (const QString& d : dirs)
            QVERIFY(ids.contains(QFileInfo(d).fileName()));
    }

    void awaitingWhileProcessing() {
        const QString dir =
            makeCapture(m_svc.root(), newId(), FixtureOptions::shotOf(QSize(3840, 2160)));
        QTcpSocket s;
        s.connectToHost(QHostAddress::LocalHost, m_svc.port());
        QVERIFY(s.waitForConnected(5000));
        const QByteArray body = QJsonDocument(QJsonObject{{"dir", dir}}).toJson();
        s.write("POST /api/ingest HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(m_svc.port()) +
                "\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body);
        QVERIFY(s.waitForBytesWritten(5000));
        bool sawAwaiting = false;
        for (int i = 0; i < 200 && !sawAwaiting && s.bytesAvailable() == 0; ++i) {
            sawAwaiting = m_svc.get("/api/health").json().object().value("awaiting").toBool();
            s.waitForReadyRead(5);
        }
        QVERIFY(sawAwaiting);
        QVERIFY(s.waitForReadyRead(30000) || s.bytesAvailable() > 0);
        QVERIFY(s.readAll().startsWith("HTTP/1.1 200"));
        QCOMPARE(m_svc.get("/api/health").json().object().value("awaiting"), QJsonValue(false));
    }

    void busyDatabaseIs503() {
        const QString id = newId();
        const QString dir = makeCapture(m_svc.root(), id);
        {
            QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "locker");
            db.setDatabaseName(m_svc.dataDir() + "/captures.db");
            QVERIFY(db.open());
            QSqlQuery q(db);
            QVERIFY(q.exec("BEGIN EXCLUSIVE"));
            QCOMPARE(m_svc.ingest(dir).status, 503);
            QVERIFY(findCap(m_svc.captures(), id).isEmpty());
            QVERIFY(q.exec("ROLLBACK"));
            db.close();
        }
        QSqlDatabase::removeDatabase("locker");
        QCOMPARE(m_svc.ingest(dir).status, 200);
        QCOMPARE(findCap(m_svc.captures(), id).value("id").toString(), id);
    }

    void restartKeepsEverything() {
        const QByteArray caps = m_svc.get("/api/captures").body;
        const QByteArray sessions = m_svc.get("/api/sessions").body;
        const QByteArray crashes = m_svc.get("/api/crash").body;
        const QString someId = m_svc.captures().at(0).toObject().value("id").toString();
        const QByteArray thumb = m_svc.get("/thumb/" + someId.toUtf8()).body;
        m_svc.stop();
        QVERIFY(m_svc.start());
        QCOMPARE(m_svc.get("/api/captures").body, caps);
        QCOMPARE(m_svc.get("/api/sessions").body, sessions);
        QCOMPARE(m_svc.get("/api/crash").body, crashes);
        QCOMPARE(m_svc.get("/thumb/" + someId.toUtf8()).body, thumb);
    }

    void portInUseFailsClearly() {
        ServiceProcess second;
        QVERIFY(!second.start({"--port", QString::number(m_svc.port())}));
    }
};

QTEST_GUILESS_MAIN(TestServiceApi)
#include "tst_service_api.moc"
