#include "context/Blur.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <thread>
#include <vector>

namespace tk {

std::array<int, 3> Blur::boxRadii(double sigma) {
    // Widths wl and wl + 2 mixed so that the variances add up to sigma².
    constexpr int n = 3;
    const double ideal = std::sqrt(12.0 * sigma * sigma / n + 1.0);
    int wl = int(std::floor(ideal));
    if (wl % 2 == 0)
        --wl;
    const int wu = wl + 2;
    const double mIdeal =
        (12.0 * sigma * sigma - n * wl * wl - 4.0 * n * wl - 3.0 * n) / (-4.0 * wl - 4.0);
    const int m = int(std::lround(mIdeal));
    std::array<int, 3> radii{};
    for (int i = 0; i < n; ++i)
        radii[size_t(i)] = ((i < m ? wl : wu) - 1) / 2;
    return radii;
}

namespace {

// Four 8-bit channels spread into the 16-bit lanes of one word: a window of
// up to 257 pixels sums without overflow, and one addition moves all four.
inline uint64_t spread(uint32_t p) {
    return (uint64_t(p & 0xff)) | (uint64_t(p & 0xff00) << 8) | (uint64_t(p & 0xff0000) << 16) |
           (uint64_t(p & 0xff000000) << 24);
}

// One box pass over a padded line: only the ends need their neighbours clamped.
void boxLine(const uint32_t* src, uint32_t* dst, int count, int r) {
    const int window = 2 * r + 1;
    const uint64_t inv = (uint64_t(1) << 32) / uint64_t(window) + 1;
    const uint64_t half = uint64_t(window / 2);
    auto lane = [&](uint64_t sum, int i) {
        return uint32_t((((sum >> (16 * i)) & 0xffff) + half) * inv >> 32);
    };
    auto at = [&](int i) { return spread(src[std::clamp(i, 0, count - 1)]); };
    uint64_t sum = at(0) * uint64_t(r + 1);
    for (int i = 1; i <= r; ++i)
        sum += at(i);
    auto out = [&](int i) {
        dst[i] = lane(sum, 0) | (lane(sum, 1) << 8) | (lane(sum, 2) << 16) | (lane(sum, 3) << 24);
    };
    const int safeFrom = r, safeTo = count - r - 1; // i - r >= 0 and i + r + 1 < count
    int i = 0;
    for (; i < std::min(safeFrom, count); ++i) {
        out(i);
        sum += at(i + r + 1);
        sum -= at(i - r);
    }
    for (; i < safeTo; ++i) {
        out(i);
        sum += spread(src[i + r + 1]);
        sum -= spread(src[i - r]);
    }
    for (; i < count; ++i) {
        out(i);
        sum += at(i + r + 1);
        sum -= at(i - r);
    }
}

template <typename F> void parallel(int n, int threads, F work) {
    std::vector<std::thread> pool;
    const int per = (n + threads - 1) / threads;
    for (int t = 1; t < threads; ++t)
        pool.emplace_back([=] { work(std::min(n, t * per), std::min(n, (t + 1) * per)); });
    work(0, std::min(n, per));
    for (auto& th : pool)
        th.join();
}

} // namespace

void Blur::gaussian(QImage& image, double sigma, int threads) {
    if (image.isNull() || image.depth() != 32 || sigma <= 0)
        return;
    if (threads <= 0)
        threads = int(std::max(1u, std::thread::hardware_concurrency()));
    const int w = image.width(), h = image.height();
    const size_t stride = size_t(image.bytesPerLine() / 4);
    auto* pixels = reinterpret_cast<uint32_t*>(image.bits());
    const auto radii = boxRadii(sigma);
    // Each line is padded once with its end pixels, wide enough for all three
    // passes: the picture continues with its border, rather than each pass
    // clamping the previous one's output.
    const int pad = radii[0] + radii[1] + radii[2] + 1;
    auto threePasses = [&](uint32_t* line, uint32_t* a, uint32_t* b, int n) {
        boxLine(line, a, n, radii[0]);
        boxLine(a, b, n, radii[1]);
        boxLine(b, line, n, radii[2]);
    };
    parallel(h, threads, [&](int first, int last) {
        const int n = w + 2 * pad;
        std::vector<uint32_t> line(static_cast<size_t>(n)), a(static_cast<size_t>(n)),
            b(static_cast<size_t>(n));
        for (int y = first; y < last; ++y) {
            uint32_t* row = pixels + size_t(y) * stride;
            std::fill_n(line.begin(), pad, row[0]);
            std::copy_n(row, w, line.begin() + pad);
            std::fill_n(line.begin() + pad + w, pad, row[w - 1]);
            threePasses(line.data(), a.data(), b.data(), n);
            std::copy_n(line.begin() + pad, w, row);
        }
    });
    // Columns in blocks: each row's cache line serves the whole block.
    constexpr int kBlock = 16;
    const int blocks = (w + kBlock - 1) / kBlock;
    parallel(blocks, threads, [&](int first, int last) {
        const int n = h + 2 * pad;
        std::vector<uint32_t> cols(static_cast<size_t>(n) * kBlock), a(static_cast<size_t>(n)),
            b(static_cast<size_t>(n));
        for (int blk = first; blk < last; ++blk) {
            const int x0 = blk * kBlock, width = std::min(kBlock, w - x0);
            for (int y = 0; y < h; ++y) {
                const uint32_t* row = pixels + size_t(y) * stride + size_t(x0);
                for (int k = 0; k < width; ++k)
                    cols[size_t(k) * size_t(n) + size_t(y + pad)] = row[k];
            }
            for (int k = 0; k < width; ++k) {
                uint32_t* col = cols.data() + size_t(k) * size_t(n);
                std::fill_n(col, pad, col[pad]);
                std::fill_n(col + pad + h, pad, col[pad + h - 1]);
                threePasses(col, a.data(), b.data(), n);
            }
            for (int y = 0; y < h; ++y) {
                uint32_t* row = pixels + size_t(y) * stride + size_t(x0);
                for (int k = 0; k < width; ++k)
                    row[k] = cols[size_t(k) * size_t(n) + size_t(y + pad)];
            }
        }
    });
}

} // namespace tk
