// One seat of the subscription reading as a card: badge, name, pills and plan,
// who it is, when it was read, its windows as bars, renewal, advice, note and
// its buttons. The bars turn orange from 70 % and red from 90 %. A card is
// made once per seat and shows each new reading of it in place, so its
// buttons keep their focus and their press.
#pragma once

#include "subscriptions/SubscriptionsDashboardContent.h"

#include <QFrame>

#include <functional>
#include <vector>

class QGridLayout;
class QLabel;
class QPushButton;
class QVBoxLayout;

namespace tessel::app {

// The bar colour for a window's percentage (none: the quiet colour).
QColor barColor(std::optional<double> percent, const QPalette& palette);

// Two columns of cards from this width of the cards' column on.
constexpr double twoColumnWidth = 523.28;
int cardColumns(double columnWidth);

// A 6 by 6 dot in a tint, before a line of advice or attention.
class TintDot : public QWidget {
public:
    explicit TintDot(QWidget* parent = nullptr);
    void setColour(const QColor& colour);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QColor colour_;
};

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
    ~SubscriptionCard() override;

    // Shows a new reading of the same seat.
    void present(const SubscriptionsDashboardContent::Card& card, SubscriptionCardState state);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    struct WindowRow;
    WindowRow& windowRow(std::size_t index);

    QColor tint_;
    bool selected_ = false;
    std::optional<QUrl> usageURL_;
    std::optional<QUrl> billingURL_;
    QLabel* badge_;
    QLabel* name_;
    QLabel* live_;
    QLabel* role_;
    QLabel* plan_;
    QLabel* identity_;
    QLabel* lastRead_;
    QLabel* error_;
    QWidget* windows_;
    QGridLayout* windowGrid_;
    std::vector<WindowRow> windowRows_;
    QLabel* renewal_;
    QLabel* renewalSource_;
    QWidget* adviceRow_;
    TintDot* adviceDot_;
    QLabel* advice_;
    QLabel* note_;
    QWidget* buttons_;
    QPushButton* switchHere_;
    QPushButton* usage_;
    QPushButton* billing_;
};

} // namespace tessel::app
