#include "ui/Widgets.h"

#include <QEvent>
#include <QLayout>

#include <algorithm>
#include <cmath>

namespace tessel::app {

QLabel* textLine(const QString& text, QWidget* parent, bool secondary) {
    auto* label = new QLabel(text, parent);
    label->setWordWrap(true);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    if (secondary) {
        label->setStyleSheet(QStringLiteral("color: palette(placeholder-text);"));
    }
    return label;
}

QPushButton* button(const QString& text, QWidget* parent, std::function<void()> action) {
    // An ampersand is the platform's mnemonic marker; the text means it literally.
    auto* b =
        new QPushButton(QString(text).replace(QLatin1Char('&'), QStringLiteral("&&")), parent);
    QObject::connect(b, &QPushButton::clicked, parent, [action = std::move(action)] { action(); });
    // No fixed accessible name: Qt names the button by its text (the doubled
    // ampersand read as one), so the name follows every later setText.
    return b;
}

QFrame* divider(QWidget* parent) {
    auto* line = new QFrame(parent);
    line->setFrameShape(QFrame::HLine);
    line->setFrameShadow(QFrame::Sunken);
    return line;
}

namespace {

class ContentHeight : public QObject {
public:
    explicit ContentHeight(QWidget* window) : QObject(window), window_(window) {}

    void fit() {
        QLayout* layout = window_->layout();
        if (!layout) {
            return;
        }
        layout->activate();
        const int wanted = layout->hasHeightForWidth()
                               ? layout->totalHeightForWidth(window_->width())
                               : layout->totalSizeHint().height();
        window_->setMinimumHeight(wanted);
        if (window_->height() != wanted) {
            window_->resize(window_->width(), wanted);
        }
    }

protected:
    bool eventFilter(QObject*, QEvent* event) override {
        if (event->type() == QEvent::LayoutRequest || event->type() == QEvent::Show) {
            QMetaObject::invokeMethod(this, &ContentHeight::fit, Qt::QueuedConnection);
        }
        return false;
    }

private:
    QWidget* window_;
};

// Relative luminance and contrast ratio as WCAG defines them.
double luminance(const QColor& colour) {
    const auto channel = [](double c) {
        return c <= 0.03928 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
    };
    return 0.2126 * channel(colour.redF()) + 0.7152 * channel(colour.greenF()) +
           0.0722 * channel(colour.blueF());
}

double contrast(const QColor& a, const QColor& b) {
    const double first = luminance(a);
    const double second = luminance(b);
    return (std::max(first, second) + 0.05) / (std::min(first, second) + 0.05);
}

} // namespace

void keepContentHeight(QWidget* window) {
    auto* keeper = new ContentHeight(window);
    window->installEventFilter(keeper);
    keeper->fit();
}

QColor readableOn(const QColor& ink, const QColor& background) {
    const QColor toward = luminance(background) < 0.5 ? QColor(Qt::white) : QColor(Qt::black);
    QColor mixed = ink;
    for (double share = 0.1; contrast(mixed, background) < 4.5 && share <= 1.0; share += 0.1) {
        mixed.setRgbF(ink.redF() + (toward.redF() - ink.redF()) * share,
                      ink.greenF() + (toward.greenF() - ink.greenF()) * share,
                      ink.blueF() + (toward.blueF() - ink.blueF()) * share);
    }
    return mixed;
}

QList<QWidget*> rowOrder(QWidget* root) {
    struct Place {
        QWidget* widget;
        QRect rect;
    };
    QList<Place> places;
    for (QWidget* widget : root->findChildren<QWidget*>()) {
        if (widget->isVisibleTo(root) && widget->isEnabled() && !widget->focusProxy() &&
            (widget->focusPolicy() & Qt::TabFocus) == Qt::TabFocus) {
            places.push_back({widget, QRect(widget->mapTo(root, QPoint(0, 0)), widget->size())});
        }
    }
    std::stable_sort(places.begin(), places.end(), [](const Place& a, const Place& b) {
        return a.rect.center().y() < b.rect.center().y();
    });
    // A row: the widgets whose middles lie within the first one's height.
    QList<QWidget*> order;
    for (qsizetype start = 0; start < places.size();) {
        const QRect& first = places[start].rect;
        qsizetype end = start + 1;
        while (end < places.size() && places[end].rect.center().y() <= first.bottom()) {
            ++end;
        }
        std::stable_sort(places.begin() + start, places.begin() + end,
                         [](const Place& a, const Place& b) { return a.rect.x() < b.rect.x(); });
        for (qsizetype i = start; i < end; ++i) {
            order.push_back(places[i].widget);
        }
        start = end;
    }
    return order;
}

bool focusAlongRows(QWidget* root, bool next) {
    const QList<QWidget*> order = rowOrder(root);
    if (order.isEmpty()) {
        return false;
    }
    const qsizetype at = order.indexOf(root->focusWidget());
    const qsizetype count = order.size();
    const qsizetype to = at < 0 ? (next ? 0 : count - 1) : (at + (next ? 1 : count - 1)) % count;
    order[to]->setFocus(next ? Qt::TabFocusReason : Qt::BacktabFocusReason);
    return true;
}

} // namespace tessel::app
