#pragma once

#include "context/AxRecord.h"

#include <array>
#include <vector>

namespace tk {

using PointerSample = std::array<double, 3>; // x, y in global points; t in seconds

class AX {
public:
    // The element at `point` and its ancestors, innermost first, at most `depth`.
    static std::vector<AxElement> chain(platform::Accessibility& ax, QPointF point, int depth);
    // The element the lasso encloses. Not resolved yet: yields what a failed
    // lookup yields.
    static std::optional<AxElement> lassoAncestor(platform::Accessibility& ax,
                                                  const std::vector<PointerSample>& path);
};

} // namespace tk
