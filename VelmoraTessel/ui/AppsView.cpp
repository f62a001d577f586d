#include "ui/AppsView.h"

#include "apps/ZipAppInstaller.h"
#include "ui/Symbols.h"
#include "ui/Widgets.h"

#include <QHBoxLayout>
#include <QMouseEvent>
#include <QProgressBar>
#include <QStyleOptionFocusRect>
#include <QStylePainter>
#include <QTimer>
#include <QVBoxLayout>

namespace tessel::app {

namespace {

// A row that launches when clicked anywhere.
class AppRow : public QWidget {
public:
    AppRow(std::function<void()> launch, QWidget* parent)
        : QWidget(parent), launch_(std::move(launch)) {
        setCursor(Qt::PointingHandCursor);
        setFocusPolicy(Qt::StrongFocus);
    }

protected:
    void mouseReleaseEvent(QMouseEvent* event) override {
        if (event->button() == Qt::LeftButton && rect().contains(event->position().toPoint())) {
            launch_();
        }
    }
    void keyPressEvent(QKeyEvent* event) override {
        if (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter ||
            event->key() == Qt::Key_Space) {
            launch_();
            return;
        }
        QWidget::keyPressEvent(event);
    }
    // The row has no frame of its own: without this, Tab seems to go nowhere.
    void paintEvent(QPaintEvent* event) override {
        QWidget::paintEvent(event);
        if (hasFocus()) {
            QStylePainter painter(this);
            QStyleOptionFocusRect option;
            option.initFrom(this);
            painter.drawPrimitive(QStyle::PE_FrameFocusRect, option);
        }
    }

private:
    std::function<void()> launch_;
};

} // namespace

AppsView::AppsView(QWidget* parent) : QWidget(parent) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
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
    if (model_) {
        connect(model_, &AppsModel::changed, this, &AppsView::scheduleRebuild);
    }
    rebuild();
}

void AppsView::scheduleRebuild() {
    rebuildLater_.request();
}

void AppsView::rebuild() {
    delete body_;
    body_ = nullptr;
    setVisible(model_ != nullptr);
    if (!model_) {
        return;
    }
    body_ = new QWidget(this);
    auto* rows = new QVBoxLayout(body_);
    rows->setContentsMargins(0, 0, 0, 0);
    rows->setSpacing(4);
    rows->addWidget(textLine(QStringLiteral("Apps"), body_, true));
    for (const VelmoraApp& app : model_->apps()) {
        rows->addWidget(row(app));
        if (const auto message = model_->message(app.id)) {
            rows->addWidget(textLine(*message, body_, true));
        }
    }
    layout()->addWidget(body_);
}

QWidget* AppsView::row(const VelmoraApp& app) {
    QPointer<AppsModel> model = model_;
    const auto launch = [model, id = app.id] {
        spawn([model, id]() -> Task<void> {
            if (model) {
                co_await model->activate(id);
            }
        });
    };
    auto* row = new AppRow(launch, body_);
    row->setMinimumHeight(28);
    row->setAccessibleName(app.name + QStringLiteral(", ") + app.subtitle);
    auto* line = new QHBoxLayout(row);
    line->setContentsMargins(0, 0, 0, 0);
    auto* symbol = new QLabel(row);
    symbol->setPixmap(symbolIcon(app.symbol, palette()).pixmap(18, 18));
    line->addWidget(symbol);
    line->addWidget(new QLabel(app.name, row));
    auto* subtitle = new QLabel(app.subtitle, row);
    subtitle->setStyleSheet(QStringLiteral("color: palette(placeholder-text);"));
    line->addWidget(subtitle);
    line->addStretch();

    const bool installing = model_->isInstalling(app.id);
    row->setEnabled(!installing);
    const AppLauncher::State state = model_->state(app.id);
    if (installing) {
        auto* busy = new QProgressBar(row);
        busy->setRange(0, 0);
        busy->setTextVisible(false);
        busy->setFixedSize(48, 8);
        busy->setAccessibleName(QStringLiteral("Downloading and installing ") + app.name);
        line->addWidget(busy);
    } else if (state.kind == AppLauncher::State::Kind::notInstalled) {
        auto* get = button(QStringLiteral("Get"), row, launch);
        get->setToolTip(state.url && ZipAppInstaller::isArchive(*state.url)
                            ? QStringLiteral("Download and install")
                            : QStringLiteral("Opens the install page"));
        line->addWidget(get);
    } else {
        line->addWidget(iconButton(state.kind == AppLauncher::State::Kind::installed
                                       ? QStringLiteral("arrow.up.forward.app")
                                       : QStringLiteral("safari"),
                                   QStringLiteral("Open"), QString(), row, launch));
    }
    return row;
}

} // namespace tessel::app
