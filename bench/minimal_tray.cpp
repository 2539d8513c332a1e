#include <QApplication>
#include <QMenu>
#include <QSystemTrayIcon>

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    app.setQuitOnLastWindowClosed(false);
    QMenu menu;
    menu.addAction(QStringLiteral("Quit"), &app, &QApplication::quit);
    QSystemTrayIcon tray(QIcon::fromTheme(QStringLiteral("mail-attachment")));
    tray.setContextMenu(&menu);
    tray.show();
    return app.exec();
}
