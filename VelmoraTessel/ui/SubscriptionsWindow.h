// The "subscriptions" window: the header with the summary, the refresh and
// its captions; the seat cards in one or two columns beside the sidebar; the
// footer. Made once: every change of the watch and every 60 s show the new
// words in the same widgets, so focus, a pressed button and a selection stay.
// Dimmed while a failed refresh is shown. It cannot be made smaller than its
// content at its width. Its frame is saved between runs; Escape closes it.
#pragma once

#include "subscriptions/SubscriptionsDashboardContent.h"
#include "subscriptions/SubscriptionsModel.h"
#include "ui/RebuildLater.h"

#include <QHash>
#include <QPointer>
#include <QSettings>
#include <QTimer>
#include <QWidget>

#include <functional>
#include <optional>
#include <vector>

class QGraphicsEffect;
class QGridLayout;
class QLabel;
class QPushButton;
class QScrollArea;
class QToolButton;
class QVBoxLayout;

namespace tessel::app {

class SubscriptionCard;
class SubscriptionFlowLayout;
class SubscriptionsSidebar;

class SubscriptionsWindow : public QWidget {
    Q_OBJECT

public:
    static inline const QString id = QStringLiteral("subscriptions");

    struct Actions {
        std::function<void(const QUrl&)> openURL;
        // Opens the desktop's notification settings; none hides "Enable…".
        std::function<void()> notificationSettings;
        // What the header says when `meterly` is missing.
        QString notInstalled;
    };

    SubscriptionsWindow(SubscriptionsModel& model, QSettings& settings, Actions actions,
                        QWidget* parent = nullptr);
    ~SubscriptionsWindow() override;

    // The columns of cards shown now.
    int columns() const { return columns_; }

protected:
    void resizeEvent(QResizeEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private:
    QWidget* buildHeader();
    void present();
    void presentHeader(const SubscriptionsDashboardContent& content);
    void presentCards(const SubscriptionsDashboardContent& content);
    void placeCards();
    void orderTabs();
    void fitMinimumSize();
    void select(const QString& seatID);
    void switchTo(const QString& seatID);
    void saveFrame();

    QPointer<SubscriptionsModel> model_;
    QSettings& settings_;
    Actions actions_;
    QTimer minute_;
    std::optional<QString> selected_;
    int columns_ = 0;
    RebuildLater updateLater_{this, [this] { present(); }};

    QLabel* summary_ = nullptr;
    QLabel* updated_ = nullptr;
    QToolButton* refresh_ = nullptr;
    QWidget* useNow_ = nullptr;
    SubscriptionFlowLayout* useNowFlow_ = nullptr;
    QHash<QString, QPushButton*> useNowButtons_; // by role
    QHash<QString, QString> useNowSeats_;        // role to seat id
    QStringList useNowOrder_;
    QVBoxLayout* captions_ = nullptr;
    std::vector<QLabel*> captionLines_;
    QWidget* notificationsOff_ = nullptr;

    QScrollArea* cardsArea_ = nullptr;
    QWidget* cardsBox_ = nullptr;
    QGridLayout* cardsGrid_ = nullptr;
    QLabel* noCards_ = nullptr;
    QHash<QString, SubscriptionCard*> cards_; // by seat id
    QStringList cardOrder_;
    QStringList placedOrder_;
    int placedColumns_ = 0;
    QHash<QString, QString> accounts_; // seat id to the account a switch names
    QGraphicsEffect* grey_ = nullptr;
    QGraphicsEffect* faint_ = nullptr;
    SubscriptionsSidebar* sidebar_ = nullptr;
    QScrollArea* sidebarArea_ = nullptr;
    QLabel* fetched_ = nullptr;
    // A control that lost the focus by being disabled, and where Qt put it.
    QPointer<QWidget> parked_;
    QPointer<QWidget> parkedAt_;
};

} // namespace tessel::app
