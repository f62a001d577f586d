#include "ui/ErrorNotice.h"

#include "ui/DesktopSettings.h"
#include "ui/Widgets.h"

#include <QApplication>
#include <QClipboard>
#include <QToolButton>
#include <QVBoxLayout>

namespace tessel::app {

QWidget* errorNotice(const QString& humanLine, const std::optional<QString>& details,
                     QWidget* parent) {
    auto* box = new QWidget(parent);
    auto* layout = new QVBoxLayout(box);
    layout->setContentsMargins(0, 0, 0, 0);
    auto* line = textLine(humanLine, box);
    line->setObjectName(QStringLiteral("errorLine"));
    line->setStyleSheet(QStringLiteral("color: #d0342c;"));
    layout->addWidget(line);
    if (!details) {
        return box;
    }
    auto* group = new QWidget(box);
    auto* rows = new QVBoxLayout(group);
    rows->setContentsMargins(0, 6, 0, 0);
    rows->setSpacing(8);
    auto* text = textLine(*details, group, true);
    text->setFont(QFont(QStringLiteral("monospace")));
    rows->addWidget(text);
    // Copying and unfolding stay inside the popover.
    rows->addWidget(button(QStringLiteral("Copy details"), group,
                           [copy = *details] { QApplication::clipboard()->setText(copy); }),
                    0, Qt::AlignLeft);
    group->hide();
    auto* toggle = new QToolButton(box);
    toggle->setText(QStringLiteral("Details"));
    toggle->setAccessibleName(QStringLiteral("Details"));
    toggle->setCheckable(true);
    toggle->setAutoRaise(true);
    toggle->setArrowType(Qt::RightArrow);
    toggle->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    QObject::connect(toggle, &QToolButton::toggled, group, [toggle, group](bool open) {
        toggle->setArrowType(open ? Qt::DownArrow : Qt::RightArrow);
        group->setVisible(open);
    });
    layout->addWidget(toggle, 0, Qt::AlignLeft);
    layout->addWidget(group);
    return box;
}

QWidget* modelErrorView(AppModel& model, const std::function<void()>& dismiss, QWidget* parent) {
    if (!model.error()) {
        return nullptr;
    }
    QWidget* notice = errorNotice(*model.error(), model.errorDetails(), parent);
    if (model.permissionError()) {
        if (const auto settings =
                soundSettings(QProcessEnvironment::systemEnvironment(), findOnPath)) {
            notice->layout()->addWidget(button(model.permissionError()->settingsButtonTitle(),
                                               notice, [dismiss, command = *settings] {
                                                   dismiss();
                                                   launch(command);
                                               }));
        }
    }
    return notice;
}

} // namespace tessel::app
