#include "ui/ErrorNotice.h"

#include "ui/DesktopSettings.h"
#include "ui/Widgets.h"

#include <QApplication>
#include <QClipboard>
#include <QToolButton>
#include <QVBoxLayout>

namespace tessel::app {

ErrorNotice::ErrorNotice(QWidget* parent) : QWidget(parent) {
    column_ = new QVBoxLayout(this);
    column_->setContentsMargins(0, 0, 0, 0);
    line_ = textLine(QString(), this);
    line_->setObjectName(QStringLiteral("errorLine"));
    line_->setStyleSheet(QStringLiteral("color: #d0342c;"));
    column_->addWidget(line_);

    toggle_ = new QToolButton(this);
    toggle_->setText(QStringLiteral("Details"));
    toggle_->setAccessibleName(QStringLiteral("Details"));
    toggle_->setCheckable(true);
    toggle_->setAutoRaise(true);
    toggle_->setArrowType(Qt::RightArrow);
    toggle_->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    toggle_->setFocusPolicy(Qt::StrongFocus);
    column_->addWidget(toggle_, 0, Qt::AlignLeft);

    group_ = new QWidget(this);
    auto* rows = new QVBoxLayout(group_);
    rows->setContentsMargins(0, 6, 0, 0);
    rows->setSpacing(8);
    details_ = textLine(QString(), group_, true);
    details_->setFont(QFont(QStringLiteral("monospace")));
    rows->addWidget(details_);
    // Copying and unfolding stay inside the popover.
    rows->addWidget(button(QStringLiteral("Copy details"), group_,
                           [this] { QApplication::clipboard()->setText(details_->text()); }),
                    0, Qt::AlignLeft);
    group_->hide();
    column_->addWidget(group_);
    connect(toggle_, &QToolButton::toggled, this, [this](bool open) {
        toggle_->setArrowType(open ? Qt::DownArrow : Qt::RightArrow);
        group_->setVisible(open);
    });
    setVisible(false);
}

void ErrorNotice::setFailure(const std::optional<QString>& humanLine,
                             const std::optional<QString>& details) {
    setVisible(humanLine.has_value());
    line_->setText(humanLine.value_or(QString()));
    const QString text = details.value_or(QString());
    if (details_->text() != text) {
        details_->setText(text);
        toggle_->setChecked(false);
    }
    toggle_->setVisible(details.has_value());
    if (!details) {
        group_->hide();
    }
}

ModelErrorView::ModelErrorView(AppModel& model, std::function<void()> dismiss, QWidget* parent)
    : ErrorNotice(parent), model_(&model), dismiss_(std::move(dismiss)) {
    settings_ = button(QString(), this, [this] {
        const auto command = soundSettings(QProcessEnvironment::systemEnvironment(), findOnPath);
        if (dismiss_) {
            dismiss_();
        }
        if (command) {
            launch(*command);
        }
    });
    column_->addWidget(settings_, 0, Qt::AlignLeft);
    connect(&model, &AppModel::errorChanged, this, &ModelErrorView::update);
    update();
}

void ModelErrorView::update() {
    if (!model_) {
        return;
    }
    setFailure(model_->error(), model_->errorDetails());
    const bool offered =
        model_->error() && model_->permissionError() &&
        soundSettings(QProcessEnvironment::systemEnvironment(), findOnPath).has_value();
    if (offered) {
        const QString title = model_->permissionError()->settingsButtonTitle();
        settings_->setText(title);
        settings_->setAccessibleName(title);
    }
    settings_->setVisible(offered);
}

} // namespace tessel::app
