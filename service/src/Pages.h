#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>

namespace tk::service {

// The printable document of one testing session: complete HTML, no scripts.
QByteArray sessionDocument(const QJsonObject& session, const QJsonArray& captures);

} // namespace tk::service
