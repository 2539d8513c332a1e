// The app and the bundled tolmesk-service together: a spoken gesture ends up
// in the service's list with its transcript and thumbnail.
#include "support/DesktopHarness.h"

#include <QDir>
#include <QEventLoop>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QRegularExpression>
#include <QTest>
#include <QTimer>

using tk::test::DesktopHarness;

namespace {

struct Reply {
    int status = 0;
    QByteArray type;
    QByteArray body;
};

Reply get(const QString& path) {
    QNetworkAccessManager nam;
    QNetworkReply* r = nam.get(QNetworkRequest(QUrl("http://127.0.0.1:3402" + path)));
    QEventLoop loop;
    QObject::connect(r, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QTimer::singleShot(10000, &loop, &QEventLoop::quit);
    loop.exec();
    Reply out;
    out.status = r->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    out.type = r->header(QNetworkRequest::ContentTypeHeader).toByteArray();
    out.body = r->readAll();
    delete r;
    return out;
}

QJsonObject listed(const QString& id) {
    for (const QJsonValue& v : QJsonDocument::fromJson(get("/api/captures").body).array())
        if (v.toObject()["id"].toString() == id)
            return v.toObject();
    return {};
}

} // namespace

class TestServiceCapture : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void cleanup() {
        if (QTest::currentTestFailed())
            qWarning().noquote() << m_desk.appLog() << m_service->readAll();
    }
    void spokenGestureIsListed();

private:
    DesktopHarness m_desk;
    QProcess* m_service = nullptr;
};

void TestServiceCapture::initTestCase() {
    const QString service = QStringLiteral(TK_BIN_DIR "/tolmesk-service");
    if (!QFileInfo(service).isExecutable())
        QSKIP("tolmesk-service is not built");
    QVERIFY(m_desk.startX());
    QVERIFY(m_desk.startSound());
    const QString home = m_desk.home();
    QDir().mkpath(home + "/TolmeskCaptures");
    m_service = m_desk.spawn(service, {"--data-dir", home + "/service", "--captures-root",
                                       home + "/TolmeskCaptures", "--crash-dir", home + "/crash"});
    QByteArray out;
    QDeadlineTimer deadline(20000);
    while (!out.contains("listening") && !deadline.hasExpired())
        if (m_service->waitForReadyRead(200))
            out += m_service->readAll();
    QVERIFY2(out.contains("listening on http://127.0.0.1:3402/"), out.constData());
    QVERIFY(m_desk.startApp());
}

void TestServiceCapture::spokenGestureIsListed() {
    const QString wav = m_desk.speech("pay", "the pay button does nothing when I click it");
    QVERIFY(!wav.isEmpty());
    const int before = m_desk.captureFolders().size();
    m_desk.holdHotkey(3500, wav);
    QVERIFY(m_desk.waitForCaptures(before + 1));
    const QString dir = m_desk.captureFolders().last();
    const QString id = QFileInfo(dir).fileName();

    QTRY_VERIFY_WITH_TIMEOUT(!listed(id).isEmpty(), 20000);
    QCOMPARE(listed(id)["dir"].toString(), dir);
    const Reply thumb = get("/thumb/" + id);
    QCOMPARE(thumb.status, 200);
    QVERIFY(thumb.type.startsWith("image/"));
    QVERIFY(thumb.body.startsWith("\xff\xd8") || thumb.body.startsWith("\x89PNG"));

    // The transcript comes with the second hand-off.
    QTRY_VERIFY_WITH_TIMEOUT(!listed(id)["transcript"].toString().isEmpty(), 60000);
    const QString heard = listed(id)["transcript"].toString().toLower();
    const QStringList words = heard.split(QRegularExpression("[^a-z']+"), Qt::SkipEmptyParts);
    int found = 0;
    for (const char* w : {"pay", "button", "nothing", "click"})
        found += words.contains(QLatin1String(w));
    QVERIFY2(found >= 1, qPrintable(heard));
    QCOMPARE(get("/api/health").status, 200);
}

QTEST_GUILESS_MAIN(TestServiceCapture)
#include "tst_service_capture.moc"
