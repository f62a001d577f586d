// One seat of the subscription reading as a card: badge, name, pills and plan,
// who it is, when it was read, its windows as bars, renewal, advice, note and
// its buttons. The bars turn orange from 70 % and red from 90 %.
#pragma once

#include "subscriptions/SubscriptionsDashboardContent.h"

#include <QFrame>

#include <functional>

namespace tessel::app {

// The bar colour for a window's percentage (none: the quiet colour).
QColor barColor(std::optional<double> percent, const QPalette& palette);

// Two columns of cards from this width of the cards' column on.
constexpr double twoColumnWidth = 523.28;
int cardColumns(double columnWidth);

struct SubscriptionCardState {
    bool selected = false;
    bool switching = false;
    bool switchDisabled = false;
};

class SubscriptionCard : public QFrame {
    Q_OBJECT

public:
    SubscriptionCard(const SubscriptionsDashboardContent::Card& card, SubscriptionCardState state,
                     std::function<void()> switchHere, std::function<void(const QUrl&)> openURL,
                     QWidget* parent = nullptr);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QColor tint_;
    bool selected_;
};

} // namespace tessel::app
