#pragma once

#include "platform/DesktopEntries.h"
#include "platform/Platform.h"
#include "platform/x11/X11Connection.h"

#include <mutex>

namespace tk::platform {

class X11Workspace final : public Workspace {
public:
    explicit X11Workspace(std::shared_ptr<X11Connection> conn) : m_conn(std::move(conn)) {}
    std::optional<FrontApp> frontApp() override;
    // Processes of the application windows under a root-pixel point, topmost first.
    std::vector<qint64> pidsAt(QPoint px);

private:
    QByteArray property(XId w, XId prop, XId type);
    const DesktopEntries& entries();
    std::shared_ptr<X11Connection> m_conn;
    std::once_flag m_scanOnce;
    DesktopEntries m_entries;
};

} // namespace tk::platform
