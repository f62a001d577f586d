#include "ui/SubscriptionsSummaryRow.h"

#include "subscriptions/MeterlyPresentation.h"

#include <QPainter>
#include <QStyle>
#include <QTimeZone>

namespace tessel::app {

QColor tintColor(MeterlyTint tint, const QPalette& palette) {
    switch (tint) {
    case MeterlyTint::green:
        return QColor(0x2e, 0x9e, 0x44);
    case MeterlyTint::orange:
        return QColor(0xe6, 0x7e, 0x22);
    case MeterlyTint::red:
        return QColor(0xd0, 0x34, 0x2c);
    case MeterlyTint::grey:
        return QColor(0x8a, 0x8a, 0x8a);
    case MeterlyTint::accent:
        return palette.color(QPalette::Highlight);
    case MeterlyTint::secondary:
        break;
    }
    return palette.color(QPalette::PlaceholderText);
}

SubscriptionsSummaryRow::SubscriptionsSummaryRow(SubscriptionsModel& model,
                                                 std::function<void()> open, QWidget* parent)
    : QAbstractButton(parent), model_(&model) {
    setText(QStringLiteral("Subscriptions"));
    setAccessibleName(QStringLiteral("Subscriptions"));
    setCursor(Qt::PointingHandCursor);
    setFocusPolicy(Qt::StrongFocus);
    setAttribute(Qt::WA_Hover);
    connect(this, &QAbstractButton::clicked, this, [open = std::move(open)] { open(); });
    connect(&model, &SubscriptionsModel::changed, this, &SubscriptionsSummaryRow::refresh);
    refresh();
}

void SubscriptionsSummaryRow::refresh() {
    summary_.clear();
    tint_ = MeterlyTint::secondary;
    if (model_ && model_->snapshot()) {
        const MeterlyPresentation presentation(*model_->snapshot(), QDateTime::currentDateTimeUtc(),
                                               QLocale(), QTimeZone::systemTimeZone());
        summary_ = presentation.summary;
        tint_ = presentation.summaryTint;
    }
    setAccessibleDescription(summary_);
    setToolTip(summary_);
    QWidget::update();
}

QSize SubscriptionsSummaryRow::sizeHint() const {
    return {200, std::max(28, fontMetrics().height() + 8)};
}

void SubscriptionsSummaryRow::paintEvent(QPaintEvent*) {
    QPainter p(this);
    const QRect area = rect().adjusted(0, 0, -2, 0);
    if (hasFocus() || underMouse()) {
        QColor hover = palette().color(QPalette::Highlight);
        hover.setAlpha(hasFocus() ? 50 : 25);
        p.fillRect(rect(), hover);
    }
    p.setPen(palette().color(QPalette::WindowText));
    const int nameWidth = fontMetrics().horizontalAdvance(text());
    p.drawText(area, Qt::AlignLeft | Qt::AlignVCenter, text());
    // The chevron at the end, the summary between, cut when too long.
    const int chevron = 12;
    p.setPen(palette().color(QPalette::PlaceholderText));
    p.drawText(area, Qt::AlignRight | Qt::AlignVCenter, QStringLiteral("›"));
    QFont small = font();
    small.setPointSizeF(small.pointSizeF() * 0.85);
    p.setFont(small);
    p.setPen(tintColor(tint_, palette()));
    const QRect room = area.adjusted(nameWidth + 10, 0, -chevron - 6, 0);
    p.drawText(room, Qt::AlignLeft | Qt::AlignVCenter,
               QFontMetrics(small).elidedText(summary_, Qt::ElideRight, room.width()));
}

} // namespace tessel::app
