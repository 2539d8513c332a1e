#pragma once

#include "context/AX.h"

#include <QString>

namespace tk {

class FocusPrivacy {
public:
    // Blurs the screenshot outside the lasso, in place. Not built yet: the
    // file is left untouched, as any failure leaves it. Returns whether the
    // file was rewritten.
    static bool apply(const QString& shotPath, const std::vector<PointerSample>& path,
                      double scale);
};

} // namespace tk
