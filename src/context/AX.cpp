#include "context/AX.h"

namespace tk {

std::vector<AxElement> AX::chain(platform::Accessibility& ax, QPointF point, int depth) {
    if (depth <= 0 || !ax.trusted())
        return {};
    auto out = ax.chain(point, depth);
    if (int(out.size()) > depth)
        out.resize(size_t(depth));
    return out;
}

std::optional<AxElement> AX::lassoAncestor(platform::Accessibility&,
                                           const std::vector<PointerSample>&) {
    return std::nullopt;
}

} // namespace tk
