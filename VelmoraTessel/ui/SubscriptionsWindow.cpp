#include "ui/SubscriptionsWindow.h"

#include "app/AppVersion.h"
#include "ui/SubscriptionCard.h"
#include "ui/SubscriptionsSidebar.h"
#include "ui/SubscriptionsSummaryRow.h"
#include "ui/Symbols.h"
#include "ui/Widgets.h"

#include "subscriptions/SubscriptionsDashboardContent.h"

#include <QDir>
#include <QGraphicsColorizeEffect>
#include <QGraphicsOpacityEffect>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QKeySequence>
#include <QScrollArea>
#include <QScrollBar>
#include <QShortcut>
#include <QTimeZone>
#include <QVBoxLayout>

namespace tessel::app {

namespace {

const QString frameKey = QStringLiteral("windows/subscriptions/geometry");

} // namespace

SubscriptionsWindow::SubscriptionsWindow(SubscriptionsModel& model, QSettings& settings,
                                         Actions actions, QWidget* parent)
    : QWidget(parent), model_(&model), settings_(settings), actions_(std::move(actions)) {
    setWindowTitle(QStringLiteral("Subscriptions"));
    setMinimumSize(760, 520);
    if (!restoreGeometry(settings_.value(frameKey).toByteArray())) {
        resize(960, 640);
    }
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(20, 20, 20, 20);
    connect(new QShortcut(QKeySequence(Qt::Key_Escape), this), &QShortcut::activated, this,
            &QWidget::close);
    connect(&model, &SubscriptionsModel::changed, this, &SubscriptionsWindow::scheduleRebuild);
    // The times in the cards age: the content is built again every minute.
    minute_.setInterval(60 * 1000);
    connect(&minute_, &QTimer::timeout, this, &SubscriptionsWindow::rebuild);
    minute_.start();
    rebuild();
}

SubscriptionsWindow::~SubscriptionsWindow() {
    saveFrame();
}

void SubscriptionsWindow::saveFrame() {
    settings_.setValue(frameKey, saveGeometry());
}

void SubscriptionsWindow::closeEvent(QCloseEvent* event) {
    saveFrame();
    QWidget::closeEvent(event);
}

void SubscriptionsWindow::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    const double cardsWidth = std::max(width() - 40 - 16, 0) * 0.62;
    if (cardColumns(cardsWidth) != columns_) {
        scheduleRebuild();
    }
}

void SubscriptionsWindow::scheduleRebuild() {
    rebuildLater_.request();
}

void SubscriptionsWindow::rebuild() {
    if (!model_) {
        return;
    }
    const MeterlySnapshot snapshot = model_->snapshot().value_or(MeterlySnapshot::emptyDashboard());
    const SubscriptionsDashboardContent content(snapshot, QDateTime::currentDateTimeUtc(),
                                                QLocale(), QTimeZone::systemTimeZone());
    const int scrolled = cardsArea_ ? cardsArea_->verticalScrollBar()->value() : 0;
    delete body_;
    body_ = new QWidget(this);
    auto* column = new QVBoxLayout(body_);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(16);
    column->addWidget(header(content));

    auto* row = new QHBoxLayout;
    row->setSpacing(16);
    cardsArea_ = new QScrollArea(body_);
    cardsArea_->setWidgetResizable(true);
    cardsArea_->setFrameShape(QFrame::NoFrame);
    cardsArea_->setWidget(cards(content));
    auto* sidebar = new QScrollArea(body_);
    sidebar->setWidgetResizable(true);
    sidebar->setFrameShape(QFrame::NoFrame);
    sidebar->setWidget(subscriptionsSidebar(
        content,
        [this] {
            actions_.openURL(QUrl::fromLocalFile(QDir::home().filePath(".meterly/roles.toml")));
        },
        body_));
    row->addWidget(cardsArea_, 62);
    row->addWidget(sidebar, 38);
    column->addLayout(row, 1);

    auto* footer = new QHBoxLayout;
    QLabel* version =
        textLine(AppVersion::label() + QStringLiteral(" · engine meterly"), body_, true);
    version->setWordWrap(false);
    footer->addWidget(version);
    footer->addStretch();
    QLabel* fetched = textLine(content.fetched, body_, true);
    fetched->setWordWrap(false);
    fetched->setFont(QFont(QStringLiteral("monospace")));
    footer->addWidget(fetched);
    column->addLayout(footer);
    layout()->addWidget(body_);
    cardsArea_->verticalScrollBar()->setValue(scrolled);
}

QWidget* SubscriptionsWindow::header(const SubscriptionsDashboardContent& content) {
    SubscriptionsModel& model = *model_;
    auto* box = new QWidget(body_);
    auto* column = new QVBoxLayout(box);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(10);
    auto* top = new QHBoxLayout;
    top->setSpacing(12);
    auto* title = new QLabel(QStringLiteral("Subscriptions"), box);
    QFont big = title->font();
    big.setBold(true);
    big.setPointSizeF(big.pointSizeF() * 1.5);
    title->setFont(big);
    top->addWidget(title);
    auto* summary = textLine(content.summary, box);
    summary->setStyleSheet(
        QStringLiteral("color: %1;").arg(tintColor(content.summaryTint, palette()).name()));
    top->addWidget(summary, 1);
    QLabel* updated = textLine(content.updated, box, true);
    updated->setWordWrap(false);
    top->addWidget(updated);
    QPointer<SubscriptionsModel> owner = model_;
    auto* refresh =
        iconButton(QStringLiteral("arrow.clockwise"), QStringLiteral("Refresh"),
                   model.isFetching() ? QStringLiteral("Refreshing…") : QStringLiteral("Refresh"),
                   box, [owner] {
                       spawn([owner]() -> Task<void> {
                           if (owner) {
                               co_await owner->refresh(true);
                           }
                       });
                   });
    refresh->setAutoRaise(false);
    refresh->setEnabled(!model.isFetching() && !model.switchingName());
    top->addWidget(refresh);
    column->addLayout(top);

    if (const auto useNow = content.useNow(); !useNow.isEmpty()) {
        auto* row = new QHBoxLayout;
        row->setSpacing(6);
        row->addWidget(textLine(QStringLiteral("Use now"), box, true));
        for (const auto& pair : useNow) {
            auto* pick = button(pair.role + QStringLiteral(" · ") + pair.seat, box,
                                [this, seat = pair.seatID] {
                                    if (seat) {
                                        select(*seat);
                                    }
                                });
            pick->setFlat(true);
            row->addWidget(pick);
        }
        row->addStretch();
        column->addLayout(row);
    }
    QStringList captions;
    if (!model.isInstalled()) {
        captions << actions_.notInstalled;
    }
    if (const auto caption =
            model.refreshCaption() ? model.refreshCaption() : model.failureCaption()) {
        captions << *caption;
    }
    captions << model.displayErrors();
    for (const QString& caption : captions) {
        column->addWidget(textLine(caption, box, true));
    }
    if (model.notificationAuthorization() != SubscriptionsModel::Authorization::authorized) {
        auto* row = new QHBoxLayout;
        row->setSpacing(4);
        QLabel* off = textLine(QStringLiteral("Subscription notifications are off."), box);
        off->setWordWrap(false);
        row->addWidget(off);
        if (actions_.notificationSettings) {
            auto* enable = button(QStringLiteral("Enable…"), box, actions_.notificationSettings);
            enable->setFlat(true);
            row->addWidget(enable);
        }
        row->addStretch();
        column->addLayout(row);
    }
    return box;
}

QWidget* SubscriptionsWindow::cards(const SubscriptionsDashboardContent& content) {
    SubscriptionsModel& model = *model_;
    auto* box = new QWidget;
    auto* grid = new QGridLayout(box);
    grid->setContentsMargins(0, 0, 0, 0);
    grid->setSpacing(16);
    grid->setAlignment(Qt::AlignTop);
    columns_ = cardColumns(std::max(width() - 40 - 16, 0) * 0.62);
    if (content.cards.isEmpty()) {
        grid->addWidget(textLine(model.isFetching()
                                     ? QStringLiteral("Reading subscriptions…")
                                     : QStringLiteral("No subscription reading yet. Choose "
                                                      "Refresh to try again."),
                                 box, true),
                        0, 0);
    }
    QPointer<SubscriptionsModel> owner = model_;
    int index = 0;
    for (const auto& card : content.cards) {
        const SubscriptionCardState state{
            .selected = selected_ == card.id(),
            .switching = model.switchingName() == card.account,
            .switchDisabled = model.isFetching() || model.switchingName().has_value(),
        };
        auto* widget = new SubscriptionCard(
            card, state,
            [owner, account = card.account] {
                spawn([owner, account]() -> Task<void> {
                    if (owner) {
                        co_await owner->use(account);
                    }
                });
            },
            actions_.openURL, box);
        widget->setObjectName(card.id());
        grid->addWidget(widget, index / columns_, index % columns_, Qt::AlignTop);
        ++index;
    }
    for (int c = 0; c < columns_; ++c) {
        grid->setColumnStretch(c, 1);
    }
    if (model.showingFailedRefresh()) {
        // The failed refresh's mark: the cards greyed and faint.
        auto* grey = new QGraphicsColorizeEffect(box);
        grey->setColor(Qt::gray);
        box->setGraphicsEffect(grey);
        auto* faint = new QGraphicsOpacityEffect(cardsArea_);
        faint->setOpacity(0.4);
        cardsArea_->setGraphicsEffect(faint);
    }
    return box;
}

void SubscriptionsWindow::select(const QString& seatID) {
    selected_ = seatID;
    rebuild();
    if (auto* card = cardsArea_->widget()->findChild<QWidget*>(seatID)) {
        cardsArea_->widget()->adjustSize();
        cardsArea_->verticalScrollBar()->setValue(card->y());
    }
}

} // namespace tessel::app
