#include "ui/SubscriptionsSidebar.h"

#include "ui/SubscriptionsSummaryRow.h"
#include "ui/Widgets.h"

#include <QFrame>
#include <QGridLayout>
#include <QVBoxLayout>

namespace tessel::app {

namespace {

// A titled panel on a quiet fill.
QVBoxLayout* panel(const QString& title, QVBoxLayout* column, QWidget* parent) {
    auto* frame = new QFrame(parent);
    frame->setObjectName(QStringLiteral("panel"));
    frame->setStyleSheet(QStringLiteral(
        "QFrame#panel { background: rgba(127, 127, 127, 0.10); border-radius: 8px; }"));
    auto* body = new QVBoxLayout(frame);
    body->setContentsMargins(12, 12, 12, 12);
    auto* heading = new QLabel(title, frame);
    QFont bold = heading->font();
    bold.setBold(true);
    heading->setFont(bold);
    body->addWidget(heading);
    column->addWidget(frame);
    return body;
}

} // namespace

QWidget* subscriptionsSidebar(const SubscriptionsDashboardContent& content,
                              const std::function<void()>& editRoles, QWidget* parent) {
    auto* box = new QWidget(parent);
    auto* column = new QVBoxLayout(box);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(16);

    QVBoxLayout* attention = panel(QStringLiteral("Attention"), column, box);
    for (const auto& entry : content.attention) {
        auto* title = textLine(
            QStringLiteral("<span style=\"color:%1\">●</span> <b>%2</b>")
                .arg(tintColor(entry.tint, box->palette()).name(), entry.title.toHtmlEscaped()),
            box);
        title->setTextFormat(Qt::RichText);
        attention->addWidget(title);
        attention->addWidget(textLine(entry.human, box, true));
    }
    if (content.attention.isEmpty()) {
        attention->addWidget(textLine(QStringLiteral("Nothing needs attention"), box, true));
    }

    QVBoxLayout* coming = panel(QStringLiteral("Coming up"), column, box);
    for (const auto& day : content.days) {
        auto* title = textLine(day.title, box);
        QFont bold = title->font();
        bold.setBold(true);
        title->setFont(bold);
        coming->addWidget(title);
        for (const auto& event : day.events) {
            auto* line = textLine(event.line, box);
            if (event.isRenewal) {
                line->setStyleSheet(QStringLiteral("color: palette(highlight);"));
            }
            coming->addWidget(line);
        }
    }
    if (content.days.isEmpty()) {
        coming->addWidget(
            textLine(QStringLiteral("Nothing scheduled in the next 7 days"), box, true));
    }

    QVBoxLayout* spend = panel(QStringLiteral("Spend order"), column, box);
    if (content.spendOrder.isEmpty()) {
        spend->addWidget(textLine(QStringLiteral("No spend order configured"), box, true));
    } else {
        auto* grid = new QGridLayout;
        grid->setHorizontalSpacing(12);
        grid->setVerticalSpacing(8);
        int row = 0;
        for (const auto& pair : content.spendOrder) {
            grid->addWidget(textLine(pair.role, box, true), row, 0);
            grid->addWidget(textLine(pair.seat, box), row, 1);
            ++row;
        }
        grid->setColumnStretch(1, 1);
        spend->addLayout(grid);
    }
    spend->addWidget(textLine(QStringLiteral("From ~/.meterly/roles.toml"), box, true));
    spend->addWidget(button(QStringLiteral("Edit roles…"), box, editRoles), 0, Qt::AlignLeft);
    column->addStretch();
    return box;
}

} // namespace tessel::app
