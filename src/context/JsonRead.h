#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QString>

#include <cmath>

// Required-key readers shared by the records: false when the key is missing or
// of the wrong type, so a record is either whole or not decoded at all.
namespace tk::json {

inline bool readString(const QJsonObject& o, const char* key, QString& out) {
    const QJsonValue v = o.value(QLatin1String(key));
    if (!v.isString())
        return false;
    out = v.toString();
    return true;
}

inline bool readNumber(const QJsonObject& o, const char* key, double& out) {
    const QJsonValue v = o.value(QLatin1String(key));
    if (!v.isDouble())
        return false;
    out = v.toDouble();
    return true;
}

inline bool readObject(const QJsonObject& o, const char* key, QJsonObject& out) {
    const QJsonValue v = o.value(QLatin1String(key));
    if (!v.isObject())
        return false;
    out = v.toObject();
    return true;
}

inline bool readArray(const QJsonObject& o, const char* key, QJsonArray& out) {
    const QJsonValue v = o.value(QLatin1String(key));
    if (!v.isArray())
        return false;
    out = v.toArray();
    return true;
}

// True when no number anywhere below `v` is NaN or infinite.
inline bool allFinite(const QJsonValue& v) {
    if (v.isDouble())
        return std::isfinite(v.toDouble());
    if (v.isArray()) {
        for (const QJsonValue& x : v.toArray())
            if (!allFinite(x))
                return false;
    }
    if (v.isObject()) {
        const QJsonObject o = v.toObject();
        for (auto it = o.begin(); it != o.end(); ++it)
            if (!allFinite(it.value()))
                return false;
    }
    return true;
}

} // namespace tk::json
