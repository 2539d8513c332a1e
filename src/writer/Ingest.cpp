#include "writer/Ingest.h"

#include "app/ServiceApi.h"
#include "settings/Prefs.h"

#include <QJsonObject>

namespace tk {

void Ingest::ingest(const QString& dir) {
    m_api.postJson(QStringLiteral("/api/ingest"), QJsonObject{{QStringLiteral("dir"), dir}},
                   [this, dir](const ServiceApi::Reply& r) {
                       if (r.transportOk && r.status == 200)
                           drainPending();
                       else
                           queuePending(dir);
                   });
}

void Ingest::queuePending(const QString& dir) {
    QStringList pending = Prefs::pendingIngest();
    if (!pending.contains(dir))
        pending.append(dir);
    Prefs::setPendingIngest(pending);
}

void Ingest::drainPending() {
    const QStringList pending = Prefs::pendingIngest();
    if (pending.isEmpty())
        return;
    // Emptied before sending: each failure puts its own path back.
    Prefs::setPendingIngest({});
    for (const QString& dir : pending)
        ingest(dir);
}

} // namespace tk
