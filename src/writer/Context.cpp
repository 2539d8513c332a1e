#include "writer/Context.h"

#include "context/JsonRead.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace tk {

QJsonObject toJson(const CaptureContext& c) {
    QJsonArray path;
    for (const auto& s : c.pointer.path)
        path.append(QJsonArray{s[0], s[1], s[2]});
    QJsonArray atPoint;
    for (const auto& e : c.ax.atPoint)
        atPoint.append(toJson(e));
    QJsonObject ax{{QStringLiteral("atPoint"), atPoint},
                   {QStringLiteral("permission"), c.ax.permission}};
    if (c.ax.lassoAncestor)
        ax.insert(QStringLiteral("lassoAncestor"), toJson(*c.ax.lassoAncestor));

    // QJsonObject keeps its keys sorted, which is the order the file wants.
    QJsonObject o{
        {QStringLiteral("id"), c.id},
        {QStringLiteral("startedAt"), c.startedAt},
        {QStringLiteral("endedAt"), c.endedAt},
        {QStringLiteral("displayScale"), c.displayScale},
        {QStringLiteral("app"), QJsonObject{{QStringLiteral("bundleId"), c.app.bundleId},
                                            {QStringLiteral("name"), c.app.name}}},
        {QStringLiteral("window"), QJsonObject{{QStringLiteral("title"), c.window.title}}},
        {QStringLiteral("pointer"),
         QJsonObject{
             {QStringLiteral("path"), path},
             {QStringLiteral("downAt"), QJsonArray{c.pointer.downAt[0], c.pointer.downAt[1]}}}},
        {QStringLiteral("ax"), ax},
    };
    if (c.browser)
        o.insert(QStringLiteral("browser"), toJson(*c.browser));
    if (c.audioLevels) {
        QJsonArray levels;
        for (double v : *c.audioLevels)
            levels.append(v);
        o.insert(QStringLiteral("audioLevels"), levels);
    }
    return o;
}

namespace {

bool readNumbers(const QJsonArray& a, double* out, int n) {
    if (a.size() != n)
        return false;
    for (int i = 0; i < n; ++i) {
        if (!a.at(i).isDouble())
            return false;
        out[i] = a.at(i).toDouble();
    }
    return true;
}

} // namespace

std::optional<CaptureContext> contextFromJson(const QJsonObject& o) {
    CaptureContext c;
    QJsonObject app, window, pointer, ax;
    QJsonArray path, downAt, atPoint;
    if (!json::readString(o, "id", c.id) || !json::readString(o, "startedAt", c.startedAt) ||
        !json::readString(o, "endedAt", c.endedAt) ||
        !json::readNumber(o, "displayScale", c.displayScale) || !json::readObject(o, "app", app) ||
        !json::readString(app, "bundleId", c.app.bundleId) ||
        !json::readString(app, "name", c.app.name) || !json::readObject(o, "window", window) ||
        !json::readString(window, "title", c.window.title) ||
        !json::readObject(o, "pointer", pointer) || !json::readArray(pointer, "path", path) ||
        !json::readArray(pointer, "downAt", downAt) || !json::readObject(o, "ax", ax) ||
        !json::readArray(ax, "atPoint", atPoint) ||
        !json::readString(ax, "permission", c.ax.permission))
        return std::nullopt;
    if (!readNumbers(downAt, c.pointer.downAt.data(), 2))
        return std::nullopt;
    for (const QJsonValue& s : path) {
        PointerSample sample{};
        if (!readNumbers(s.toArray(), sample.data(), 3))
            return std::nullopt;
        c.pointer.path.push_back(sample);
    }
    for (const QJsonValue& e : atPoint) {
        auto el = axElementFromJson(e.toObject());
        if (!el)
            return std::nullopt;
        c.ax.atPoint.push_back(*el);
    }
    if (ax.contains(QLatin1String("lassoAncestor"))) {
        auto el = axElementFromJson(ax.value(QLatin1String("lassoAncestor")).toObject());
        if (!el)
            return std::nullopt;
        c.ax.lassoAncestor = el;
    }
    if (o.contains(QLatin1String("browser"))) {
        auto page = browserPageFromJson(o.value(QLatin1String("browser")).toObject());
        if (!page)
            return std::nullopt;
        c.browser = page;
    }
    if (o.contains(QLatin1String("audioLevels"))) {
        const QJsonValue v = o.value(QLatin1String("audioLevels"));
        if (!v.isArray())
            return std::nullopt;
        std::vector<double> levels;
        for (const QJsonValue& x : v.toArray()) {
            if (!x.isDouble())
                return std::nullopt;
            levels.push_back(x.toDouble());
        }
        c.audioLevels = std::move(levels);
    }
    return c;
}

std::optional<QByteArray> encodeContext(const CaptureContext& c) {
    const QJsonObject o = toJson(c);
    if (!json::allFinite(o))
        return std::nullopt;
    return QJsonDocument(o).toJson(QJsonDocument::Indented);
}

} // namespace tk
