#pragma once

#include <QPointF>
#include <QString>

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
};

} // namespace tk::platform
