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

constexpr double kMaxSigma = 100;

// Two 8-bit channels in the 32-bit lanes of one word: three box passes sum to
// at most 255 * 39^3 at sigma 24 (far more fits), so nothing is rounded until
// the end and one addition moves two channels.
inline uint64_t evenLanes(uint32_t p) {
    return uint64_t(p & 0xff) | (uint64_t(p & 0xff0000) << 16);
}
inline uint64_t oddLanes(uint32_t p) {
    return uint64_t((p >> 8) & 0xff) | (uint64_t(p >> 24) << 32);
}

// Running sums of width 2r + 1 over [from, to) of `src`, written at the
// window's centre: valid for [from + r, to - r). Both halves of a pixel in one
// loop: two independent chains keep the core busy.
template <typename In, typename LoadE, typename LoadO>
void boxSums(const In* srcE, const In* srcO, uint64_t* dstE, uint64_t* dstO, int from, int to,
             int r, LoadE loadE, LoadO loadO) {
    uint64_t se = 0, so = 0;
    for (int i = from; i <= from + 2 * r; ++i) {
        se += loadE(srcE[i]);
        so += loadO(srcO[i]);
    }
    const int last = to - r - 1;
    for (int i = from + r;; ++i) {
        dstE[i] = se;
        dstO[i] = so;
        if (i == last)
            break;
        se += loadE(srcE[i + r + 1]) - loadE(srcE[i - r]);
        so += loadO(srcO[i + r + 1]) - loadO(srcO[i - r]);
    }
}

struct Scratch {
    std::vector<uint64_t> a, b;
    explicit Scratch(int n) : a(size_t(n)), b(size_t(n)) {}
};

// Three box passes over a padded line of n pixels, in place over [keepFrom,
// keepTo); the padding must be at least the three radii together.
void threePasses(uint32_t* line, int n, const std::array<int, 3>& r, int keepFrom, int keepTo,
                 Scratch& even, Scratch& odd) {
    const auto same = [](uint64_t v) { return v; };
    const int from1 = r[0], to1 = n - r[0];
    const int from2 = from1 + r[1], to2 = to1 - r[1];
    boxSums(line, line, even.a.data(), odd.a.data(), 0, n, r[0], evenLanes, oddLanes);
    boxSums(even.a.data(), odd.a.data(), even.b.data(), odd.b.data(), from1, to1, r[1], same, same);
    boxSums(even.b.data(), odd.b.data(), even.a.data(), odd.a.data(), from2, to2, r[2], same, same);
    const uint64_t area = uint64_t(2 * r[0] + 1) * uint64_t(2 * r[1] + 1) * uint64_t(2 * r[2] + 1);
    // sum / area rounded, as a multiply: exact, as sums stay below 256 * area.
    constexpr int kShift = 48;
    const uint64_t inv = ((uint64_t(1) << kShift) + area - 1) / area;
    const uint64_t half = area / 2;
    const auto div = [&](uint64_t v) {
        return uint32_t(((v & 0xffffffff) + half) * inv >> kShift);
    };
    for (int i = keepFrom; i < keepTo; ++i) {
        const uint64_t e = even.a[size_t(i)], o = odd.a[size_t(i)];
        line[i] = div(e) | (div(o) << 8) | (div(e >> 32) << 16) | (div(o >> 32) << 24);
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
    sigma = std::min(sigma, kMaxSigma); // keeps 255 * area inside a 32-bit lane
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
    parallel(h, threads, [&](int first, int last) {
        const int n = w + 2 * pad;
        std::vector<uint32_t> line(static_cast<size_t>(n));
        Scratch even(n), odd(n);
        for (int y = first; y < last; ++y) {
            uint32_t* row = pixels + size_t(y) * stride;
            std::fill_n(line.begin(), pad, row[0]);
            std::copy_n(row, w, line.begin() + pad);
            std::fill_n(line.begin() + pad + w, pad, row[w - 1]);
            threePasses(line.data(), n, radii, pad, pad + w, even, odd);
            std::copy_n(line.begin() + pad, w, row);
        }
    });
    // Columns in blocks: each row's cache line serves the whole block.
    constexpr int kBlock = 16;
    const int blocks = (w + kBlock - 1) / kBlock;
    parallel(blocks, threads, [&](int first, int last) {
        const int n = h + 2 * pad;
        std::vector<uint32_t> cols(static_cast<size_t>(n) * kBlock);
        Scratch even(n), odd(n);
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
                threePasses(col, n, radii, pad, pad + h, even, odd);
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
