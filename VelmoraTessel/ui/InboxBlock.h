// The popover's inbox rows: "Inbox" with the unread count, the "Desktop
// notifications" switch, and the feed's line about delivery.
#pragma once

#include "app/AppModel.h"
#include "notify/NotifyFeedModel.h"

#include <QWidget>

#include <functional>

namespace tessel::app {

// `openInbox` takes the popover down and opens the inbox in the browser.
QWidget* inboxBlock(AppModel& model, NotifyFeedModel& feed, std::function<void()> openInbox,
                    QWidget* parent);

} // namespace tessel::app
