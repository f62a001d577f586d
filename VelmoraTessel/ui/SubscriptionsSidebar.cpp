#include "ui/SubscriptionsSidebar.h"

#include "ui/SubscriptionCard.h"
#include "ui/SubscriptionsSummaryRow.h"
#include "ui/Widgets.h"

#include <QFrame>
#include <QGridLayout>
#include <QVBoxLayout>

namespace tessel::app {

namespace {

// A titled panel on a quiet fill; gives its body.
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

// A column inside `body` for the lines that come and go.
QVBoxLayout* lines(QVBoxLayout* body) {
    auto* inner = new QVBoxLayout;
    inner->setContentsMargins(0, 0, 0, 0);
    body->addLayout(inner);
    return inner;
}

} // namespace

SubscriptionsSidebar::SubscriptionsSidebar(std::function<void()> editRoles, QWidget* parent)
    : QWidget(parent) {
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(16);

    QVBoxLayout* attention = panel(QStringLiteral("Attention"), column, this);
    attention_ = lines(attention);
    attention_->setSpacing(8);
    nothingNeedsAttention_ = textLine(QStringLiteral("Nothing needs attention"), this, true);
    attention->addWidget(nothingNeedsAttention_);

    QVBoxLayout* coming = panel(QStringLiteral("Coming up"), column, this);
    coming_ = lines(coming);
    nothingScheduled_ =
        textLine(QStringLiteral("Nothing scheduled in the next 7 days"), this, true);
    coming->addWidget(nothingScheduled_);

    QVBoxLayout* spend = panel(QStringLiteral("Spend order"), column, this);
    spend_ = new QGridLayout;
    spend_->setHorizontalSpacing(12);
    spend_->setVerticalSpacing(8);
    spend_->setColumnStretch(1, 1);
    spend->addLayout(spend_);
    noSpendOrder_ = textLine(QStringLiteral("No spend order configured"), this, true);
    spend->addWidget(noSpendOrder_);
    spend->addWidget(textLine(QStringLiteral("From ~/.meterly/roles.toml"), this, true));
    spend->addWidget(button(QStringLiteral("Edit roles…"), this, std::move(editRoles)), 0,
                     Qt::AlignLeft);
    column->addStretch();
}

QLabel* SubscriptionsSidebar::line(std::vector<QLabel*>& pool, std::size_t index,
                                   QVBoxLayout* layout, bool secondary) {
    while (pool.size() <= index) {
        pool.push_back(textLine(QString(), this, secondary));
        layout->addWidget(pool.back());
    }
    pool[index]->show();
    return pool[index];
}

void SubscriptionsSidebar::present(const SubscriptionsDashboardContent& content) {
    // Lines beyond the reading's are hidden, not destroyed: one may hold a selection.
    std::size_t index = 0;
    for (const auto& entry : content.attention) {
        if (attentionRows_.size() <= index) {
            AttentionRow added{new QWidget(this), nullptr, nullptr, nullptr};
            auto* row = new QHBoxLayout(added.row);
            row->setContentsMargins(0, 0, 0, 0);
            row->setSpacing(8);
            auto* dotColumn = new QVBoxLayout;
            dotColumn->setContentsMargins(0, 5, 0, 0);
            added.dot = new TintDot(added.row);
            dotColumn->addWidget(added.dot);
            dotColumn->addStretch();
            row->addLayout(dotColumn);
            auto* words = new QVBoxLayout;
            words->setSpacing(3);
            added.title = textLine(QString(), added.row);
            QFont bold = added.title->font();
            bold.setBold(true);
            added.title->setFont(bold);
            words->addWidget(added.title);
            added.human = textLine(QString(), added.row, true);
            words->addWidget(added.human);
            row->addLayout(words, 1);
            attention_->addWidget(added.row);
            attentionRows_.push_back(added);
        }
        const AttentionRow& row = attentionRows_[index++];
        row.dot->setColour(tintColor(entry.tint, palette()));
        row.title->setText(entry.title);
        row.human->setText(entry.human);
        row.row->show();
    }
    for (; index < attentionRows_.size(); ++index) {
        attentionRows_[index].row->hide();
    }
    nothingNeedsAttention_->setVisible(content.attention.isEmpty());

    index = 0;
    for (const auto& day : content.days) {
        // A pooled line is a day's title one time and an event the next.
        const auto show = [&](const QString& text, bool bold, bool accent) {
            QLabel* label = line(comingLines_, index++, coming_, false);
            label->setText(text);
            QFont font = label->font();
            font.setBold(bold);
            label->setFont(font);
            label->setStyleSheet(accent ? QStringLiteral("color: palette(highlight);") : QString());
        };
        show(day.title, true, false);
        for (const auto& event : day.events) {
            show(event.line, false, event.isRenewal);
        }
    }
    for (; index < comingLines_.size(); ++index) {
        comingLines_[index]->hide();
    }
    nothingScheduled_->setVisible(content.days.isEmpty());

    index = 0;
    for (const auto& pair : content.spendOrder) {
        if (spendRows_.size() <= index) {
            spendRows_.emplace_back(textLine(QString(), this, true), textLine(QString(), this));
            spend_->addWidget(spendRows_.back().first, int(index), 0);
            spend_->addWidget(spendRows_.back().second, int(index), 1);
        }
        const auto& [role, seat] = spendRows_[index++];
        role->setText(pair.role);
        seat->setText(pair.seat);
        role->show();
        seat->show();
    }
    for (; index < spendRows_.size(); ++index) {
        spendRows_[index].first->hide();
        spendRows_[index].second->hide();
    }
    noSpendOrder_->setVisible(content.spendOrder.isEmpty());
}

} // namespace tessel::app
