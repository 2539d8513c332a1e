#include "settings/Prefs.h"

#include <QSettings>
#include <QStandardPaths>

namespace tk {
namespace {

QString settingsPath() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/Tolmesk/Tolmesk.conf");
}

QSettings open() {
    return QSettings(settingsPath(), QSettings::IniFormat);
}

} // namespace

QString Prefs::filePath() {
    return open().fileName();
}

QVariant Prefs::raw(const char* key) {
    return open().value(QLatin1String(key));
}

bool Prefs::boolValue(const char* key, bool fallback) {
    const QVariant v = raw(key);
    if (v.typeId() == QMetaType::Bool)
        return v.toBool();
    // The INI backend hands Booleans back as text.
    if (v.typeId() == QMetaType::QString) {
        const QString s = v.toString();
        if (s == QLatin1String("true"))
            return true;
        if (s == QLatin1String("false"))
            return false;
    }
    return fallback;
}

void Prefs::setBool(const char* key, bool value) {
    setValue(key, value);
}

void Prefs::setValue(const char* key, const QVariant& value) {
    auto s = open();
    s.setValue(QLatin1String(key), value);
    s.sync();
}

int Prefs::lastCount() {
    bool ok = false;
    const int n = raw(kLastCount).toInt(&ok);
    return ok ? n : 0;
}

double Prefs::lastCrashScan() {
    bool ok = false;
    const double t = raw(kLastCrashScan).toDouble(&ok);
    return ok ? t : 0.0;
}

QStringList Prefs::pendingIngest() {
    const QVariant v = raw(kPendingIngest);
    // One-element lists come back from INI as a plain string.
    if (v.typeId() == QMetaType::QString)
        return {v.toString()};
    return v.toStringList();
}

void Prefs::setPendingIngest(const QStringList& dirs) {
    setValue(kPendingIngest, dirs);
}

} // namespace tk
