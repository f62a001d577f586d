#include "ui/SubscriptionCard.h"

#include "ui/SubscriptionsSummaryRow.h"
#include "ui/Widgets.h"

#include <QGridLayout>
#include <QHBoxLayout>
#include <QPainter>
#include <QVBoxLayout>

namespace tessel::app {

namespace {

struct Badge {
    QChar letter;
    QColor colour;
};

Badge badge(MeterlyProvider provider) {
    switch (provider) {
    case MeterlyProvider::claude:
        return {u'C', QColor(0xe6, 0x7e, 0x22)};
    case MeterlyProvider::codex:
        return {u'X', QColor(0x1a, 0xa3, 0x9a)};
    case MeterlyProvider::kimi:
        return {u'K', QColor(0x58, 0x56, 0xd6)};
    case MeterlyProvider::zai:
        return {u'G', QColor(0x2e, 0x9e, 0x44)};
    case MeterlyProvider::grok:
        return {u'R', QColor(0x8a, 0x8a, 0x8a)};
    case MeterlyProvider::openrouter:
        return {u'O', QColor(0x9b, 0x59, 0xb6)};
    case MeterlyProvider::unknown:
        break;
    }
    return {u'?', QColor(0x8a, 0x8a, 0x8a)};
}

QLabel* badgeLabel(MeterlyProvider provider, QWidget* parent) {
    const Badge b = badge(provider);
    auto* label = new QLabel(b.letter, parent);
    label->setAlignment(Qt::AlignCenter);
    label->setFixedSize(18, 18);
    label->setAccessibleName(rawValue(provider));
    QColor fill = b.colour;
    fill.setAlphaF(0.18);
    label->setStyleSheet(QStringLiteral("border: 1px solid %1; border-radius: 9px; color: %1; "
                                        "font-weight: bold; background: %2;")
                             .arg(b.colour.name(), fill.name(QColor::HexArgb)));
    return label;
}

QLabel* pill(const QString& text, const QColor& colour, QWidget* parent) {
    auto* label = new QLabel(text, parent);
    QColor fill = colour;
    fill.setAlphaF(0.12);
    const QColor ink = readableOn(colour, parent->palette().color(QPalette::Window));
    label->setStyleSheet(QStringLiteral("color: %1; background: %2; border-radius: 7px; "
                                        "padding: 1px 5px; font-size: 8pt;")
                             .arg(ink.name(), fill.name(QColor::HexArgb)));
    return label;
}

QLabel* small(const QString& text, QWidget* parent) {
    QLabel* label = textLine(text, parent, true);
    QFont font = label->font();
    font.setPointSizeF(font.pointSizeF() * 0.9);
    label->setFont(font);
    return label;
}

// A flat bar 6 high: a quiet track and the share filled from the left.
class FlatBar : public QWidget {
public:
    FlatBar(std::optional<double> percent, QColor colour, QWidget* parent)
        : QWidget(parent), value_(percent ? *percent / 100 : 0), colour_(colour) {
        setMinimumWidth(20);
        setFixedHeight(6);
        setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter p(this);
        p.setRenderHint(QPainter::Antialiasing);
        p.setPen(Qt::NoPen);
        QColor track = colour_;
        track.setAlphaF(0.15);
        p.setBrush(track);
        p.drawRoundedRect(rect(), 3, 3);
        p.setBrush(colour_);
        const double share = std::clamp(value_, 0.0, 1.0);
        p.drawRoundedRect(QRectF(0, 0, width() * share, height()), 3, 3);
    }

private:
    double value_;
    QColor colour_;
};

} // namespace

QColor barColor(std::optional<double> percent, const QPalette& palette) {
    if (!percent) {
        return palette.color(QPalette::PlaceholderText);
    }
    if (*percent >= 90) {
        return tintColor(MeterlyTint::red, palette);
    }
    if (*percent >= 70) {
        return tintColor(MeterlyTint::orange, palette);
    }
    return palette.color(QPalette::Highlight);
}

int cardColumns(double columnWidth) {
    return columnWidth >= twoColumnWidth ? 2 : 1;
}

SubscriptionCard::SubscriptionCard(const SubscriptionsDashboardContent::Card& card,
                                   SubscriptionCardState state, std::function<void()> switchHere,
                                   std::function<void(const QUrl&)> openURL, QWidget* parent)
    : QFrame(parent), tint_(tintColor(card.content.tint, palette())), selected_(state.selected) {
    const SubscriptionSeatCardContent& content = card.content;
    const auto& seat = card.seat;
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(12, 12, 12, 12);
    column->setSpacing(8);

    auto* title = new QHBoxLayout;
    title->setSpacing(5);
    title->addWidget(badgeLabel(seat.provider, this));
    auto* name = new QLabel(content.name, this);
    QFont headline = name->font();
    headline.setBold(true);
    name->setFont(headline);
    title->addWidget(name);
    if (seat.live) {
        title->addWidget(pill(QStringLiteral("live"), palette().color(QPalette::Highlight), this));
    }
    if (!seat.role.isEmpty()) {
        title->addWidget(pill(seat.role, palette().color(QPalette::PlaceholderText), this));
    }
    title->addStretch();
    if (!seat.plan.isEmpty()) {
        QLabel* plan = small(seat.plan, this);
        plan->setWordWrap(false);
        plan->setMaximumWidth(72);
        title->addWidget(plan);
    }
    column->addLayout(title);
    for (const QString& line : {content.identity, content.lastRead}) {
        if (!line.isEmpty()) {
            column->addWidget(small(line, this));
        }
    }
    if (!content.error.isEmpty()) {
        column->addWidget(textLine(content.error, this, true));
    }
    if (!content.windows.isEmpty()) {
        auto* grid = new QGridLayout;
        grid->setHorizontalSpacing(6);
        grid->setVerticalSpacing(8);
        int row = 0;
        for (const auto& window : content.windows) {
            QLabel* label = small(window.label, this);
            label->setFixedWidth(52);
            grid->addWidget(label, row, 0);
            if (window.isCredits) {
                grid->addWidget(small(window.value, this), row, 1, 1, 2);
            } else {
                auto* bar = new FlatBar(window.percent, barColor(window.percent, palette()), this);
                bar->setAccessibleName(window.label);
                bar->setAccessibleDescription(window.value);
                grid->addWidget(bar, row, 1);
                QStringList parts;
                for (const QString& part : {window.value, window.reset}) {
                    if (!part.isEmpty()) {
                        parts << part;
                    }
                }
                QLabel* value = small(parts.join(QStringLiteral(" · ")), this);
                value->setMaximumWidth(125);
                grid->addWidget(value, row, 2);
            }
            ++row;
        }
        grid->setColumnStretch(1, 1);
        column->addLayout(grid);
    }
    if (!content.renewal.isEmpty()) {
        column->addWidget(small(content.renewal, this));
        if (!content.renewalSource.isEmpty()) {
            column->addWidget(small(content.renewalSource, this));
        }
    }
    if (!content.advice.isEmpty()) {
        auto* advice = textLine(QStringLiteral("● ") + content.advice, this);
        column->addWidget(advice);
    }
    if (!content.note.isEmpty()) {
        column->addWidget(small(content.note, this));
    }
    if (!content.buttons().isEmpty()) {
        auto* buttons = new QHBoxLayout;
        buttons->setSpacing(6);
        if (content.canSwitch) {
            auto* here = button(state.switching ? QStringLiteral("Switching…")
                                                : QStringLiteral("Switch here"),
                                this, std::move(switchHere));
            here->setEnabled(!state.switchDisabled);
            buttons->addWidget(here);
        }
        if (content.usageURL) {
            buttons->addWidget(button(QStringLiteral("Usage"), this,
                                      [openURL, url = *content.usageURL] { openURL(url); }));
        }
        if (content.billingURL) {
            buttons->addWidget(button(QStringLiteral("Billing"), this,
                                      [openURL, url = *content.billingURL] { openURL(url); }));
        }
        buttons->addStretch();
        column->addLayout(buttons);
    }
}

void SubscriptionCard::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    QColor fill = palette().color(QPalette::WindowText);
    fill.setAlphaF(0.05);
    p.setPen(selected_ ? QPen(palette().color(QPalette::Highlight), 2) : Qt::NoPen);
    p.setBrush(fill);
    p.drawRoundedRect(QRectF(rect()).adjusted(1, 1, -1, -1), 8, 8);
    // The seat's tint as a stripe along the left edge.
    p.fillRect(QRectF(0, 8, 1, height() - 16), tint_);
}

} // namespace tessel::app
