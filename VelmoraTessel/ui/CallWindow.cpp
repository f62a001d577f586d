#include "ui/CallWindow.h"

#include "ui/CaptureStatusView.h"
#include "ui/ErrorNotice.h"
#include "ui/Widgets.h"

#include <QApplication>
#include <QClipboard>
#include <QHBoxLayout>
#include <QKeySequence>
#include <QProgressBar>
#include <QShortcut>
#include <QVBoxLayout>

namespace tessel::app {

const QString CallWindow::disclosure = QStringLiteral(
    "Heads-up: I'm taking notes on this call with a recorder on my side; say so if you'd rather I "
    "didn't.");

CallWindow::CallWindow(AppModel& model, std::function<void(const QString&)> openWindow,
                       QWidget* parent)
    : QWidget(parent), model_(&model), openWindow_(std::move(openWindow)) {
    setWindowTitle(QStringLiteral("Take notes on this call"));
    setFixedWidth(460);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(24, 24, 24, 24);
    layout->setSpacing(16);
    auto* heading = textLine(QStringLiteral("Take notes on this call"), this);
    heading->setStyleSheet(QStringLiteral("font-weight: bold; font-size: 16pt;"));
    layout->addWidget(heading);

    title_ = new QLineEdit(this);
    title_->setPlaceholderText(QStringLiteral("Call name"));
    counterpart_ = new QLineEdit(this);
    counterpart_->setPlaceholderText(QStringLiteral("Who is on the other side?"));
    project_ = new QLineEdit(this);
    project_->setPlaceholderText(QStringLiteral("Project slug (optional)"));
    for (QLineEdit* field : {title_, counterpart_, project_}) {
        // A screen reader says the field's name; the placeholder is gone once typed over.
        field->setAccessibleName(field->placeholderText());
        layout->addWidget(field);
        connect(field, &QLineEdit::textChanged, this, &CallWindow::refresh);
    }
    layout->addWidget(textLine(disclosure, this));
    copy_ = button(QStringLiteral("Copy"), this, [this] {
        QApplication::clipboard()->setText(disclosure);
        copy_->setText(QStringLiteral("Copied"));
    });
    layout->addWidget(copy_, 0, Qt::AlignLeft);
    ack_ = new QCheckBox(
        QStringLiteral("I have shared this disclosure with the people on this call."), this);
    connect(ack_, &QCheckBox::toggled, this, &CallWindow::refresh);
    layout->addWidget(ack_);
    layout->addWidget(textLine(
        QStringLiteral("Records everything this computer plays and your microphone."), this, true));

    // Built once and shown as the model says, so a focused button stays put.
    preparing_ = new QWidget(this);
    auto* preparing = new QVBoxLayout(preparing_);
    preparing->setContentsMargins(0, 0, 0, 0);
    preparing->addWidget(
        textLine(QStringLiteral("Preparing audio permissions and starting the call…"), preparing_));
    auto* busy = new QProgressBar(preparing_);
    busy->setRange(0, 0);
    busy->setTextVisible(false);
    busy->setMaximumHeight(6);
    busy->setAccessibleName(QStringLiteral("Preparing audio permissions and starting the call…"));
    preparing->addWidget(busy);
    layout->addWidget(preparing_);
    layout->addWidget(new ModelErrorView(model, {}, this));
    signIn_ =
        button(QStringLiteral("Sign in…"), this, [this] { openWindow_(QStringLiteral("login")); });
    layout->addWidget(signIn_, 0, Qt::AlignLeft);
    capture_ = new CaptureStatusView(false,
                                     CaptureActions::of(
                                         model, [] {}, openWindow_),
                                     this);
    layout->addWidget(capture_);

    auto* row = new QHBoxLayout;
    cancel_ = button(QStringLiteral("Cancel"), this, [this] { close(); });
    start_ = button(QStringLiteral("Start"), this, [this] {
        QPointer<CallWindow> self(this);
        QPointer<AppModel> model = model_;
        const QString title = title_->text();
        const QString counterpart = counterpart_->text();
        const QString project = project_->text();
        const bool ack = ack_->isChecked();
        spawn([self, model, title, counterpart, project, ack]() -> Task<void> {
            if (!model) {
                co_return;
            }
            const bool started = co_await model->start(title, counterpart, project, ack);
            if (started && self) {
                self->close();
            }
        });
    });
    start_->setDefault(true);
    // A default button acts on Return only inside a dialog; this is a window.
    for (QLineEdit* field : {title_, counterpart_, project_}) {
        connect(field, &QLineEdit::returnPressed, start_, &QPushButton::click);
    }
    row->addWidget(cancel_);
    row->addStretch();
    row->addWidget(start_);
    layout->addLayout(row);

    connect(new QShortcut(QKeySequence(Qt::Key_Escape), this), &QShortcut::activated, this,
            &QWidget::close);
    for (auto signal :
         {&AppModel::captureChanged, &AppModel::memberChanged, &AppModel::openCallsChanged}) {
        connect(&model, signal, this, &CallWindow::refresh);
    }
    refresh();
    keepContentHeight(this);
}

bool CallWindow::canStart() const {
    return model_ && model_->canStartCapture() && ack_->isChecked() &&
           !title_->text().trimmed().isEmpty() && !counterpart_->text().trimmed().isEmpty();
}

void CallWindow::refresh() {
    if (!model_) {
        return;
    }
    AppModel& model = *model_;
    start_->setEnabled(canStart());
    cancel_->setEnabled(!model.startingCapture());
    preparing_->setVisible(model.startingCapture());
    signIn_->setVisible(!model.member() ||
                        model.member()->expiresAt <= QDateTime::currentDateTimeUtc());
    capture_->setSession(model.startingCapture() ? nullptr : model.capture());
}

void CallWindow::hideEvent(QHideEvent* event) {
    QWidget::hideEvent(event);
    for (QLineEdit* field : {title_, counterpart_, project_}) {
        field->clear();
    }
    ack_->setChecked(false);
    copy_->setText(QStringLiteral("Copy"));
}

} // namespace tessel::app
