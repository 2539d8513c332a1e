#pragma once

#include <QPointF>
#include <QString>
#include <QtGlobal>

#include <optional>
#include <vector>

namespace tk::platform {

struct AxElement {
    QString role;
    QString title;
    QString value;
    double x = 0, y = 0, w = 0, h = 0;
    bool operator==(const AxElement&) const = default;
};

class Accessibility {
public:
    virtual ~Accessibility() = default;
    // The bus is reachable and accessibility is switched on.
    virtual bool trusted() = 0;
    // Hit element at `point` and its ancestors, innermost first.
    virtual std::vector<AxElement> chain(QPointF point, int depth) = 0;

    struct Document {
        QString address; // the document attribute asked for
        QString name;
    };
    // The web document shown in the active window of process `pid`: the first
    // "document web" with a non-empty `addressAttribute` and a non-zero size.
    virtual std::optional<Document> shownDocument(qint64 pid, const QString& addressAttribute) {
        Q_UNUSED(pid)
        Q_UNUSED(addressAttribute)
        return std::nullopt;
    }
};

} // namespace tk::platform
