#include "writer/CaptureWriter.h"

#include "context/Browser.h"
#include "context/FocusPrivacy.h"
#include "settings/Prefs.h"
#include "writer/Context.h"
#include "writer/Ingest.h"
#include "writer/Screenshot.h"

#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QSaveFile>
#include <QUuid>

Q_LOGGING_CATEGORY(lcTolmesk, "tolmesk", QtInfoMsg)

namespace tk {

namespace {

constexpr auto kOwnerOnly =
    QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner;

void makeFolder(const QString& dir) {
    QDir d;
    if (!d.exists(CaptureWriter::root()))
        d.mkdir(CaptureWriter::root(), kOwnerOnly);
    d.mkdir(dir, kOwnerOnly);
}

double mainScale(platform::Displays* displays) {
    if (displays)
        for (const auto& m : displays->monitors())
            if (m.primary)
                return m.scale;
    return 2.0;
}

} // namespace

QString CaptureWriter::root() {
    static const QString r = QDir::homePath() + QStringLiteral("/TolmeskCaptures");
    return r;
}

QString CaptureWriter::internetDate(const QDateTime& t) {
    return t.toUTC().toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss'Z'"));
}

std::optional<std::vector<double>> CaptureWriter::downsample(const std::vector<float>& levels,
                                                             int n) {
    const int count = int(levels.size());
    if (count < 5)
        return std::nullopt;
    const int step = std::max(1, n > 0 ? count / n : count);
    std::vector<double> out;
    for (int start = 0; start < count;) {
        const int end = std::min(start + step, count);
        float sum = 0.0f; // single precision, in index order
        for (int i = start; i < end; ++i)
            sum += levels[size_t(i)];
        out.push_back(double(sum) / double(end - start));
        start = end;
    }
    return out;
}

QString CaptureWriter::write(const Gesture& g, const Deps& deps) {
    platform::Platform* p = deps.platform.get();
    const QString id = QUuid::createUuid().toString(QUuid::WithoutBraces).toLower();
    const QString dir = root() + QLatin1Char('/') + id;
    makeFolder(dir);

    const QString shotPath = dir + QStringLiteral("/shot.png");
    if (!Screenshot::nativeShot(p ? p->grabber : nullptr, shotPath, deps.excludeWindows))
        Screenshot::fallbackShot(shotPath);

    const double scale = mainScale(p ? p->displays.get() : nullptr);
    if (Prefs::redact())
        FocusPrivacy::apply(shotPath, g.pointerPath, scale);

    if (g.audioTemp) {
        const QString audioPath = dir + QStringLiteral("/audio.m4a");
        QFile::rename(*g.audioTemp, audioPath);
        if (deps.transcribe) {
            Ingest* ingest = deps.ingest;
            deps.transcribe(audioPath, [dir, ingest](std::optional<QString> text) {
                if (!text || text->isEmpty())
                    return;
                QSaveFile f(dir + QStringLiteral("/transcript.txt"));
                if (f.open(QIODevice::WriteOnly)) {
                    f.write(text->toUtf8());
                    f.commit();
                }
                if (ingest)
                    ingest->ingest(dir);
            });
        }
    }

    CaptureContext c;
    c.id = id;
    c.startedAt = internetDate(g.startedAt);
    c.endedAt = internetDate(QDateTime::currentDateTimeUtc());
    c.displayScale = scale;
    const auto front = p && p->workspace ? p->workspace->frontApp() : std::nullopt;
    c.app.bundleId = front && !front->id.isEmpty() ? front->id : QStringLiteral("?");
    c.app.name = front && !front->name.isEmpty() ? front->name : QStringLiteral("?");
    c.window.title = front ? front->title : QString();
    if (p && p->accessibility)
        c.browser = Browser::active(front ? front->id : QString(), front ? front->pid : 0,
                                    *p->accessibility);
    c.pointer.path = g.pointerPath;
    c.pointer.downAt = {g.downPoint.x(), g.downPoint.y()};
    if (p && p->accessibility) {
        c.ax.atPoint = AX::chain(*p->accessibility, g.downPoint, 8);
        c.ax.lassoAncestor = AX::lassoAncestor(*p->accessibility, g.pointerPath);
        c.ax.permission =
            p->accessibility->trusted() ? QStringLiteral("granted") : QStringLiteral("denied");
    } else {
        c.ax.permission = QStringLiteral("denied");
    }
    c.audioLevels = downsample(g.audioLevels, 120);

    if (const auto bytes = encodeContext(c)) {
        QFile f(dir + QStringLiteral("/context.json"));
        if (f.open(QIODevice::WriteOnly))
            f.write(*bytes);
    }

    if (deps.ingest)
        deps.ingest->ingest(dir);
    qCInfo(lcTolmesk).noquote() << "capture written" << dir;
    return dir;
}

} // namespace tk
