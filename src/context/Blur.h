#pragma once

#include <QImage>

#include <array>

namespace tk {

// A Gaussian blur approximated by three box blurs per axis, edges clamped (the
// picture is taken to continue with its border pixels, so nothing darkens or
// fades at the sides). All colour channels at once; rows and columns are split
// over the cores.
class Blur {
public:
    // Box half-widths whose three passes together have standard deviation sigma.
    static std::array<int, 3> boxRadii(double sigma);
    // In place on a 32-bit image (RGB32, ARGB32 or premultiplied).
    static void gaussian(QImage& image, double sigma, int threads = 0);
};

} // namespace tk
