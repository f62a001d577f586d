// What the popover shows with no capture: the call just saved, the search
// for calls left open on the server, and one row per open call with its stop
// and its notes. Each row stands by its own test, so several can show at once.
#pragma once

#include "app/AppModel.h"

#include <QWidget>

#include <functional>

namespace tessel::app {

class IdleBlock : public QWidget {
    Q_OBJECT

public:
    // `dismiss` takes the popover down before a window or the browser opens.
    IdleBlock(AppModel& model, std::function<void()> dismiss, QWidget* parent = nullptr);
};

} // namespace tessel::app
