#include "Pages.h"

#include <QDateTime>
#include <QJsonDocument>

namespace tk::service {

namespace {

QString esc(const QString& s) {
    return s.toHtmlEscaped();
}

QString field(const QJsonObject& c, const char* key) {
    return c.value(QLatin1String(key)).toString();
}

QString when(const QString& iso) {
    const QDateTime t = QDateTime::fromString(iso, Qt::ISODate);
    return t.isValid() ? t.toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")) : iso;
}

} // namespace

QByteArray sessionDocument(const QJsonObject& session, const QJsonArray& captures) {
    const QString name = field(session, "name");
    QString html;
    html +=
        QStringLiteral("<!doctype html><html lang=\"en\"><head><meta charset=\"utf-8\">"
                       "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">"
                       "<meta name=\"color-scheme\" content=\"light dark\">"
                       "<title>%1 · Tolmesk session</title>"
                       "<link rel=\"stylesheet\" href=\"/static/doc.css\"></head><body>"
                       "<header class=\"doc-head\"><h1>%1</h1><p class=\"meta\">")
            .arg(esc(name));
    html += QStringLiteral("Started %1").arg(esc(when(field(session, "started_at"))));
    if (session.value(QLatin1String("ended_at")).isString())
        html += QStringLiteral(" · ended %1").arg(esc(when(field(session, "ended_at"))));
    html += QStringLiteral(" · %1 capture%2</p></header>")
                .arg(captures.size())
                .arg(captures.size() == 1 ? QString() : QStringLiteral("s"));
    if (captures.isEmpty())
        html += QStringLiteral("<p class=\"empty\">No captures were made in this session.</p>");
    int n = 0;
    for (const QJsonValue& v : captures) {
        const QJsonObject c = v.toObject();
        const QString id = field(c, "id");
        const QString transcript = field(c, "transcript");
        const QString type = field(c, "type");
        html += QStringLiteral("<article class=\"cap\" data-id=\"%1\"><h2><span class=\"n\">%2"
                               "</span> ")
                    .arg(esc(id))
                    .arg(++n);
        if (!type.isEmpty())
            html += QStringLiteral("<span class=\"chip t-%1\">%1</span> ").arg(esc(type));
        if (!field(c, "severity").isEmpty())
            html += QStringLiteral("<span class=\"chip sev\">%1</span> ")
                        .arg(esc(field(c, "severity")));
        html +=
            QStringLiteral("<span class=\"when\">%1</span></h2>").arg(esc(when(field(c, "ts"))));
        html += QStringLiteral("<figure><img src=\"/annotated/%1\" alt=\"Screenshot of capture "
                               "%2\"></figure>")
                    .arg(esc(id))
                    .arg(n);
        html += QStringLiteral("<dl>");
        const auto row = [&html](const QString& label, const QString& value) {
            html += QStringLiteral("<dt>%1</dt><dd>%2</dd>")
                        .arg(label, value.isEmpty() ? QStringLiteral("—") : esc(value));
        };
        row(QStringLiteral("Said"), transcript.isEmpty() ? QString() : transcript);
        row(QStringLiteral("Element"), field(c, "element_path"));
        row(QStringLiteral("App"), field(c, "app"));
        row(QStringLiteral("Window"), field(c, "title"));
        if (!field(c, "url").isEmpty())
            row(QStringLiteral("Page"), field(c, "url"));
        row(QStringLiteral("Folder"), field(c, "dir"));
        html += QStringLiteral("</dl></article>");
    }
    html += QStringLiteral("</body></html>");
    return html.toUtf8();
}

} // namespace tk::service
