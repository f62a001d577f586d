#include "DesktopActions.h"

#include "errors/ErrorLog.h"

#include <QDesktopServices>
#include <QMessageBox>

namespace tessel::app {

void openInDesktop(const QUrl& url) {
    if (!QDesktopServices::openUrl(url)) {
        log::write(log::Level::warning, "app",
                   QStringLiteral("No application opened ") + url.toString());
    }
}

void tell(const QString& text) {
    auto* box = new QMessageBox(QMessageBox::Information, QStringLiteral("Velmora"), text);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}

} // namespace tessel::app
