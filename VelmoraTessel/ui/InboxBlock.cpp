#include "ui/InboxBlock.h"

#include "ui/Symbols.h"
#include "ui/Widgets.h"

#include <QCheckBox>
#include <QVBoxLayout>

namespace tessel::app {

InboxBlock::InboxBlock(AppModel& model, NotifyFeedModel& feed, std::function<void()> openInbox,
                       QWidget* parent)
    : QWidget(parent), model_(&model), feed_(&feed) {
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(6);
    inbox_ = iconButton(QStringLiteral("tray"), QStringLiteral("Open inbox in browser"),
                        QStringLiteral("Inbox"), this, std::move(openInbox));
    column->addWidget(inbox_, 0, Qt::AlignLeft);
    desktop_ = new QCheckBox(QStringLiteral("Desktop notifications"), this);
    connect(desktop_, &QCheckBox::toggled, this, [this](bool on) {
        if (feed_ && feed_->desktopNotifications() != on) {
            feed_->setDesktopNotifications(on);
        }
    });
    column->addWidget(desktop_);
    line_ = textLine(QString(), this, true);
    column->addWidget(line_);
    connect(&model, &AppModel::memberChanged, this, &InboxBlock::update);
    connect(&feed, &NotifyFeedModel::changed, this, &InboxBlock::update);
    update();
}

void InboxBlock::update() {
    if (!model_ || !feed_) {
        return;
    }
    const bool member = model_->member().has_value();
    QString label = QStringLiteral("Inbox");
    if (member && feed_->unread() >= 1) {
        label += QStringLiteral(" · %1 unread").arg(feed_->unread());
    }
    setWords(inbox_, QStringLiteral("Open inbox in browser"), label);
    if (desktop_->isChecked() != feed_->desktopNotifications()) {
        desktop_->setChecked(feed_->desktopNotifications());
    }
    std::optional<QString> line;
    if (member && feed_->desktopNotifications()) {
        line = feed_->humanLine() ? feed_->humanLine() : feed_->deliveryLine();
    }
    line_->setText(line.value_or(QString()));
    line_->setVisible(line.has_value());
}

} // namespace tessel::app
