// The popover's inbox rows: "Inbox" with the unread count, the "Desktop
// notifications" switch, and the feed's line about delivery. Built once and
// kept up to date from the member and the feed.
#pragma once

#include "app/AppModel.h"
#include "notify/NotifyFeedModel.h"

#include <QPointer>
#include <QWidget>

#include <functional>

class QCheckBox;
class QLabel;
class QToolButton;

namespace tessel::app {

class InboxBlock : public QWidget {
    Q_OBJECT

public:
    // `openInbox` takes the popover down and opens the inbox in the browser.
    InboxBlock(AppModel& model, NotifyFeedModel& feed, std::function<void()> openInbox,
               QWidget* parent = nullptr);

private:
    void update();

    QPointer<AppModel> model_;
    QPointer<NotifyFeedModel> feed_;
    QToolButton* inbox_ = nullptr;
    QCheckBox* desktop_ = nullptr;
    QLabel* line_ = nullptr;
};

} // namespace tessel::app
