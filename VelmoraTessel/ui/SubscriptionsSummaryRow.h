// The popover's subscriptions row: "Subscriptions", the reading's summary in
// its tint, and a chevron; a click anywhere opens the subscriptions window.
#pragma once

#include "subscriptions/MeterlySnapshot.h"
#include "subscriptions/SubscriptionsModel.h"

#include <QAbstractButton>

#include <functional>

namespace tessel::app {

// The colour of a tint in `palette` (light or dark alike).
QColor tintColor(MeterlyTint tint, const QPalette& palette);

class SubscriptionsSummaryRow : public QAbstractButton {
    Q_OBJECT

public:
    SubscriptionsSummaryRow(SubscriptionsModel& model, std::function<void()> open,
                            QWidget* parent = nullptr);

    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    void refresh();

    QPointer<SubscriptionsModel> model_;
    QString summary_;
    MeterlyTint tint_ = MeterlyTint::secondary;
};

} // namespace tessel::app
