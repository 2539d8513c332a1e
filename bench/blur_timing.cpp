// Focus-privacy figures: the blur alone on raw pixels, and the whole rewrite of
// a screenshot file (decode, blur outside the lasso, encode) as the writer does it.
#include "Wallpaper.h"
#include "context/Blur.h"
#include "context/FocusPrivacy.h"

#include <QElapsedTimer>
#include <QFile>
#include <QGuiApplication>

#include <algorithm>
#include <cstdio>

namespace {

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

} // namespace

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() == 5 && args[1] == QLatin1String("--make"))
        return benchWallpaper(QSize(args[2].toInt(), args[3].toInt())).save(args[4]) ? 0 : 1;
    if (args.size() != 3 || args[1] != QLatin1String("--file")) {
        std::fprintf(stderr, "blur_timing --make W H OUT.png | --file SHOT.png\n");
        return 2;
    }
    const QString path = args[2];
    const QByteArray original = [&] {
        QFile f(path);
        f.open(QIODevice::ReadOnly);
        return f.readAll();
    }();
    QImage image(path);
    if (image.isNull())
        return 1;
    image = image.convertToFormat(QImage::Format_RGB32);
    std::vector<double> raw, whole;
    for (int i = 0; i < 5; ++i) {
        QImage copy = image.copy();
        QElapsedTimer t;
        t.start();
        tk::Blur::gaussian(copy, tk::FocusPrivacy::kSigma);
        raw.push_back(t.nsecsElapsed() / 1e6);
    }
    const std::vector<tk::PointerSample> lasso{
        {400, 300, 0}, {900, 300, 0}, {900, 700, 0}, {400, 700, 0}, {400, 300, 0}};
    for (int i = 0; i < 5; ++i) {
        QFile f(path);
        f.open(QIODevice::WriteOnly);
        f.write(original);
        f.close();
        QElapsedTimer t;
        t.start();
        tk::FocusPrivacy::apply(path, lasso, 1.0);
        whole.push_back(t.nsecsElapsed() / 1e6);
    }
    std::printf("blur-raw %.1f\nwhole-file %.1f\n", median(raw), median(whole));
    return 0;
}
