#include "ui/IdleBlock.h"

#include "ui/Symbols.h"
#include "ui/Widgets.h"

#include <QHBoxLayout>
#include <QLocale>
#include <QProgressBar>
#include <QVBoxLayout>

namespace tessel::app {

IdleBlock::IdleBlock(AppModel& model, std::function<void()> dismiss, QWidget* parent)
    : QWidget(parent) {
    auto* rows = new QVBoxLayout(this);
    rows->setContentsMargins(0, 0, 0, 0);
    rows->setSpacing(12);
    QPointer<AppModel> owner(&model);

    if (model.savedCallID()) {
        rows->addWidget(textLine(QStringLiteral("Call saved. Writing notes…"), this));
    }
    if (model.loadingOpenCalls()) {
        auto* busy = new QProgressBar(this);
        busy->setRange(0, 0);
        busy->setMaximumHeight(6);
        busy->setTextVisible(false);
        busy->setAccessibleName(QStringLiteral("Looking for open calls…"));
        rows->addWidget(textLine(QStringLiteral("Looking for open calls…"), this, true));
        rows->addWidget(busy);
    }
    if (model.openCalls().empty()) {
        return;
    }
    auto* calls = new QVBoxLayout;
    calls->setSpacing(16);
    for (const OpenCall& call : model.openCalls()) {
        const QString started =
            call.startedAt ? QLocale().toString(call.startedAt->toLocalTime(), QLocale::ShortFormat)
                           : QStringLiteral("unknown time");
        auto* entry = new QVBoxLayout;
        entry->addWidget(textLine(QStringLiteral("Call still open: ") + call.title +
                                      QStringLiteral(" with ") + call.counterpart +
                                      QStringLiteral(" · started ") + started,
                                  this));
        auto* buttons = new QHBoxLayout;
        const bool stopping = model.stoppingOpenCall() == call.id;
        // Not a dismissal: the popover stays to show the stop.
        const QString stopWords =
            stopping ? QStringLiteral("Stopping…") : QStringLiteral("Stop & write notes");
        auto* stop = iconButton(QStringLiteral("stop.circle"), stopWords, stopWords, this,
                                [owner, id = call.id] {
                                    spawn([owner, id]() -> Task<void> {
                                        if (owner) {
                                            co_await owner->stopOpenCall(id, false);
                                        }
                                    });
                                });
        stop->setEnabled(!model.stoppingOpenCall());
        buttons->addWidget(stop);
        buttons->addWidget(
            iconButton(QStringLiteral("note.text"), QStringLiteral("Open in browser"),
                       QStringLiteral("Open in browser"), this, [owner, dismiss, id = call.id] {
                           dismiss();
                           if (owner) {
                               owner->openCall(id);
                           }
                       }));
        buttons->addStretch();
        entry->addLayout(buttons);
        calls->addLayout(entry);
    }
    rows->addLayout(calls);
}

} // namespace tessel::app
