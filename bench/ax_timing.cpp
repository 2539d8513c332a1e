// What one capture spends asking the accessibility tree: the chain under the
// press point and the lasso's element, over the real AT-SPI backend, for an
// ellipse drawn inside the given rectangle.
#include "context/AX.h"
#include "platform/Platform.h"

#include <QElapsedTimer>
#include <QGuiApplication>

#include <algorithm>
#include <cmath>
#include <cstdio>

int main(int argc, char** argv) {
    tk::platform::prepareProcess();
    QGuiApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() != 6 && args.size() != 7) {
        std::fprintf(stderr, "ax_timing X Y W H LABEL [RUNS]\n");
        return 2;
    }
    const QRectF box(args[1].toDouble(), args[2].toDouble(), args[3].toDouble(),
                     args[4].toDouble());
    const int runs = args.size() == 7 ? args[6].toInt() : 20;
    auto platform = tk::platform::loadPlatform();
    if (!platform || !platform->accessibility || !platform->accessibility->trusted()) {
        std::fprintf(stderr, "accessibility is not on for this session\n");
        return 1;
    }
    std::vector<tk::PointerSample> path;
    for (int i = 0; i <= 24; ++i) {
        const double a = 2 * M_PI * i / 24;
        path.push_back({box.center().x() + (box.width() / 2 - 8) * std::cos(a),
                        box.center().y() + (box.height() / 2 - 7) * std::sin(a), i * 0.02});
    }
    const QPointF press(path.front()[0], path.front()[1]);
    std::vector<double> ms;
    QString hit, lasso;
    for (int i = 0; i <= runs; ++i) {
        QElapsedTimer t;
        t.start();
        const auto chain = tk::AX::chain(*platform->accessibility, press, 8);
        const auto element = tk::AX::lassoAncestor(*platform->accessibility, path);
        ms.push_back(double(t.nsecsElapsed()) / 1e6);
        hit = chain.empty() ? QStringLiteral("-") : chain.front().role + " " + chain.front().title;
        lasso = element ? element->role + " " + element->title : QStringLiteral("-");
    }
    const double cold = ms.front();
    std::vector<double> warm(ms.begin() + 1, ms.end());
    std::sort(warm.begin(), warm.end());
    std::printf("%-14s %8.1f %8.1f %8.1f  %s | %s\n", qPrintable(args[5]), cold,
                warm[warm.size() / 2], warm[warm.size() * 9 / 10], qPrintable(hit),
                qPrintable(lasso));
    return 0;
}
