#include "Service.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>

namespace {
int g_signalPipe[2] = {-1, -1};

void onSignal(int) {
    const char b = 1;
    [[maybe_unused]] const auto n = ::write(g_signalPipe[1], &b, 1);
}
} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("tolmesk-service"));
    QString error;
    const auto options = tk::service::parseOptions(QCoreApplication::arguments(), &error);
    if (!options) {
        std::fprintf(stderr,
                     "tolmesk-service: %s\nusage: tolmesk-service [--port N] [--data-dir DIR] "
                     "[--captures-root DIR] [--crash-dir DIR] [--integrations FILE]\n",
                     qPrintable(error));
        return 2;
    }
    tk::service::Service service(*options);
    if (!service.start())
        return 1;

    // TERM and INT end the event loop, so the database is closed cleanly.
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, g_signalPipe) == 0) {
        auto* n = new QSocketNotifier(g_signalPipe[0], QSocketNotifier::Read, &app);
        QObject::connect(n, &QSocketNotifier::activated, &app, &QCoreApplication::quit);
        std::signal(SIGTERM, onSignal);
        std::signal(SIGINT, onSignal);
    }
    std::printf("tolmesk-service listening on http://127.0.0.1:%u/\n", unsigned(service.port()));
    std::fflush(stdout);
    return app.exec();
}
