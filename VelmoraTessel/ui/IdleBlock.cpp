#include "ui/IdleBlock.h"

#include "ui/Symbols.h"
#include "ui/Widgets.h"

#include <QHBoxLayout>
#include <QLocale>
#include <QProgressBar>
#include <QVBoxLayout>

#include <set>

namespace tessel::app {

IdleBlock::IdleBlock(AppModel& model, std::function<void()> dismiss, QWidget* parent)
    : QWidget(parent), model_(&model), dismiss_(std::move(dismiss)) {
    auto* rows = new QVBoxLayout(this);
    rows->setContentsMargins(0, 0, 0, 0);
    rows->setSpacing(12);
    saved_ = textLine(QStringLiteral("Call saved. Writing notes…"), this);
    rows->addWidget(saved_);
    looking_ = textLine(QStringLiteral("Looking for open calls…"), this, true);
    rows->addWidget(looking_);
    busy_ = new QProgressBar(this);
    busy_->setRange(0, 0);
    busy_->setMaximumHeight(6);
    busy_->setTextVisible(false);
    busy_->setAccessibleName(QStringLiteral("Looking for open calls…"));
    rows->addWidget(busy_);
    calls_ = new QVBoxLayout;
    calls_->setSpacing(16);
    rows->addLayout(calls_);
    connect(&model, &AppModel::captureChanged, this, &IdleBlock::update);
    connect(&model, &AppModel::openCallsChanged, this, &IdleBlock::update);
    update();
}

IdleBlock::Row IdleBlock::makeRow(const QString& id) {
    auto* box = new QWidget(this);
    auto* entry = new QVBoxLayout(box);
    entry->setContentsMargins(0, 0, 0, 0);
    auto* text = textLine(QString(), box);
    entry->addWidget(text);
    auto* buttons = new QHBoxLayout;
    QPointer<AppModel> owner = model_;
    // Not a dismissal: the popover stays to show the stop.
    auto* stop = iconButton(QStringLiteral("stop.circle"), QStringLiteral("Stop & write notes"),
                            QStringLiteral("Stop & write notes"), box, [owner, id] {
                                spawn([owner, id]() -> Task<void> {
                                    if (owner) {
                                        co_await owner->stopOpenCall(id, false);
                                    }
                                });
                            });
    buttons->addWidget(stop);
    buttons->addWidget(iconButton(QStringLiteral("note.text"), QStringLiteral("Open in browser"),
                                  QStringLiteral("Open in browser"), box, [this, owner, id] {
                                      dismiss_();
                                      if (owner) {
                                          owner->openCall(id);
                                      }
                                  }));
    buttons->addStretch();
    entry->addLayout(buttons);
    return {box, text, stop};
}

void IdleBlock::update() {
    if (!model_) {
        return;
    }
    const AppModel& model = *model_;
    setVisible(!model.capture());
    saved_->setVisible(model.savedCallID().has_value());
    looking_->setVisible(model.loadingOpenCalls());
    busy_->setVisible(model.loadingOpenCalls());

    std::set<QString> listed;
    int at = 0;
    for (const OpenCall& call : model.openCalls()) {
        listed.insert(call.id);
        auto found = rows_.find(call.id);
        if (found == rows_.end()) {
            found = rows_.emplace(call.id, makeRow(call.id)).first;
        }
        const Row& row = found->second;
        if (calls_->indexOf(row.box) != at) { // in the list's order
            calls_->removeWidget(row.box);
            calls_->insertWidget(at, row.box);
        }
        ++at;
        const QString started =
            call.startedAt ? QLocale().toString(call.startedAt->toLocalTime(), QLocale::ShortFormat)
                           : QStringLiteral("unknown time");
        row.text->setText(QStringLiteral("Call still open: ") + call.title +
                          QStringLiteral(" with ") + call.counterpart +
                          QStringLiteral(" · started ") + started);
        const bool stopping = model.stoppingOpenCall() == call.id;
        const QString stopWords =
            stopping ? QStringLiteral("Stopping…") : QStringLiteral("Stop & write notes");
        setWords(row.stop, stopWords, stopWords);
        row.stop->setEnabled(!model.stoppingOpenCall());
        row.box->setVisible(true);
    }
    for (auto it = rows_.begin(); it != rows_.end();) {
        if (listed.contains(it->first)) {
            ++it;
            continue;
        }
        // Later, not now: the change may come from a click on this row.
        it->second.box->hide();
        it->second.box->deleteLater();
        it = rows_.erase(it);
    }
}

} // namespace tessel::app
