#include "ui/SubscriptionFlowLayout.h"

#include <QWidget>

#include <algorithm>

namespace tessel::app {

namespace {

// A width nobody proposed: the row as wide as a roomy window.
constexpr int unproposedWidth = 960;

} // namespace

SubscriptionFlowLayout::SubscriptionFlowLayout(int spacing, QWidget* parent)
    : QLayout(parent), spacing_(spacing) {
    setContentsMargins(0, 0, 0, 0);
}

SubscriptionFlowLayout::~SubscriptionFlowLayout() {
    qDeleteAll(items_);
}

void SubscriptionFlowLayout::addItem(QLayoutItem* item) {
    items_.push_back(item);
    invalidate();
}

QLayoutItem* SubscriptionFlowLayout::takeAt(int index) {
    if (index < 0 || index >= items_.size()) {
        return nullptr;
    }
    invalidate();
    return items_.takeAt(index);
}

QSize SubscriptionFlowLayout::place(QPoint origin, int width, bool apply) const {
    width = std::max(width, 1);
    int x = 0;
    int y = 0;
    int rowHeight = 0;
    int widest = 0;
    for (QLayoutItem* item : items_) {
        if (item->isEmpty()) {
            continue;
        }
        const int w = std::min(item->sizeHint().width(), width);
        const int h =
            item->hasHeightForWidth() ? item->heightForWidth(w) : item->sizeHint().height();
        // The first of a row stays, however wide: a row is never empty.
        if (x > 0 && x + w > width) {
            y += rowHeight + spacing_;
            x = 0;
            rowHeight = 0;
        }
        if (apply) {
            item->setGeometry(QRect(origin + QPoint(x, y), QSize(w, h)));
        }
        widest = std::max(widest, x + w);
        x += w + spacing_;
        rowHeight = std::max(rowHeight, h);
    }
    return {widest, y + rowHeight};
}

int SubscriptionFlowLayout::heightForWidth(int width) const {
    const QMargins m = contentsMargins();
    return place({}, width - m.left() - m.right(), false).height() + m.top() + m.bottom();
}

QSize SubscriptionFlowLayout::sizeHint() const {
    const QMargins m = contentsMargins();
    return place({}, unproposedWidth, false).grownBy(m);
}

// As narrow as the widest child, so no child is ever cut.
QSize SubscriptionFlowLayout::minimumSize() const {
    int widest = 0;
    for (QLayoutItem* item : items_) {
        if (!item->isEmpty()) {
            widest = std::max(widest, item->minimumSize().width());
        }
    }
    const QMargins m = contentsMargins();
    return QSize(widest, place({}, widest, false).height()).grownBy(m);
}

void SubscriptionFlowLayout::setGeometry(const QRect& rect) {
    QLayout::setGeometry(rect);
    const QRect inner = rect.marginsRemoved(contentsMargins());
    place(inner.topLeft(), inner.width(), true);
}

} // namespace tessel::app
