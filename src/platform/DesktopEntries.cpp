#include "platform/DesktopEntries.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QLocale>
#include <QSet>

namespace tk::platform {

QStringList DesktopEntries::defaultDataDirs() {
    QStringList dirs;
    QString home = qEnvironmentVariable("XDG_DATA_HOME");
    if (home.isEmpty())
        home = QDir::homePath() + QStringLiteral("/.local/share");
    dirs << home;
    QString sys = qEnvironmentVariable("XDG_DATA_DIRS");
    if (sys.isEmpty())
        sys = QStringLiteral("/usr/local/share:/usr/share");
    dirs << sys.split(QLatin1Char(':'), Qt::SkipEmptyParts);
    return dirs;
}

std::optional<DesktopEntry> DesktopEntries::parse(const QString& path, const QString& id) {
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly | QIODevice::Text))
        return std::nullopt;
    DesktopEntry e;
    e.id = id;
    const QString lang = QLocale().name();                          // e.g. de_DE
    const QString shortLang = lang.section(QLatin1Char('_'), 0, 0); // de
    QString localName, shortName;
    bool inMain = false;
    bool hidden = false;
    while (!f.atEnd()) {
        const QString line = QString::fromUtf8(f.readLine()).trimmed();
        if (line.startsWith(QLatin1Char('['))) {
            inMain = line == QLatin1String("[Desktop Entry]");
            continue;
        }
        if (!inMain || line.startsWith(QLatin1Char('#')))
            continue;
        const int eq = line.indexOf(QLatin1Char('='));
        if (eq <= 0)
            continue;
        const QString key = line.left(eq).trimmed();
        const QString value = line.mid(eq + 1).trimmed();
        if (key == QLatin1String("Name"))
            e.name = value;
        else if (key == QStringLiteral("Name[%1]").arg(lang))
            localName = value;
        else if (key == QStringLiteral("Name[%1]").arg(shortLang))
            shortName = value;
        else if (key == QLatin1String("StartupWMClass"))
            e.startupWMClass = value;
        else if (key == QLatin1String("Hidden") && value == QLatin1String("true"))
            hidden = true;
    }
    if (hidden)
        return std::nullopt;
    if (!localName.isEmpty())
        e.name = localName;
    else if (!shortName.isEmpty())
        e.name = shortName;
    return e;
}

DesktopEntries DesktopEntries::scan(const QStringList& dataDirs) {
    DesktopEntries out;
    QSet<QString> seen;
    for (const QString& dataDir : dataDirs) {
        const QString base = dataDir + QStringLiteral("/applications");
        QDirIterator it(base, {QStringLiteral("*.desktop")}, QDir::Files,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            QString rel = QDir(base).relativeFilePath(path);
            rel.chop(int(sizeof(".desktop") - 1));
            const QString id = rel.replace(QLatin1Char('/'), QLatin1Char('-'));
            if (seen.contains(id))
                continue;
            seen.insert(id);
            if (auto e = parse(path, id))
                out.m_entries.push_back(*e);
        }
    }
    return out;
}

std::optional<DesktopEntry> DesktopEntries::match(const QString& instance,
                                                  const QString& cls) const {
    auto same = [](const QString& a, const QString& b) {
        return !a.isEmpty() && a.compare(b, Qt::CaseInsensitive) == 0;
    };
    // The application's own word about its windows beats a guess from the file name.
    for (const auto& e : m_entries)
        if (same(e.startupWMClass, cls) || same(e.startupWMClass, instance))
            return e;
    for (const auto& e : m_entries)
        if (same(e.id, cls) || same(e.id, instance))
            return e;
    // Reverse-domain ids (org.gnome.Nautilus) against a plain class (Nautilus).
    for (const auto& e : m_entries) {
        const QString last = e.id.section(QLatin1Char('.'), -1);
        if (e.id.contains(QLatin1Char('.')) && (same(last, cls) || same(last, instance)))
            return e;
    }
    return std::nullopt;
}

} // namespace tk::platform
