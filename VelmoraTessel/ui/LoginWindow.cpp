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
    // Every change counts, typed or set by assistive technology; the model's
    // own text coming back through refresh() is not sent to it again.
    connect(address_, &QLineEdit::textChanged, this, [this](const QString& text) {
        if (model_ && text != model_->loginURL()) {
            model_->setLoginURL(text);
        }
    });
    layout->addWidget(address_);

    auto* statusBox = new QWidget(this);
    statusRows_ = new QVBoxLayout(statusBox);
    statusRows_->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(statusBox);

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
    connect(&model, &AppModel::changed, this, &LoginWindow::refresh, Qt::QueuedConnection);
    refresh();
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

    delete status_;
    status_ = new QWidget(this);
    auto* rows = new QVBoxLayout(status_);
    rows->setContentsMargins(0, 0, 0, 0);
    if (const auto& grant = model.grant()) {
        rows->addWidget(textLine(QStringLiteral("Enter this code at ") +
                                     model.endpoints().authServiceURL.host() +
                                     QStringLiteral("/device:"),
                                 status_));
        auto* code = textLine(grant->userCode, status_);
        code->setStyleSheet(
            QStringLiteral("font-family: monospace; font-size: 24pt; font-weight: bold;"));
        rows->addWidget(code);
        auto* buttons = new QHBoxLayout;
        buttons->addWidget(button(QStringLiteral("Copy code"), status_, [text = grant->userCode] {
            QApplication::clipboard()->setText(text);
        }));
        buttons->addWidget(button(QStringLiteral("Open sign-in page"), status_,
                                  [this, url = grant->verificationURL] { openURL_(url); }));
        buttons->addStretch();
        rows->addLayout(buttons);
        rows->addWidget(textLine(QStringLiteral("Waiting for your approval…"), status_, true));
    }
    if (QWidget* error = modelErrorView(
            model, [] {}, status_)) {
        rows->addWidget(error);
    }
    statusRows_->addWidget(status_);
}

} // namespace tessel::app
