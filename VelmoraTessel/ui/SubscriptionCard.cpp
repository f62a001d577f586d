#include "ui/SubscriptionCard.h"

#include "ui/SubscriptionFlowLayout.h"
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

QLabel* pill(const QColor& colour, QWidget* parent) {
    auto* label = new QLabel(parent);
    QColor fill = colour;
    fill.setAlphaF(0.12);
    const QColor ink = readableOn(colour, parent->palette().color(QPalette::Window));
    label->setStyleSheet(QStringLiteral("color: %1; background: %2; border-radius: 7px; "
                                        "padding: 1px 5px; font-size: 8pt;")
                             .arg(ink.name(), fill.name(QColor::HexArgb)));
    return label;
}

QLabel* small(QWidget* parent) {
    QLabel* label = textLine(QString(), parent, true);
    QFont font = label->font();
    font.setPointSizeF(font.pointSizeF() * 0.9);
    label->setFont(font);
    return label;
}

// Sets the text and shows the label only when there is some.
void showText(QLabel* label, const QString& text) {
    label->setText(text);
    label->setVisible(!text.isEmpty());
}

} // namespace

// A flat bar 6 high: a quiet track and the share filled from the left.
class SubscriptionFlatBar : public QWidget {
public:
    explicit SubscriptionFlatBar(QWidget* parent) : QWidget(parent) {
        setMinimumWidth(20);
        setFixedHeight(6);
        setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    }

    void present(std::optional<double> percent, const QColor& colour) {
        value_ = percent ? *percent / 100 : 0;
        colour_ = colour;
        update();
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
    double value_ = 0;
    QColor colour_;
};

struct SubscriptionCard::WindowRow {
    QLabel* label;
    SubscriptionFlatBar* bar;
    QLabel* value;
    QLabel* credits;
};

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

TintDot::TintDot(QWidget* parent) : QWidget(parent) {
    setFixedSize(6, 6);
}

void TintDot::setColour(const QColor& colour) {
    colour_ = colour;
    update();
}

void TintDot::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(Qt::NoPen);
    p.setBrush(colour_);
    p.drawEllipse(QRectF(rect()));
}

SubscriptionCard::SubscriptionCard(const SubscriptionsDashboardContent::Card& card,
                                   SubscriptionCardState state, std::function<void()> switchHere,
                                   std::function<void(const QUrl&)> openURL, QWidget* parent)
    : QFrame(parent) {
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(12, 12, 12, 12);
    column->setSpacing(8);

    // The title row: badge, name and pills wrap within the room the plan leaves.
    auto* title = new QHBoxLayout;
    title->setSpacing(5);
    auto* flow = new SubscriptionFlowLayout(5);
    badge_ = new QLabel(this);
    badge_->setAlignment(Qt::AlignCenter);
    badge_->setFixedSize(18, 18);
    flow->addWidget(badge_);
    name_ = new QLabel(this);
    QFont headline = name_->font();
    headline.setBold(true);
    name_->setFont(headline);
    flow->addWidget(name_);
    live_ = pill(palette().color(QPalette::Highlight), this);
    live_->setText(QStringLiteral("live"));
    flow->addWidget(live_);
    role_ = pill(palette().color(QPalette::PlaceholderText), this);
    flow->addWidget(role_);
    title->addLayout(flow, 1);
    plan_ = small(this);
    plan_->setWordWrap(false);
    plan_->setMaximumWidth(72);
    title->addWidget(plan_, 0, Qt::AlignTop | Qt::AlignRight);
    column->addLayout(title);

    identity_ = small(this);
    column->addWidget(identity_);
    lastRead_ = small(this);
    column->addWidget(lastRead_);
    error_ = textLine(QString(), this, true);
    column->addWidget(error_);
    windows_ = new QWidget(this);
    windowGrid_ = new QGridLayout(windows_);
    windowGrid_->setContentsMargins(0, 0, 0, 0);
    windowGrid_->setHorizontalSpacing(6);
    windowGrid_->setVerticalSpacing(8);
    windowGrid_->setColumnStretch(1, 1);
    column->addWidget(windows_);
    renewal_ = small(this);
    column->addWidget(renewal_);
    renewalSource_ = small(this);
    column->addWidget(renewalSource_);

    adviceRow_ = new QWidget(this);
    auto* adviceLine = new QHBoxLayout(adviceRow_);
    adviceLine->setContentsMargins(0, 0, 0, 0);
    adviceLine->setSpacing(6);
    auto* dotColumn = new QVBoxLayout;
    dotColumn->setContentsMargins(0, 5, 0, 0);
    adviceDot_ = new TintDot(adviceRow_);
    adviceDot_->setObjectName(QStringLiteral("adviceDot"));
    dotColumn->addWidget(adviceDot_);
    dotColumn->addStretch();
    adviceLine->addLayout(dotColumn);
    advice_ = textLine(QString(), adviceRow_);
    adviceLine->addWidget(advice_, 1);
    column->addWidget(adviceRow_);
    note_ = small(this);
    column->addWidget(note_);

    buttons_ = new QWidget(this);
    auto* buttons = new QHBoxLayout(buttons_);
    buttons->setContentsMargins(0, 0, 0, 0);
    buttons->setSpacing(6);
    switchHere_ = button(QStringLiteral("Switch here"), buttons_, std::move(switchHere));
    buttons->addWidget(switchHere_);
    usage_ = button(QStringLiteral("Usage"), buttons_, [this, openURL] {
        if (usageURL_) {
            openURL(*usageURL_);
        }
    });
    buttons->addWidget(usage_);
    billing_ = button(QStringLiteral("Billing"), buttons_, [this, openURL] {
        if (billingURL_) {
            openURL(*billingURL_);
        }
    });
    buttons->addWidget(billing_);
    buttons->addStretch();
    column->addWidget(buttons_);
    present(card, state);
}

SubscriptionCard::~SubscriptionCard() = default;

SubscriptionCard::WindowRow& SubscriptionCard::windowRow(std::size_t index) {
    while (windowRows_.size() <= index) {
        const int row = int(windowRows_.size());
        WindowRow added{small(windows_), new SubscriptionFlatBar(windows_), small(windows_),
                        small(windows_)};
        added.label->setFixedWidth(52);
        added.value->setMaximumWidth(125);
        windowGrid_->addWidget(added.label, row, 0);
        windowGrid_->addWidget(added.bar, row, 1);
        windowGrid_->addWidget(added.value, row, 2);
        windowRows_.push_back(added);
    }
    return windowRows_[index];
}

void SubscriptionCard::present(const SubscriptionsDashboardContent::Card& card,
                               SubscriptionCardState state) {
    const SubscriptionSeatCardContent& content = card.content;
    const auto& seat = card.seat;
    tint_ = tintColor(content.tint, palette());
    selected_ = state.selected;
    usageURL_ = content.usageURL;
    billingURL_ = content.billingURL;
    setAccessibleName(content.header);

    const Badge b = badge(seat.provider);
    QColor fill = b.colour;
    fill.setAlphaF(0.18);
    badge_->setText(b.letter);
    badge_->setAccessibleName(providerTitle(seat.provider));
    badge_->setStyleSheet(QStringLiteral("border: 1px solid %1; border-radius: 9px; color: %1; "
                                         "font-weight: bold; background: %2;")
                              .arg(b.colour.name(), fill.name(QColor::HexArgb)));
    name_->setText(content.name);
    live_->setVisible(seat.live);
    showText(role_, seat.role);
    showText(plan_, seat.plan);
    showText(identity_, content.identity);
    showText(lastRead_, content.lastRead);
    showText(error_, content.error);

    std::size_t index = 0;
    for (const auto& window : content.windows) {
        WindowRow& row = windowRow(index++);
        row.label->setText(window.label);
        row.label->show();
        row.credits->setText(window.value);
        row.credits->setVisible(window.isCredits);
        // In the grid only while it shows: even hidden, a label across the bar's
        // and the value's cells takes the spacing between them.
        const bool placed = windowGrid_->indexOf(row.credits) >= 0;
        if (window.isCredits && !placed) {
            windowGrid_->addWidget(row.credits, int(index) - 1, 1, 1, 2);
        } else if (!window.isCredits && placed) {
            windowGrid_->removeWidget(row.credits);
        }
        row.bar->setVisible(!window.isCredits);
        row.value->setVisible(!window.isCredits);
        if (!window.isCredits) {
            row.bar->present(window.percent, barColor(window.percent, palette()));
            row.bar->setAccessibleName(window.label);
            row.bar->setAccessibleDescription(window.value);
            QStringList parts;
            for (const QString& part : {window.value, window.reset}) {
                if (!part.isEmpty()) {
                    parts << part;
                }
            }
            row.value->setText(parts.join(QStringLiteral(" · ")));
        }
    }
    for (; index < windowRows_.size(); ++index) {
        for (QWidget* widget : std::initializer_list<QWidget*>{
                 windowRows_[index].label, windowRows_[index].bar, windowRows_[index].value,
                 windowRows_[index].credits}) {
            widget->hide();
        }
    }
    windows_->setVisible(!content.windows.isEmpty());

    showText(renewal_, content.renewal);
    showText(renewalSource_, content.renewal.isEmpty() ? QString() : content.renewalSource);
    advice_->setText(content.advice);
    adviceDot_->setColour(tint_);
    adviceRow_->setVisible(!content.advice.isEmpty());
    showText(note_, content.note);

    switchHere_->setText(state.switching ? QStringLiteral("Switching…")
                                         : QStringLiteral("Switch here"));
    switchHere_->setEnabled(!state.switchDisabled);
    switchHere_->setVisible(content.canSwitch);
    usage_->setVisible(content.usageURL.has_value());
    billing_->setVisible(content.billingURL.has_value());
    buttons_->setVisible(!content.buttons().isEmpty());
    update();
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
