#include "ServiceProcess.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QPainter>
#include <QTcpSocket>
#include <QtTest>

namespace tk::service::test {

HttpReply http(quint16 port, const QByteArray& method, const QByteArray& path,
               const QByteArray& body, const Headers& headers, int timeoutMs) {
    HttpReply reply;
    QTcpSocket s;
    s.connectToHost(QHostAddress::LocalHost, port);
    if (!s.waitForConnected(timeoutMs))
        return reply;
    QByteArray req = method + ' ' + path + " HTTP/1.1\r\n";
    bool hasHost = false;
    for (const auto& h : headers) {
        const bool isHost = h.first.compare("host", Qt::CaseInsensitive) == 0;
        hasHost = hasHost || isHost;
        // A null Host value means: send none at all.
        if (!h.first.isEmpty() && !(isHost && h.second.isNull()))
            req += h.first + ": " + h.second + "\r\n";
    }
    if (!hasHost)
        req += "Host: 127.0.0.1:" + QByteArray::number(port) + "\r\n";
    req += "Connection: close\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n\r\n";
    s.write(req);
    QByteArray raw;
    // Large bodies may be answered before they are sent whole: stop sending then.
    for (qsizetype off = 0;
         off < body.size() && s.state() == QAbstractSocket::ConnectedState && raw.isEmpty();
         off += 64 * 1024) {
        s.write(body.mid(off, 64 * 1024));
        s.waitForBytesWritten(timeoutMs);
        raw += s.readAll();
    }
    const QDeadlineTimer deadline(timeoutMs);
    qint64 want = -1;
    qsizetype headEnd = -1;
    while (!deadline.hasExpired()) {
        if (s.bytesAvailable() == 0 && !s.waitForReadyRead(int(deadline.remainingTime())) &&
            s.state() != QAbstractSocket::ConnectedState) {
            raw += s.readAll();
            break;
        }
        raw += s.readAll();
        if (headEnd < 0) {
            headEnd = raw.indexOf("\r\n\r\n");
            if (headEnd >= 0) {
                const QByteArray lower = raw.left(headEnd).toLower();
                const qsizetype at = lower.indexOf("content-length:");
                if (at >= 0)
                    want = lower.mid(at + 15, lower.indexOf("\r\n", at) - at - 15)
                               .trimmed()
                               .toLongLong();
            }
        }
        if (headEnd >= 0 && want >= 0 && raw.size() >= headEnd + 4 + want)
            break;
    }
    headEnd = raw.indexOf("\r\n\r\n");
    if (headEnd < 0)
        return reply;
    const QList<QByteArray> lines = raw.left(headEnd).split('\n');
    const QList<QByteArray> statusLine = lines.value(0).trimmed().split(' ');
    reply.status = statusLine.value(1).toInt();
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const qsizetype colon = lines[i].indexOf(':');
        if (colon > 0)
            reply.headers.insert(lines[i].left(colon).trimmed().toLower(),
                                 lines[i].mid(colon + 1).trimmed());
    }
    reply.body = raw.mid(headEnd + 4);
    if (want >= 0)
        reply.body.truncate(want);
    return reply;
}

ServiceProcess::ServiceProcess() {
    QDir().mkpath(root());
    QDir().mkpath(crashDir());
}

ServiceProcess::~ServiceProcess() {
    stop();
}

bool ServiceProcess::start(const QStringList& extra) {
    m_proc.setProgram(QStringLiteral(TK_SERVICE_BIN));
    m_proc.setArguments(
        QStringList{QStringLiteral("--port"), QStringLiteral("0"), QStringLiteral("--data-dir"),
                    dataDir(), QStringLiteral("--captures-root"), root(),
                    QStringLiteral("--crash-dir"), crashDir(), QStringLiteral("--integrations"),
                    integrationsFile(), QStringLiteral("--busy-timeout-ms"), QStringLiteral("300"),
                    QStringLiteral("--webhook-backoff-ms"), QStringLiteral("200")} +
        extra);
    m_proc.setProcessChannelMode(QProcess::SeparateChannels);
    m_proc.start();
    if (!m_proc.waitForStarted(10000))
        return false;
    QByteArray out;
    const QDeadlineTimer deadline(20000);
    while (!deadline.hasExpired() && !out.contains('\n')) {
        if (!m_proc.waitForReadyRead(int(deadline.remainingTime())))
            break;
        out += m_proc.readAllStandardOutput();
    }
    const qsizetype at = out.lastIndexOf(':');
    m_port = quint16(out.mid(at + 1).split('/').value(0).toUInt());
    if (m_port == 0)
        qWarning() << "service did not start:" << out << m_proc.readAllStandardError();
    return m_port != 0;
}

void ServiceProcess::stop() {
    if (m_proc.state() == QProcess::NotRunning)
        return;
    m_proc.terminate();
    if (!m_proc.waitForFinished(15000)) {
        m_proc.kill();
        m_proc.waitForFinished(5000);
    }
    m_log += m_proc.readAllStandardError();
    m_port = 0;
}

HttpReply ServiceProcess::post(const QByteArray& path, const QJsonObject& body, bool declareJson) {
    Headers h;
    if (declareJson)
        h.append(qMakePair(QByteArray("Content-Type"), QByteArray("application/json")));
    return http(m_port, "POST", path, QJsonDocument(body).toJson(QJsonDocument::Compact), h);
}

HttpReply ServiceProcess::ingest(const QString& dir) {
    return post("/api/ingest", QJsonObject{{QStringLiteral("dir"), dir}});
}

QJsonArray ServiceProcess::captures() {
    return get("/api/captures").json().array();
}

CaptureContext sampleContext(const QString& id, const FixtureOptions& o) {
    CaptureContext c;
    c.id = id;
    c.startedAt = o.startedAt;
    c.endedAt = o.startedAt;
    c.displayScale = 1.0;
    c.app = {QStringLiteral("org.example.Notes"), QStringLiteral("Notes")};
    c.window.title = QStringLiteral("Checkout");
    c.pointer.downAt = {95, 95};
    c.pointer.path = {{95, 95, 0}, {185, 95, 0.1}, {185, 135, 0.2}, {95, 135, 0.3}, {96, 96, 0.4}};
    c.ax.permission = QStringLiteral("granted");
    if (o.withElement) {
        const AxElement button{
            QStringLiteral("push button"), QStringLiteral("Pay"), {}, 100, 100, 80, 30};
        c.ax.atPoint = {button,
                        {QStringLiteral("panel"), {}, {}, 0, 50, 600, 400},
                        {QStringLiteral("frame"), QStringLiteral("Checkout"), {}, 0, 0, 640, 400}};
        c.ax.lassoAncestor = button;
    }
    c.audioLevels = std::vector<double>{0.1, 0.4, 0.8, 0.3, 0.05};
    return c;
}

QString makeCapture(const QString& root, const QString& id, const FixtureOptions& o) {
    const QString dir = root + QLatin1Char('/') + id;
    QDir().mkpath(dir);
    if (!o.shot.isEmpty()) {
        QImage img(o.shot, QImage::Format_RGB32);
        img.fill(QColor(230, 236, 245));
        QPainter p(&img);
        p.fillRect(QRect(100, 100, 80, 30), QColor(40, 110, 220));
        p.end();
        img.save(dir + QStringLiteral("/shot.png"));
    }
    QFile f(dir + QStringLiteral("/context.json"));
    if (f.open(QIODevice::WriteOnly))
        f.write(encodeContext(sampleContext(id, o)).value_or(QByteArray()));
    f.close();
    if (!o.transcript.isEmpty()) {
        QFile t(dir + QStringLiteral("/transcript.txt"));
        if (t.open(QIODevice::WriteOnly))
            t.write(o.transcript.toUtf8());
    }
    return dir;
}

} // namespace tk::service::test
