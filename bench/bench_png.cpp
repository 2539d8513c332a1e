// PNG encoder settings on a desktop-like picture: time and size per choice.
#include "Wallpaper.h"
#include "writer/PngEncoder.h"

#include <QBuffer>
#include <QGuiApplication>

#include <benchmark/benchmark.h>

#include <zlib.h>

namespace {

const QImage& picture(int height) {
    static const QImage fhd = benchWallpaper(QSize(1920, 1080));
    static const QImage uhd = benchWallpaper(QSize(3840, 2160));
    return height > 1080 ? uhd : fhd;
}

void encode(benchmark::State& state, tk::PngEncoder::Options o) {
    const QImage& img = picture(int(state.range(0)));
    qsizetype bytes = 0;
    for (auto _ : state) {
        const QByteArray png = tk::PngEncoder::encode(img, o);
        bytes = png.size();
        benchmark::DoNotOptimize(png.constData());
    }
    state.counters["KiB"] = double(bytes) / 1024.0;
}

tk::PngEncoder::Options opts(int level, int strategy, tk::PngEncoder::Filter f, int threads) {
    tk::PngEncoder::Options o;
    o.level = level;
    o.strategy = strategy;
    o.filter = f;
    o.threads = threads;
    return o;
}

using F = tk::PngEncoder::Filter;

void qtDefault(benchmark::State& state) {
    const QImage& img = picture(int(state.range(0)));
    qsizetype bytes = 0;
    for (auto _ : state) {
        QByteArray out;
        QBuffer b(&out);
        b.open(QIODevice::WriteOnly);
        img.save(&b, "png");
        bytes = out.size();
    }
    state.counters["KiB"] = double(bytes) / 1024.0;
}

} // namespace

BENCHMARK_CAPTURE(encode, l1_default_up_all, opts(1, Z_DEFAULT_STRATEGY, F::Up, 0))
    ->Arg(1080)
    ->Arg(2160)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(encode, l1_default_sub_all, opts(1, Z_DEFAULT_STRATEGY, F::Sub, 0))
    ->Arg(1080)
    ->Arg(2160)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(encode, l1_default_none_all, opts(1, Z_DEFAULT_STRATEGY, F::None, 0))
    ->Arg(1080)
    ->Arg(2160)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(encode, l1_rle_up_all, opts(1, Z_RLE, F::Up, 0))
    ->Arg(1080)
    ->Arg(2160)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(encode, l1_rle_sub_all, opts(1, Z_RLE, F::Sub, 0))
    ->Arg(1080)
    ->Arg(2160)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(encode, l3_default_up_all, opts(3, Z_DEFAULT_STRATEGY, F::Up, 0))
    ->Arg(1080)
    ->Arg(2160)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(encode, l1_default_up_one_thread, opts(1, Z_DEFAULT_STRATEGY, F::Up, 1))
    ->Arg(1080)
    ->Arg(2160)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(qtDefault)->Arg(1080)->Arg(2160)->Unit(benchmark::kMillisecond)->UseRealTime();

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv); // fonts for the picture
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
