#include "app/AppDelegate.h"
#include "platform/Platform.h"

#include <QApplication>

int main(int argc, char** argv) {
    tk::platform::prepareProcess();
    QApplication app(argc, argv);
    app.setApplicationName(QStringLiteral("Tolmesk"));
    app.setOrganizationName(QStringLiteral("Tolmesk"));
    app.setQuitOnLastWindowClosed(false);
    auto platform = std::shared_ptr<tk::platform::Platform>(tk::platform::loadPlatform());
    tk::AppDelegate delegate(platform);
    delegate.launch();
    return app.exec();
}
