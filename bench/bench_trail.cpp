// Cost of one more trail point, with the window painted as the server shows it,
// after 100, 1 000 and 10 000 points are already drawn. Needs an X display.
#include "capture/TrailView.h"
#include "platform/Platform.h"

#include <QApplication>
#include <QGuiApplication>
#include <QScreen>

#include <benchmark/benchmark.h>

#include <cmath>

namespace {

std::shared_ptr<tk::platform::Platform> g_platform;

QPointF walk(int i, QSize area) {
    // A looping scribble that stays on screen and keeps crossing itself.
    const double a = i * 0.05;
    return QPointF(area.width() / 2 + std::cos(a) * (area.width() / 3) + std::sin(i * 0.31) * 40,
                   area.height() / 2 + std::sin(a * 1.3) * (area.height() / 3));
}

void addPoint(benchmark::State& state) {
    const int drawn = int(state.range(0));
    const bool paint = state.range(1) != 0;
    const bool cut = state.range(2) != 0;
    const QSize area = QGuiApplication::primaryScreen()->size();
    tk::TrailView view(cut ? g_platform->ink : nullptr);
    view.setWindowFlags(Qt::Window | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::Tool |
                        Qt::WindowTransparentForInput | Qt::X11BypassWindowManagerHint);
    view.setGeometry(QRect(QPoint(0, 0), area));
    if (view.shaped())
        g_platform->ink->begin(view.geometry(), tk::TrailView::inkColour().rgb());
    else
        view.show();
    for (int i = 0; i < drawn; ++i)
        view.add(walk(i, area));
    QApplication::processEvents();
    int i = drawn;
    for (auto _ : state) {
        view.add(walk(i++, area));
        if (paint)
            QApplication::processEvents(); // the paint this point asked for
    }
    state.counters["shaped"] = view.shaped() ? 1 : 0;
    if (view.shaped())
        g_platform->ink->end();
}

} // namespace

// Arguments: points already drawn, paint each point, server-drawn ink (no compositor).
BENCHMARK(addPoint)
    ->ArgsProduct({{100, 1000, 10000}, {0, 1}, {0, 1}})
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

int main(int argc, char** argv) {
    tk::platform::prepareProcess();
    QApplication app(argc, argv);
    g_platform = tk::platform::loadPlatform();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    g_platform.reset();
    return 0;
}
