// The one way a failure reaches the eye: its human line in red, and its
// details behind "Details" with "Copy details". Built anew for each failure,
// so a new one never inherits an open group.
#pragma once

#include "app/AppModel.h"

#include <QWidget>

#include <functional>
#include <optional>

namespace tessel::app {

QWidget* errorNotice(const QString& humanLine, const std::optional<QString>& details,
                     QWidget* parent);

// The model's error, or null when there is none; a refused audio permission
// adds a button that opens the desktop's sound settings (hidden when there
// are none). `dismiss` takes the popover down first, where there is one.
QWidget* modelErrorView(AppModel& model, const std::function<void()>& dismiss, QWidget* parent);

} // namespace tessel::app
