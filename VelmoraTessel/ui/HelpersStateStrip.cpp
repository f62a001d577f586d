#include "ui/HelpersStateStrip.h"

#include "async/Async.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>

using namespace Qt::StringLiterals;

namespace tessel::app {

HelpersStateStrip::HelpersStateStrip(HelpersModel* model, QWidget* parent)
    : QWidget(parent), model_(model) {
    row_ = new QHBoxLayout(this);
    row_->setContentsMargins(0, 0, 0, 0);
    if (model_) {
        connect(model_, &HelpersModel::changed, this, &HelpersStateStrip::rebuild);
    }
    rebuild();
}

void HelpersStateStrip::rebuild() {
    // Later, not now: the change may come from a click on one of these.
    while (QLayoutItem* item = row_->takeAt(0)) {
        if (QWidget* widget = item->widget()) {
            widget->hide();
            widget->deleteLater();
        }
        delete item;
    }
    // Shown at once, not at the layout's next turn, so the strip never stands empty.
    const auto add = [this](QWidget* widget, int stretch = 0) {
        row_->addWidget(widget, stretch);
        widget->show();
    };
    const auto caption = [this, add](const QString& text) {
        auto* label = new QLabel(text, this);
        QFont font = label->font();
        font.setPointSizeF(font.pointSizeF() * 0.85);
        label->setFont(font);
        label->setWordWrap(true);
        label->setStyleSheet(u"color: #d0342c;"_s);
        add(label, 1);
    };
    // The click runs the model's operation; a click while it is busy is
    // ignored by the model itself.
    const auto action = [this, add](const QString& text, Task<void> (HelpersModel::*operation)()) {
        auto* button = new QPushButton(text, this);
        button->setAccessibleName(text);
        connect(button, &QPushButton::clicked, this, [model = model_, operation] {
            spawn([model, operation]() -> Task<void> {
                if (model) {
                    co_await (model.data()->*operation)();
                }
            });
        });
        add(button);
    };

    const bool shown = model_ && (model_->error() || model_->pythonMissing() || model_->busy());
    setVisible(shown);
    if (!shown) {
        return;
    }
    if (model_->error()) {
        caption(*model_->error());
        action(u"Retry"_s, &HelpersModel::installIfNeeded);
    } else if (model_->pythonMissing()) {
        caption(HelpersModel::pythonMissingLine);
        action(u"Install…"_s, &HelpersModel::installPython);
    } else {
        auto* bar = new QProgressBar(this);
        bar->setRange(0, 0);
        bar->setMaximumWidth(60);
        add(bar);
        add(new QLabel(u"Installing helpers…"_s, this), 1);
    }
}

} // namespace tessel::app
