#include "context/FocusPrivacy.h"

namespace tk {

bool FocusPrivacy::apply(const QString&, const std::vector<PointerSample>&, double) {
    return false;
}

} // namespace tk
