#include "ui/SubscriptionsWindow.h"

#include "app/AppVersion.h"
#include "ui/SubscriptionCard.h"
#include "ui/SubscriptionFlowLayout.h"
#include "ui/SubscriptionsSidebar.h"
#include "ui/SubscriptionsSummaryRow.h"
#include "ui/Symbols.h"
#include "ui/Widgets.h"

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
const QSize smallest(760, 520);

QScrollArea* scrollArea(const QString& name, QWidget* content, QWidget* parent) {
    auto* area = new QScrollArea(parent);
    area->setWidgetResizable(true);
    area->setFrameShape(QFrame::NoFrame);
    // A Tab stop, so the keyboard can scroll it, and a screen reader names it.
    area->setAccessibleName(name);
    area->setWidget(content);
    return area;
}

double cardsWidth(int windowWidth) {
    return std::max(windowWidth - 40 - 16, 0) * 0.62;
}

} // namespace

SubscriptionsWindow::SubscriptionsWindow(SubscriptionsModel& model, QSettings& settings,
                                         Actions actions, QWidget* parent)
    : QWidget(parent), model_(&model), settings_(settings), actions_(std::move(actions)) {
    setWindowTitle(QStringLiteral("Subscriptions"));
    setMinimumSize(smallest);
    if (!restoreGeometry(settings_.value(frameKey).toByteArray())) {
        resize(960, 640);
    }
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(20, 20, 20, 20);
    column->setSpacing(16);
    column->addWidget(buildHeader());

    auto* row = new QHBoxLayout;
    row->setSpacing(16);
    cardsBox_ = new QWidget;
    cardsGrid_ = new QGridLayout(cardsBox_);
    cardsGrid_->setContentsMargins(0, 0, 0, 0);
    cardsGrid_->setSpacing(16);
    cardsGrid_->setAlignment(Qt::AlignTop);
    noCards_ = textLine(QString(), cardsBox_, true);
    noCards_->setContentsMargins(20, 20, 20, 20);
    cardsGrid_->addWidget(noCards_, 0, 0, 1, 2);
    cardsArea_ = scrollArea(QStringLiteral("Seat cards"), cardsBox_, this);
    // The failed refresh's mark: the cards greyed and faint; off otherwise.
    auto* grey = new QGraphicsColorizeEffect(cardsBox_);
    grey->setColor(Qt::gray);
    grey_ = grey;
    cardsBox_->setGraphicsEffect(grey_);
    auto* faint = new QGraphicsOpacityEffect(cardsArea_);
    faint->setOpacity(0.4);
    faint_ = faint;
    cardsArea_->setGraphicsEffect(faint_);
    sidebar_ = new SubscriptionsSidebar([this] {
        actions_.openURL(QUrl::fromLocalFile(QDir::home().filePath(".meterly/roles.toml")));
    });
    row->addWidget(cardsArea_, 62);
    sidebarArea_ =
        scrollArea(QStringLiteral("Attention, coming up and spend order"), sidebar_, this);
    row->addWidget(sidebarArea_, 38);
    column->addLayout(row, 1);

    auto* footer = new QHBoxLayout;
    QLabel* version =
        textLine(AppVersion::label() + QStringLiteral(" · engine meterly"), this, true);
    version->setWordWrap(false);
    footer->addWidget(version);
    footer->addStretch();
    fetched_ = textLine(QString(), this, true);
    fetched_->setWordWrap(false);
    fetched_->setFont(QFont(QStringLiteral("monospace")));
    footer->addWidget(fetched_);
    column->addLayout(footer);

    connect(new QShortcut(QKeySequence(Qt::Key_Escape), this), &QShortcut::activated, this,
            &QWidget::close);
    connect(&model, &SubscriptionsModel::changed, this, [this] { updateLater_.request(); });
    // The times in the cards age: the words are worked out again every minute.
    minute_.setInterval(60 * 1000);
    connect(&minute_, &QTimer::timeout, this, &SubscriptionsWindow::present);
    minute_.start();
    present();
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
    placeCards();
    fitMinimumSize();
}

// Wrapped lines need more height as the window narrows: the minimum follows
// the width, so a window manager cannot squash them.
void SubscriptionsWindow::fitMinimumSize() {
    QLayout* column = layout();
    column->activate();
    const QSize needed(std::max(smallest.width(), column->totalMinimumSize().width()),
                       std::max(smallest.height(), column->totalMinimumHeightForWidth(width())));
    if (needed != minimumSize()) {
        setMinimumSize(needed);
    }
}

QWidget* SubscriptionsWindow::buildHeader() {
    auto* box = new QWidget(this);
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
    summary_ = textLine(QString(), box);
    top->addWidget(summary_, 1);
    top->addStretch();
    updated_ = textLine(QString(), box, true);
    updated_->setWordWrap(false);
    top->addWidget(updated_);
    QPointer<SubscriptionsModel> owner = model_;
    refresh_ = iconButton(QStringLiteral("arrow.clockwise"), QStringLiteral("Refresh"),
                          QStringLiteral("Refresh"), box, [owner] {
                              spawn([owner]() -> Task<void> {
                                  if (owner) {
                                      co_await owner->refresh(true);
                                  }
                              });
                          });
    refresh_->setAutoRaise(false);
    top->addWidget(refresh_);
    column->addLayout(top);

    useNow_ = new QWidget(box);
    useNowFlow_ = new SubscriptionFlowLayout(6, useNow_);
    QLabel* useNow = textLine(QStringLiteral("Use now"), useNow_, true);
    useNow->setContentsMargins(0, 4, 0, 4); // level with the buttons' text
    useNowFlow_->addWidget(useNow);
    column->addWidget(useNow_);

    captions_ = new QVBoxLayout;
    captions_->setSpacing(10);
    column->addLayout(captions_);

    notificationsOff_ = new QWidget(box);
    auto* off = new QHBoxLayout(notificationsOff_);
    off->setContentsMargins(0, 0, 0, 0);
    off->setSpacing(4);
    QLabel* words = textLine(QStringLiteral("Subscription notifications are off."), box);
    words->setWordWrap(false);
    off->addWidget(words);
    if (actions_.notificationSettings) {
        auto* enable = button(QStringLiteral("Enable…"), box, actions_.notificationSettings);
        enable->setFlat(true);
        off->addWidget(enable);
    }
    off->addStretch();
    column->addWidget(notificationsOff_);
    return box;
}

void SubscriptionsWindow::present() {
    if (!model_) {
        return;
    }
    const MeterlySnapshot snapshot = model_->snapshot().value_or(MeterlySnapshot::emptyDashboard());
    const SubscriptionsDashboardContent content(snapshot, QDateTime::currentDateTimeUtc(),
                                                QLocale(), QTimeZone::systemTimeZone());
    const QPointer<QWidget> focused = focusWidget();
    presentHeader(content);
    presentCards(content);
    sidebar_->present(content);
    fetched_->setText(content.fetched);
    orderTabs();
    fitMinimumSize();

    // Refresh and Switch here are disabled while a refresh runs, and Qt then
    // moves their focus on; it comes back when they are enabled again, unless
    // the person has moved it since.
    if (focused && !focused->isEnabled()) {
        parked_ = focused;
        parkedAt_ = focusWidget();
    } else if (parked_ && parked_->isEnabled() && parked_->isVisible()) {
        if (focusWidget() == parkedAt_) {
            parked_->setFocus(Qt::OtherFocusReason);
        }
        parked_ = nullptr;
    }
}

// Tab goes as a person reads, header, cards, sidebar, although the widgets
// were made in another order: cards and buttons come as readings bring them.
void SubscriptionsWindow::orderTabs() {
    QList<QWidget*> chain{refresh_};
    for (const QString& role : std::as_const(useNowOrder_)) {
        chain << useNowButtons_[role];
    }
    for (QPushButton* enable : notificationsOff_->findChildren<QPushButton*>()) {
        chain << enable;
    }
    chain << cardsArea_;
    for (const QString& seat : std::as_const(cardOrder_)) {
        for (QPushButton* action : cards_[seat]->findChildren<QPushButton*>()) {
            chain << action;
        }
    }
    chain << sidebarArea_;
    for (QPushButton* action : sidebar_->findChildren<QPushButton*>()) {
        chain << action;
    }
    for (qsizetype i = 1; i < chain.size(); ++i) {
        setTabOrder(chain[i - 1], chain[i]);
    }
}

void SubscriptionsWindow::presentHeader(const SubscriptionsDashboardContent& content) {
    const SubscriptionsModel& model = *model_;
    summary_->setText(content.summary);
    summary_->setStyleSheet(
        QStringLiteral("color: %1;").arg(tintColor(content.summaryTint, palette()).name()));
    summary_->setVisible(!content.summary.isEmpty());
    updated_->setText(content.updated);
    const QString refresh =
        model.isFetching() ? QStringLiteral("Refreshing…") : QStringLiteral("Refresh");
    refresh_->setText(refresh);
    refresh_->setAccessibleName(refresh);
    refresh_->setEnabled(!model.isFetching() && !model.switchingName());

    // The buttons by role: one that stays keeps its focus; one whose role went is hidden.
    const auto useNow = content.useNow();
    QStringList roles;
    useNowSeats_.clear();
    for (const auto& pair : useNow) {
        QPushButton*& pick = useNowButtons_[pair.role];
        if (!pick) {
            pick = button(QString(), useNow_, [this, role = pair.role] {
                if (const auto seat = useNowSeats_.constFind(role); seat != useNowSeats_.cend()) {
                    select(*seat);
                }
            });
            pick->setFlat(true);
        }
        pick->setText(pair.role + QStringLiteral(" · ") + pair.seat);
        useNowSeats_.insert(pair.role, *pair.seatID);
        roles << pair.role;
    }
    if (roles != useNowOrder_) {
        for (auto it = useNowButtons_.cbegin(); it != useNowButtons_.cend(); ++it) {
            useNowFlow_->removeWidget(it.value());
            it.value()->setVisible(roles.contains(it.key()));
        }
        for (const QString& role : std::as_const(roles)) {
            useNowFlow_->addWidget(useNowButtons_[role]);
        }
        useNowOrder_ = roles;
    }
    useNow_->setVisible(!useNow.isEmpty());

    QStringList captions;
    if (!model.isInstalled()) {
        captions << actions_.notInstalled;
    }
    if (const auto caption =
            model.refreshCaption() ? model.refreshCaption() : model.failureCaption()) {
        captions << *caption;
    }
    captions << model.displayErrors();
    for (std::size_t i = 0; i < std::max<std::size_t>(captions.size(), captionLines_.size()); ++i) {
        if (i == captionLines_.size()) {
            captionLines_.push_back(textLine(QString(), this, true));
            captions_->addWidget(captionLines_.back());
        }
        if (i < std::size_t(captions.size())) {
            captionLines_[i]->setText(captions[qsizetype(i)]);
            captionLines_[i]->show();
        } else {
            captionLines_[i]->hide();
        }
    }
    notificationsOff_->setVisible(model.notificationAuthorization() !=
                                  SubscriptionsModel::Authorization::authorized);
}

void SubscriptionsWindow::presentCards(const SubscriptionsDashboardContent& content) {
    const SubscriptionsModel& model = *model_;
    noCards_->setText(model.isFetching()
                          ? QStringLiteral("Reading subscriptions…")
                          : QStringLiteral("No subscription reading yet. Choose Refresh to try "
                                           "again."));
    noCards_->setVisible(content.cards.isEmpty());

    QStringList order;
    accounts_.clear();
    for (const auto& card : content.cards) {
        const SubscriptionCardState state{
            .selected = selected_ == card.id(),
            .switching = model.switchingName() == card.account,
            .switchDisabled = model.isFetching() || model.switchingName().has_value(),
        };
        accounts_.insert(card.id(), card.account);
        SubscriptionCard*& widget = cards_[card.id()];
        if (widget) {
            widget->present(card, state);
        } else {
            widget = new SubscriptionCard(
                card, state, [this, id = card.id()] { switchTo(id); }, actions_.openURL, cardsBox_);
        }
        order << card.id();
    }
    for (auto it = cards_.begin(); it != cards_.end();) {
        if (order.contains(it.key())) {
            ++it;
            continue;
        }
        // A seat gone from the reading: hidden first, which passes its focus on.
        it.value()->hide();
        cardsGrid_->removeWidget(it.value());
        it.value()->deleteLater();
        it = cards_.erase(it);
    }
    cardOrder_ = order;
    placeCards();

    const bool failed = model.showingFailedRefresh();
    grey_->setEnabled(failed);
    faint_->setEnabled(failed);
}

// Moves the cards into the grid's cells when their order or the columns change.
void SubscriptionsWindow::placeCards() {
    columns_ = cardColumns(cardsWidth(width()));
    if (cardOrder_ == placedOrder_ && columns_ == placedColumns_) {
        return;
    }
    for (const QString& seat : std::as_const(cardOrder_)) {
        cardsGrid_->removeWidget(cards_[seat]);
    }
    int index = 0;
    for (const QString& seat : std::as_const(cardOrder_)) {
        cardsGrid_->addWidget(cards_[seat], index / columns_, index % columns_, Qt::AlignTop);
        cards_[seat]->show();
        ++index;
    }
    for (int c = 0; c < 2; ++c) {
        cardsGrid_->setColumnStretch(c, c < columns_ ? 1 : 0);
    }
    placedOrder_ = cardOrder_;
    placedColumns_ = columns_;
}

void SubscriptionsWindow::switchTo(const QString& seatID) {
    QPointer<SubscriptionsModel> owner = model_;
    const QString account = accounts_.value(seatID);
    spawn([owner, account]() -> Task<void> {
        if (owner) {
            co_await owner->use(account);
        }
    });
}

void SubscriptionsWindow::select(const QString& seatID) {
    selected_ = seatID;
    present();
    if (SubscriptionCard* card = cards_.value(seatID)) {
        cardsBox_->layout()->activate();
        cardsArea_->verticalScrollBar()->setValue(card->y());
    }
}

} // namespace tessel::app
