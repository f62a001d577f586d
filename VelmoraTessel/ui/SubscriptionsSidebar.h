// The subscriptions window's sidebar: what needs attention, what comes up in
// the next days, and the spend order with "Edit roles…". Made once; each
// reading changes its lines in place.
#pragma once

#include "subscriptions/SubscriptionsDashboardContent.h"

#include <QWidget>

#include <functional>
#include <vector>

class QGridLayout;
class QLabel;
class QVBoxLayout;

namespace tessel::app {

class TintDot;

class SubscriptionsSidebar : public QWidget {
public:
    // `editRoles` opens ~/.meterly/roles.toml.
    SubscriptionsSidebar(std::function<void()> editRoles, QWidget* parent = nullptr);

    void present(const SubscriptionsDashboardContent& content);

private:
    struct AttentionRow {
        QWidget* row;
        TintDot* dot;
        QLabel* title;
        QLabel* human;
    };

    QLabel* line(std::vector<QLabel*>& pool, std::size_t index, QVBoxLayout* layout,
                 bool secondary);

    QVBoxLayout* attention_;
    std::vector<AttentionRow> attentionRows_;
    QLabel* nothingNeedsAttention_;
    QVBoxLayout* coming_;
    std::vector<QLabel*> comingLines_;
    QLabel* nothingScheduled_;
    QGridLayout* spend_;
    std::vector<std::pair<QLabel*, QLabel*>> spendRows_;
    QLabel* noSpendOrder_;
};

} // namespace tessel::app
