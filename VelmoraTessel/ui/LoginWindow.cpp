#include "ui/LoginWindow.h"

#include "ui/ErrorNotice.h"
#include "ui/Widgets.h"

#include <QApplication>
#include <QClipboard>
#include <QHBoxLayout>
#include <QKeySequence>
#include <QShortcut>
#include <QVBoxLayout>

namespace tessel::app {

LoginWindow::LoginWindow(AppModel& model, OpenURL openURL, QWidget* parent)
    : QWidget(parent), model_(&model), openURL_(std::move(openURL)) {
    setWindowTitle(QStringLiteral("Sign in to Velmora"));
    setFixedWidth(460);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(24, 24, 24, 24);
    layout->setSpacing(16);
    auto* heading = textLine(QStringLiteral("Sign in to Velmora"), this);
    heading->setStyleSheet(QStringLiteral("font-weight: bold; font-size: 16pt;"));
    layout->addWidget(heading);

    address_ = new QLineEdit(this);
    address_->setPlaceholderText(QStringLiteral("Organisation meet URL"));
    address_->setAccessibleName(address_->placeholderText());
    // Every change counts, typed or set by assistive technology; the model's
    // own text coming back through refresh() is not sent to it again.
    connect(address_, &QLineEdit::textChanged, this, [this](const QString& text) {
        if (model_ && text != model_->loginURL()) {
            model_->setLoginURL(text);
        }
    });
    layout->addWidget(address_);

    // The code of a running sign-in, built once and shown while there is one.
    grant_ = new QWidget(this);
    auto* grant = new QVBoxLayout(grant_);
    grant->setContentsMargins(0, 0, 0, 0);
    enterAt_ = textLine(QString(), grant_);
    grant->addWidget(enterAt_);
    code_ = textLine(QString(), grant_);
    code_->setStyleSheet(
        QStringLiteral("font-family: monospace; font-size: 24pt; font-weight: bold;"));
    grant->addWidget(code_);
    auto* buttons = new QHBoxLayout;
    buttons->addWidget(button(QStringLiteral("Copy code"), grant_, [this] {
        if (model_ && model_->grant()) {
            QApplication::clipboard()->setText(model_->grant()->userCode);
        }
    }));
    buttons->addWidget(button(QStringLiteral("Open sign-in page"), grant_, [this] {
        if (model_ && model_->grant()) {
            openURL_(model_->grant()->verificationURL);
        }
    }));
    buttons->addStretch();
    grant->addLayout(buttons);
    grant->addWidget(textLine(QStringLiteral("Waiting for your approval…"), grant_, true));
    layout->addWidget(grant_);
    layout->addWidget(new ModelErrorView(model, {}, this));

    auto* row = new QHBoxLayout;
    row->addWidget(button(QStringLiteral("Cancel"), this, [this] { close(); }));
    row->addStretch();
    signIn_ = button(QStringLiteral("Sign in"), this, [this] {
        succeeded_ = false;
        QPointer<LoginWindow> self(this);
        if (model_) {
            model_->signInFromWindow([self] {
                if (self) {
                    self->succeeded_ = true;
                    self->close();
                }
            });
        }
    });
    signIn_->setDefault(true);
    // A default button acts on Return only inside a dialog; this is a window.
    connect(address_, &QLineEdit::returnPressed, signIn_, &QPushButton::click);
    row->addWidget(signIn_);
    layout->addLayout(row);

    connect(new QShortcut(QKeySequence(Qt::Key_Escape), this), &QShortcut::activated, this,
            &QWidget::close);
    for (auto signal : {&AppModel::organisationChanged, &AppModel::signInChanged,
                        &AppModel::captureChanged, &AppModel::openCallsChanged}) {
        connect(&model, signal, this, &LoginWindow::refresh);
    }
    refresh();
    keepContentHeight(this);
}

void LoginWindow::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    succeeded_ = false;
    refresh();
}

void LoginWindow::hideEvent(QHideEvent* event) {
    QWidget::hideEvent(event);
    // Closing the window by any road ends the sign-in.
    if (model_ && !succeeded_) {
        model_->cancelSignIn();
    }
}

void LoginWindow::refresh() {
    if (!model_) {
        return;
    }
    AppModel& model = *model_;
    if (address_->text() != model.loginURL()) {
        address_->setText(model.loginURL());
    }
    address_->setEnabled(!model.signingIn() && !model.capture() && !model.stoppingOpenCall());
    signIn_->setEnabled(!model.signingIn());

    if (const auto& grant = model.grant()) {
        enterAt_->setText(QStringLiteral("Enter this code at ") +
                          model.endpoints().authServiceURL.host() + QStringLiteral("/device:"));
        code_->setText(grant->userCode);
    }
    grant_->setVisible(model.grant().has_value());
}

} // namespace tessel::app
