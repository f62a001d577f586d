#include "ui/AppsView.h"

#include "apps/ZipAppInstaller.h"
#include "ui/Symbols.h"
#include "ui/Widgets.h"

#include <QHBoxLayout>
#include <QMouseEvent>
#include <QProgressBar>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>

namespace tessel::app {

namespace {

// The row's line: a click anywhere on it launches. It is no Tab stop: the
// keyboard reaches the same launch through the row's button.
class ClickLine : public QWidget {
public:
    ClickLine(std::function<void()> launch, QWidget* parent)
        : QWidget(parent), launch_(std::move(launch)) {
        setCursor(Qt::PointingHandCursor);
    }

protected:
    void mouseReleaseEvent(QMouseEvent* event) override {
        if (event->button() == Qt::LeftButton && rect().contains(event->position().toPoint())) {
            launch_();
        }
    }

private:
    std::function<void()> launch_;
};

} // namespace

class AppRow : public QWidget {
public:
    AppRow(const QString& id, std::function<void()> launch, QWidget* parent)
        : QWidget(parent), id_(id) {
        auto* column = new QVBoxLayout(this);
        column->setContentsMargins(0, 0, 0, 0);
        column->setSpacing(2);
        line_ = new ClickLine(launch, this);
        line_->setMinimumHeight(28);
        auto* line = new QHBoxLayout(line_);
        line->setContentsMargins(0, 0, 0, 0);
        symbol_ = new QLabel(line_);
        line->addWidget(symbol_);
        name_ = new QLabel(line_);
        line->addWidget(name_);
        subtitle_ = new QLabel(line_);
        subtitle_->setStyleSheet(QStringLiteral("color: palette(placeholder-text);"));
        line->addWidget(subtitle_);
        line->addStretch();
        busy_ = new QProgressBar(line_);
        busy_->setRange(0, 0);
        busy_->setTextVisible(false);
        busy_->setFixedSize(48, 8);
        busy_->hide();
        line->addWidget(busy_);
        action_ = new QToolButton(line_);
        action_->setIconSize(QSize(22, 22));
        action_->setFocusPolicy(Qt::StrongFocus);
        connect(action_, &QToolButton::clicked, this, std::move(launch));
        line->addWidget(action_);
        column->addWidget(line_);
        message_ = textLine(QString(), this, true);
        message_->hide();
        column->addWidget(message_);
    }

    const QString& id() const { return id_; }

    void present(const VelmoraApp& app, AppLauncher::State state, bool installing,
                 const std::optional<QString>& message) {
        using Kind = AppLauncher::State::Kind;
        line_->setAccessibleName(app.name + QStringLiteral(", ") + app.subtitle);
        if (symbolName_ != app.symbol) {
            symbolName_ = app.symbol;
            symbol_->setPixmap(symbolIcon(app.symbol, palette()).pixmap(18, 18));
        }
        name_->setText(app.name);
        subtitle_->setText(app.subtitle);
        name_->setEnabled(!installing);
        subtitle_->setEnabled(!installing);
        busy_->setAccessibleName(QStringLiteral("Downloading and installing ") + app.name);

        // One button for Get and Open, so a change of state keeps its focus.
        if (state.kind == Kind::notInstalled) {
            action_->setIcon(QIcon());
            action_->setText(QStringLiteral("Get"));
            action_->setToolButtonStyle(Qt::ToolButtonTextOnly);
            action_->setAutoRaise(false);
            action_->setToolTip(state.url && ZipAppInstaller::isArchive(*state.url)
                                    ? QStringLiteral("Download and install")
                                    : QStringLiteral("Opens the install page"));
            action_->setAccessibleName(QString());
        } else {
            action_->setIcon(symbolIcon(state.kind == Kind::installed
                                            ? QStringLiteral("arrow.up.forward.app")
                                            : QStringLiteral("safari"),
                                        palette()));
            action_->setText(QString());
            action_->setToolButtonStyle(Qt::ToolButtonIconOnly);
            action_->setAutoRaise(true);
            action_->setToolTip(QStringLiteral("Open"));
            action_->setAccessibleName(QStringLiteral("Open"));
        }
        // While the row installs its progress stands in the button's place, and
        // holds the focus the button had, until the button comes back.
        if (installing) {
            busy_->show();
            if (action_->hasFocus()) {
                busy_->setFocus(Qt::OtherFocusReason);
            }
            action_->hide();
        } else {
            action_->show();
            if (busy_->hasFocus()) {
                action_->setFocus(Qt::OtherFocusReason);
            }
            busy_->hide();
        }
        message_->setText(message.value_or(QString()));
        message_->setVisible(message.has_value());
    }

private:
    QString id_;
    QString symbolName_;
    QWidget* line_;
    QLabel* symbol_;
    QLabel* name_;
    QLabel* subtitle_;
    QProgressBar* busy_;
    QToolButton* action_;
    QLabel* message_;
};

AppsView::AppsView(QWidget* parent) : QWidget(parent) {
    rows_ = new QVBoxLayout(this);
    rows_->setContentsMargins(0, 0, 0, 0);
    rows_->setSpacing(4);
    rows_->addWidget(textLine(QStringLiteral("Apps"), this, true));
    hide();
}

void AppsView::setModel(AppsModel* model) {
    if (model_ == model) {
        return;
    }
    if (model_) {
        disconnect(model_, nullptr, this, nullptr);
    }
    model_ = model;
    if (!model_) {
        // The popover swaps one model for the next in one go: hidden only when
        // none follows, so the rows keep their focus across a swap.
        QTimer::singleShot(0, this, [this] {
            if (!model_) {
                hide();
            }
        });
        return;
    }
    connect(model_, &AppsModel::changed, this, &AppsView::sync);
    sync();
    show();
}

void AppsView::launch(const QString& id) {
    QPointer<AppsModel> model = model_;
    spawn([model, id]() -> Task<void> {
        if (model) {
            co_await model->activate(id);
        }
    });
}

void AppsView::sync() {
    if (!model_) {
        return;
    }
    QList<AppRow*> rows;
    for (const VelmoraApp& app : model_->apps()) {
        const auto known = std::find_if(shown_.begin(), shown_.end(),
                                        [&](const AppRow* row) { return row->id() == app.id; });
        AppRow* row = known != shown_.end()
                          ? *known
                          : new AppRow(
                                app.id, [this, id = app.id] { launch(id); }, this);
        row->present(app, model_->state(app.id), model_->isInstalling(app.id),
                     model_->message(app.id));
        rows.push_back(row);
    }
    for (AppRow* gone : std::as_const(shown_)) {
        if (!rows.contains(gone)) {
            gone->hide(); // passes its focus on before it goes
            rows_->removeWidget(gone);
            gone->deleteLater();
        }
    }
    for (qsizetype i = 0; i < rows.size(); ++i) {
        if (rows_->indexOf(rows[i]) != i + 1) {
            rows_->removeWidget(rows[i]);
            rows_->insertWidget(int(i) + 1, rows[i]);
        }
    }
    shown_ = rows;
}

} // namespace tessel::app
