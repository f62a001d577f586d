// A row that wraps: children left to right at their own width (never wider
// than the row), a new row when the next one would not fit. Its height
// follows its width, so a narrow card grows instead of squeezing its pills.
#pragma once

#include <QLayout>
#include <QList>

namespace tessel::app {

class SubscriptionFlowLayout : public QLayout {
public:
    explicit SubscriptionFlowLayout(int spacing, QWidget* parent = nullptr);
    ~SubscriptionFlowLayout() override;

    void addItem(QLayoutItem* item) override;
    int count() const override { return int(items_.size()); }
    QLayoutItem* itemAt(int index) const override { return items_.value(index); }
    QLayoutItem* takeAt(int index) override;
    Qt::Orientations expandingDirections() const override { return {}; }
    bool hasHeightForWidth() const override { return true; }
    int heightForWidth(int width) const override;
    QSize sizeHint() const override;
    QSize minimumSize() const override;
    void setGeometry(const QRect& rect) override;

private:
    // Lays the children out in `width` from `origin`, moving them when `apply`;
    // gives the size taken.
    QSize place(QPoint origin, int width, bool apply) const;

    QList<QLayoutItem*> items_;
    int spacing_;
};

} // namespace tessel::app
