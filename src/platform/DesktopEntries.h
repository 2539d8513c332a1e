#pragma once

#include <QString>
#include <QStringList>

#include <optional>
#include <vector>

namespace tk::platform {

struct DesktopEntry {
    QString id; // file name without ".desktop", sub-folders joined with '-'
    QString name;
    QString startupWMClass;
};

// The installed applications' desktop entries, searched the XDG way: the user's
// data home first, then each system data folder; an id seen earlier wins.
class DesktopEntries {
public:
    static DesktopEntries scan(const QStringList& dataDirs);
    static QStringList defaultDataDirs();
    static std::optional<DesktopEntry> parse(const QString& path, const QString& id);

    // Matches a window's WM_CLASS to its application.
    std::optional<DesktopEntry> match(const QString& instance, const QString& cls) const;
    const std::vector<DesktopEntry>& entries() const { return m_entries; }

private:
    std::vector<DesktopEntry> m_entries;
};

} // namespace tk::platform
