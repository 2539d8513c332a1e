#include "writer/Screenshot.h"

#include "writer/PngEncoder.h"

#include <QProcess>
#include <QStandardPaths>

#include <condition_variable>
#include <mutex>
#include <thread>

namespace tk {

bool Screenshot::nativeShot(std::shared_ptr<platform::ScreenGrabber> grabber, const QString& path,
                            std::vector<unsigned long> exclude, std::chrono::milliseconds bound) {
    if (!grabber || !grabber->available())
        return false;
    struct Shared {
        std::mutex m;
        std::condition_variable cv;
        bool done = false;
        bool ok = false;
    };
    auto shared = std::make_shared<Shared>();
    std::thread([shared, grabber, path, exclude = std::move(exclude)] {
        bool ok = false;
        if (auto grab = grabber->grabUnderPointer(exclude))
            ok = PngEncoder::write(grab->image, path);
        std::lock_guard g(shared->m);
        shared->ok = ok;
        shared->done = true;
        shared->cv.notify_all();
    }).detach();
    std::unique_lock lock(shared->m);
    shared->cv.wait_for(lock, bound, [&] { return shared->done; });
    return shared->done && shared->ok;
}

QStringList Screenshot::fallbackCommand(const QString& path) {
    struct Tool {
        const char* exe;
        QStringList args;
    };
    const Tool tools[] = {
        {"grim", {path}},
        {"gnome-screenshot", {QStringLiteral("-f"), path}},
        {"import", {QStringLiteral("-window"), QStringLiteral("root"), path}},
    };
    for (const auto& t : tools) {
        const QString exe = QStandardPaths::findExecutable(QLatin1String(t.exe));
        if (!exe.isEmpty())
            return QStringList{exe} + t.args;
    }
    return {};
}

void Screenshot::fallbackShot(const QString& path) {
    QStringList cmd = fallbackCommand(path);
    if (cmd.isEmpty())
        return;
    QProcess p;
    p.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    p.start(cmd.takeFirst(), cmd);
    if (p.waitForStarted())
        p.waitForFinished(-1);
}

} // namespace tk
