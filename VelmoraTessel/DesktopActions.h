// What the tray application asks of the desktop without waiting for it.
#pragma once

#include <QString>
#include <QUrl>

namespace tessel::app {

// The desktop's default application for `url`; a refusal is logged.
void openInDesktop(const QUrl& url);

// Words for the person that need no answer, without holding up the loop.
void tell(const QString& text);

} // namespace tessel::app
