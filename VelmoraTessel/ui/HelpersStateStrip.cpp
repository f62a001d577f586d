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
    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(0, 0, 0, 0);
    line_ = new QLabel(this);
    QFont font = line_->font();
    font.setPointSizeF(font.pointSizeF() * 0.85);
    line_->setFont(font);
    line_->setWordWrap(true);
    line_->setStyleSheet(u"color: #d0342c;"_s);
    row->addWidget(line_, 1);
    bar_ = new QProgressBar(this);
    bar_->setRange(0, 0);
    bar_->setMaximumWidth(60);
    row->addWidget(bar_);
    installing_ = new QLabel(u"Installing helpers…"_s, this);
    row->addWidget(installing_, 1);
    // The click runs the model's operation; a click while it is busy is
    // ignored by the model itself.
    action_ = new QPushButton(this);
    connect(action_, &QPushButton::clicked, this, [this] {
        if (!model_) {
            return;
        }
        const bool retry = model_->error().has_value();
        spawn([model = model_, retry]() -> Task<void> {
            if (!model) {
                co_return;
            }
            if (retry) {
                co_await model->installIfNeeded();
            } else {
                co_await model->installPython();
            }
        });
    });
    row->addWidget(action_);
    if (model_) {
        connect(model_, &HelpersModel::changed, this, &HelpersStateStrip::update);
    }
    update();
}

void HelpersStateStrip::update() {
    const bool shown = model_ && (model_->error() || model_->pythonMissing() || model_->busy());
    setVisible(shown);
    if (!shown) {
        return;
    }
    const bool failed = model_->error().has_value();
    const bool python = !failed && model_->pythonMissing();
    line_->setVisible(failed || python);
    line_->setText(failed   ? *model_->error()
                   : python ? HelpersModel::pythonMissingLine
                            : QString());
    const QString action = failed ? u"Retry"_s : u"Install…"_s;
    action_->setText(action);
    action_->setAccessibleName(action);
    action_->setVisible(failed || python);
    bar_->setVisible(!failed && !python);
    installing_->setVisible(!failed && !python);
}

} // namespace tessel::app
