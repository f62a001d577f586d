#include "ui/InboxBlock.h"

#include "ui/Symbols.h"
#include "ui/Widgets.h"

#include <QCheckBox>
#include <QPointer>
#include <QVBoxLayout>

namespace tessel::app {

QWidget* inboxBlock(AppModel& model, NotifyFeedModel& feed, std::function<void()> openInbox,
                    QWidget* parent) {
    auto* box = new QWidget(parent);
    auto* column = new QVBoxLayout(box);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(6);
    QString label = QStringLiteral("Inbox");
    if (model.member() && feed.unread() >= 1) {
        label += QStringLiteral(" · %1 unread").arg(feed.unread());
    }
    column->addWidget(iconButton(QStringLiteral("tray"), QStringLiteral("Open inbox in browser"),
                                 label, box, std::move(openInbox)),
                      0, Qt::AlignLeft);
    auto* desktop = new QCheckBox(QStringLiteral("Desktop notifications"), box);
    desktop->setChecked(feed.desktopNotifications());
    QPointer<NotifyFeedModel> owner(&feed);
    QObject::connect(desktop, &QCheckBox::toggled, box, [owner](bool on) {
        if (owner) {
            owner->setDesktopNotifications(on);
        }
    });
    column->addWidget(desktop);
    if (model.member() && feed.desktopNotifications()) {
        if (const auto line = feed.humanLine() ? feed.humanLine() : feed.deliveryLine()) {
            column->addWidget(textLine(*line, box, true));
        }
    }
    return box;
}

} // namespace tessel::app
