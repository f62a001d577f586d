#include "TrayApp.h"

#include <QAction>
#include <QApplication>
#include <QIcon>
#include <QMenu>
#include <QPainter>
#include <QPixmap>
#include <QSystemTrayIcon>

namespace tessel::app {

namespace {

// Drawn rather than shipped, so the executable needs no resource files.
QIcon trayIcon() {
    QPixmap pixmap(64, 64);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setBrush(QColor(0x2f, 0x6f, 0xeb));
    painter.setPen(Qt::NoPen);
    painter.drawEllipse(4, 4, 56, 56);
    painter.setBrush(Qt::white);
    painter.drawRoundedRect(26, 14, 12, 26, 6, 6);
    painter.drawRect(30, 42, 4, 8);
    return QIcon(pixmap);
}

} // namespace

int runTrayApp(int argc, char** argv) {
    QApplication app(argc, argv);
    app.setApplicationName(QStringLiteral("VelmoraTessel"));
    app.setQuitOnLastWindowClosed(false);

    QMenu menu;
    QAction* quit = menu.addAction(QStringLiteral("Quit Velmora Tessel"));
    QObject::connect(quit, &QAction::triggered, &app, &QApplication::quit);

    QSystemTrayIcon tray(trayIcon());
    tray.setToolTip(QStringLiteral("Velmora Tessel"));
    tray.setContextMenu(&menu);
    tray.show();
    return app.exec();
}

} // namespace tessel::app
