#include "Integrations.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QLoggingCategory>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSaveFile>
#include <QTimer>
#include <QUrl>

namespace tk::service {

Q_LOGGING_CATEGORY(lcHooks, "tolmesk.service.webhooks")

namespace {
constexpr int kTimeoutMs = 10'000;
constexpr int kTries = 4; // the first attempt and three retries
} // namespace

QJsonObject toJson(const Integration& i) {
    return {{QStringLiteral("id"), i.id},
            {QStringLiteral("name"), i.name},
            {QStringLiteral("url"), i.url},
            {QStringLiteral("enabled"), i.enabled}};
}

std::optional<Integration> integrationFromJson(const QJsonObject& o) {
    const QJsonValue id = o.value(QLatin1String("id")), name = o.value(QLatin1String("name")),
                     url = o.value(QLatin1String("url")),
                     enabled = o.value(QLatin1String("enabled"));
    if (!id.isString() || id.toString().isEmpty() || !name.isString() || !url.isString() ||
        !enabled.isBool())
        return std::nullopt;
    const QUrl u(url.toString(), QUrl::StrictMode);
    if (!u.isValid() ||
        (u.scheme() != QLatin1String("http") && u.scheme() != QLatin1String("https")) ||
        u.host().isEmpty())
        return std::nullopt;
    return Integration{id.toString(), name.toString(), url.toString(), enabled.toBool()};
}

void IntegrationConfig::reload() {
    const QFileInfo fi(m_file);
    if (!fi.exists()) {
        m_items.clear();
        m_loadedSize = -1;
        return;
    }
    if (fi.lastModified() == m_loadedMtime && fi.size() == m_loadedSize)
        return;
    m_loadedMtime = fi.lastModified();
    m_loadedSize = fi.size();
    m_items.clear();
    QFile f(m_file);
    if (!f.open(QIODevice::ReadOnly) || f.size() > (1 << 20)) {
        qCWarning(lcHooks) << "cannot read integrations file" << m_file;
        return;
    }
    QJsonParseError err{};
    const QJsonDocument doc = QJsonDocument::fromJson(f.readAll(), &err);
    QJsonArray items;
    m_wrapped = doc.isObject();
    if (doc.isArray())
        items = doc.array();
    else if (doc.isObject() && doc.object().value(QLatin1String("integrations")).isArray())
        items = doc.object().value(QLatin1String("integrations")).toArray();
    else {
        qCWarning(lcHooks) << "integrations file is not a list of webhooks:" << m_file
                           << err.errorString();
        return;
    }
    for (const QJsonValue& v : items) {
        auto i = integrationFromJson(v.toObject());
        if (!i) {
            qCWarning(lcHooks) << "skipping an integration without id, name, http(s) url and "
                                  "enabled in"
                               << m_file;
            continue;
        }
        if (std::none_of(m_items.begin(), m_items.end(),
                         [&](const Integration& x) { return x.id == i->id; }))
            m_items << *i;
    }
}

QList<Integration> IntegrationConfig::all() {
    reload();
    return m_items;
}

QList<Integration> IntegrationConfig::enabled() {
    QList<Integration> out;
    for (const Integration& i : all())
        if (i.enabled)
            out << i;
    return out;
}

IntegrationConfig::Toggle IntegrationConfig::setEnabled(const QString& id, bool enabled) {
    reload();
    auto it = std::find_if(m_items.begin(), m_items.end(),
                           [&](const Integration& x) { return x.id == id; });
    if (it == m_items.end())
        return Toggle::NotFound;
    it->enabled = enabled;
    QJsonArray a;
    for (const Integration& i : m_items)
        a.append(toJson(i));
    const QJsonDocument doc = m_wrapped
                                  ? QJsonDocument(QJsonObject{{QStringLiteral("integrations"), a}})
                                  : QJsonDocument(a);
    QSaveFile f(m_file);
    if (!f.open(QIODevice::WriteOnly) || f.write(doc.toJson()) < 0 || !f.commit()) {
        m_loadedSize = -1; // read back what is really there next time
        m_loadedMtime = {};
        return Toggle::WriteFailed;
    }
    const QFileInfo fi(m_file);
    m_loadedMtime = fi.lastModified();
    m_loadedSize = fi.size();
    return Toggle::Ok;
}

WebhookSender::WebhookSender(int backoffMs, QObject* parent)
    : QObject(parent), m_nam(new QNetworkAccessManager(this)), m_backoffMs(backoffMs) {}

void WebhookSender::send(const QString& captureId, const QJsonObject& body,
                         const QList<Integration>& to) {
    const QByteArray bytes = QJsonDocument(body).toJson(QJsonDocument::Compact);
    for (const Integration& i : to)
        attempt(captureId, bytes, i, 1);
}

void WebhookSender::attempt(const QString& captureId, const QByteArray& body, const Integration& to,
                            int tryNo) {
    QNetworkRequest req{QUrl(to.url)};
    req.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    req.setTransferTimeout(kTimeoutMs);
    ++m_inFlight;
    QNetworkReply* reply = m_nam->post(req, body);
    connect(reply, &QNetworkReply::finished, this, [=, this] {
        reply->deleteLater();
        --m_inFlight;
        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        if (reply->error() == QNetworkReply::NoError && status >= 200 && status < 300) {
            Q_EMIT delivered(captureId, to.name);
            return;
        }
        if (tryNo >= kTries) {
            qCWarning(lcHooks).nospace()
                << "webhook " << to.name << " gave up on " << captureId << " after " << tryNo
                << " tries: status " << status << ", " << reply->errorString();
            Q_EMIT gaveUp(captureId, to.name);
            return;
        }
        ++m_inFlight; // the pending retry counts as work in progress
        QTimer::singleShot(m_backoffMs << (tryNo - 1), this, [=, this] {
            --m_inFlight;
            attempt(captureId, body, to, tryNo + 1);
        });
    });
}

} // namespace tk::service
