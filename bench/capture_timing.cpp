// Times one whole capture the way a key release triggers it: grab, PNG,
// context record, hand-off request received by a listener on 127.0.0.1:3402.
#include "Wallpaper.h"
#include "app/ServiceApi.h"
#include "platform/Platform.h"
#include "writer/CaptureWriter.h"
#include "writer/Ingest.h"
#include "writer/PngEncoder.h"

#include <QApplication>
#include <QBuffer>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QLabel>
#include <QScreen>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <cstdio>
#include <thread>

namespace {

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

int usage() {
    std::fprintf(stderr, "capture_timing --show | --reps N | --png N\n");
    return 2;
}

} // namespace

int main(int argc, char** argv) {
    tk::platform::prepareProcess();
    QApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() >= 2 && args[1] == QLatin1String("--show")) {
        // Something real to photograph, on screen until killed.
        QLabel label;
        QScreen* screen = QGuiApplication::primaryScreen();
        label.setPixmap(QPixmap::fromImage(benchWallpaper(screen->size())));
        label.setWindowFlags(Qt::FramelessWindowHint | Qt::X11BypassWindowManagerHint);
        label.setGeometry(screen->geometry());
        label.show();
        return app.exec();
    }
    if (args.size() < 3)
        return usage();
    const int reps = std::max(1, args[2].toInt());
    auto platform = std::shared_ptr<tk::platform::Platform>(tk::platform::loadPlatform());
    if (platform->name != QLatin1String("x11")) {
        std::fprintf(stderr, "needs an X display\n");
        return 1;
    }

    if (args[1] == QLatin1String("--png")) {
        // Our encoder against Qt's default writer on the same grab.
        auto grab = platform->grabber->grabUnderPointer({});
        if (!grab)
            return 1;
        std::vector<double> ours, qt;
        qsizetype ourBytes = 0, qtBytes = 0;
        for (int i = 0; i < reps; ++i) {
            QElapsedTimer t;
            t.start();
            ourBytes = tk::PngEncoder::encode(grab->image).size();
            ours.push_back(t.nsecsElapsed() / 1e6);
            QByteArray bytes;
            QBuffer buf(&bytes);
            buf.open(QIODevice::WriteOnly);
            t.restart();
            grab->image.save(&buf, "png");
            qt.push_back(t.nsecsElapsed() / 1e6);
            qtBytes = bytes.size();
        }
        std::printf("png-ours %.1f ms %lld KiB\npng-qt %.1f ms %lld KiB\n", median(ours),
                    (long long)ourBytes / 1024, median(qt), (long long)qtBytes / 1024);
        return 0;
    }
    if (args[1] != QLatin1String("--reps"))
        return usage();

    QTemporaryDir home;
    qputenv("HOME", home.path().toUtf8());
    qputenv("XDG_CONFIG_HOME", (home.path() + "/.config").toUtf8());
    int received = 0;
    QTcpServer server;
    if (!server.listen(QHostAddress::LocalHost, 3402)) {
        std::fprintf(stderr, "127.0.0.1:3402 is taken\n");
        return 1;
    }
    QObject::connect(&server, &QTcpServer::newConnection, [&] {
        while (QTcpSocket* s = server.nextPendingConnection()) {
            QObject::connect(s, &QTcpSocket::readyRead, s, [s, &received] {
                const QByteArray req = s->readAll();
                if (req.contains("POST /api/ingest")) {
                    ++received;
                    s->write("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
                }
            });
        }
    });
    tk::ServiceApi api;
    tk::Ingest ingest(api);
    tk::CaptureWriter::Deps deps;
    deps.platform = platform;
    deps.ingest = &ingest;

    std::vector<double> ms;
    qint64 shotBytes = 0;
    for (int i = 0; i < reps; ++i) {
        tk::Gesture g;
        g.startedAt = QDateTime::currentDateTimeUtc();
        g.pointerPath = {{100, 100, 0}, {120, 110, 0.05}};
        g.downPoint = QPointF(100, 100);
        const int before = received;
        QElapsedTimer t;
        t.start();
        QString dir;
        // The writer runs on its own thread, as after a real release.
        std::thread writer([&] { dir = tk::CaptureWriter::write(g, deps); });
        while (received == before)
            app.processEvents(QEventLoop::WaitForMoreEvents, 5);
        writer.join();
        ms.push_back(t.nsecsElapsed() / 1e6);
        shotBytes = QFileInfo(dir + "/shot.png").size();
    }
    std::printf("tolmesk %.1f ms %lld KiB\n", median(ms), (long long)shotBytes / 1024);
    return 0;
}
