#pragma once

#include "context/AxRecord.h"

#include <QRectF>

#include <array>
#include <optional>
#include <vector>

namespace tk {

using PointerSample = std::array<double, 3>; // x, y in global points; t in seconds

// What an accessibility backend could read of one element; absent: unreadable.
struct AxRaw {
    std::optional<QString> role;
    std::optional<QString> name;
    std::optional<QString> description;
    std::optional<QString> text; // the element's text, when it has any
    std::optional<double> value; // its current value, when it has one
    std::optional<QRectF> extents;
};

class AX {
public:
    static constexpr int kValueLength = 120;

    // The element record from what was read: an empty name counts as none (the
    // bus reports a missing name as ""), text before value, the value cut to its
    // first 120 characters as a reader sees them.
    static AxElement describe(const AxRaw& raw);
    // The element at `point` and its ancestors, innermost first, at most `depth`.
    static std::vector<AxElement> chain(platform::Accessibility& ax, QPointF point, int depth);
    // The deepest element that five hit tests inside the lasso's box agree on.
    static std::optional<AxElement> lassoAncestor(platform::Accessibility& ax,
                                                  const std::vector<PointerSample>& path);
};

} // namespace tk
