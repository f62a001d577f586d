#include "ui/CaptureStatusView.h"

#include "ui/ErrorNotice.h"
#include "ui/Symbols.h"
#include "ui/Widgets.h"

#include "upload/SilenceMeter.h"

#include <QLabel>
#include <QPointer>
#include <QVBoxLayout>

namespace tessel::app {

CaptureSnapshot CaptureSnapshot::of(const CaptureSession& session) {
    return {session.state(),     session.elapsed(), session.micHealthy(), session.systemHealthy(),
            session.silent(),    session.uploads(), session.error(),      session.errorDetails(),
            session.meetingID(), session.canStop()};
}

CaptureActions CaptureActions::of(AppModel& model, std::function<void()> dismiss,
                                  std::function<void(const QString& id)> openWindow) {
    QPointer<AppModel> owner(&model);
    return {
        std::move(dismiss),
        std::move(openWindow),
        [owner](bool openBrowser) {
            spawn([owner, openBrowser]() -> Task<void> {
                if (owner) {
                    co_await owner->stop(openBrowser);
                }
            });
        },
        [owner] {
            if (owner) {
                owner->clearCapture();
            }
        },
        [owner] {
            if (owner) {
                owner->openNotes();
            }
        },
    };
}

QString elapsedText(double elapsed) {
    const auto seconds = static_cast<qint64>(elapsed);
    return QStringLiteral("%1:%2").arg(seconds / 60).arg(seconds % 60, 2, 10, QLatin1Char('0'));
}

namespace {

QString statusWord(CaptureState state) {
    switch (state) {
    case CaptureState::needsSignIn:
        return QStringLiteral("Uploads paused");
    case CaptureState::listening:
        return QStringLiteral("Listening");
    default:
        return QStringLiteral("Capture stopped");
    }
}

QString headlineText(CaptureState state, double elapsed) {
    return statusWord(state) + QStringLiteral(" · ") + elapsedText(elapsed);
}

QString mark(bool healthy) {
    return healthy ? QStringLiteral("✓") : QStringLiteral("—");
}

} // namespace

QWidget* captureStatusView(const CaptureSnapshot& capture, bool inPopover,
                           const CaptureActions& actions, QWidget* parent) {
    auto* box = new QWidget(parent);
    auto* layout = new QVBoxLayout(box);
    layout->setContentsMargins(0, 0, 0, 0);
    const CaptureState state = capture.state;

    if (state == CaptureState::preparing) {
        layout->addWidget(textLine(QStringLiteral("Preparing audio permissions…"), box));
    } else if (state == CaptureState::finished) {
        layout->addWidget(textLine(QStringLiteral("Call saved. Writing notes…"), box));
        layout->addWidget(iconButton(QStringLiteral("record.circle"),
                                     QStringLiteral("Take notes on another call…"),
                                     QStringLiteral("Take notes on another call"), box,
                                     [actions] {
                                         actions.dismiss();
                                         actions.clear();
                                         actions.openWindow(QStringLiteral("call"));
                                     }),
                          0, Qt::AlignLeft);
    } else {
        if (state == CaptureState::needsSignIn) {
            layout->addWidget(errorNotice(capture.error.value_or(CaptureSession::signInMessage),
                                          capture.errorDetails, box));
            layout->addWidget(iconButton(QStringLiteral("person.crop.circle"),
                                         QStringLiteral("Sign in…"), QStringLiteral("Sign in…"),
                                         box,
                                         [actions] {
                                             actions.dismiss();
                                             actions.openWindow(QStringLiteral("login"));
                                         }),
                              0, Qt::AlignLeft);
        }
        auto* headline = textLine(headlineText(state, capture.elapsed), box);
        headline->setObjectName(QStringLiteral("headline"));
        headline->setStyleSheet(QStringLiteral("font-weight: bold;"));
        layout->addWidget(headline);
        layout->addWidget(textLine(QStringLiteral("mic ") + mark(capture.micHealthy) +
                                       QStringLiteral(" · system audio ") +
                                       mark(capture.systemHealthy),
                                   box));
        layout->addWidget(textLine(QStringLiteral("%1 mic · %2 system segments uploaded")
                                       .arg(capture.uploads.local)
                                       .arg(capture.uploads.remote),
                                   box, true));
        if (capture.silent) {
            auto* silent = textLine(SilenceMeter::warningMessage, box);
            silent->setStyleSheet(QStringLiteral("color: #e67e22;"));
            layout->addWidget(silent);
        }
        if (capture.error && state != CaptureState::needsSignIn) {
            layout->addWidget(errorNotice(*capture.error, capture.errorDetails, box));
        }
        if (capture.canStop) {
            const bool uploading = state == CaptureState::uploading;
            // Not a dismissal: the popover stays to show the stop.
            const QString stopWords =
                uploading ? QStringLiteral("Uploading…") : QStringLiteral("Stop & write notes");
            auto* stop = iconButton(QStringLiteral("stop.circle"), stopWords, stopWords, box,
                                    [actions, inPopover] { actions.stop(!inPopover); });
            stop->setEnabled(!uploading);
            layout->addWidget(stop, 0, Qt::AlignLeft);
        } else if (state == CaptureState::failed || state == CaptureState::superseded) {
            // The one way out of a capture that can't be stopped.
            layout->addWidget(iconButton(QStringLiteral("arrow.left"), QStringLiteral("Back"),
                                         QStringLiteral("Back"), box, actions.clear),
                              0, Qt::AlignLeft);
        }
    }
    if (capture.meetingID) {
        layout->addWidget(iconButton(QStringLiteral("note.text"),
                                     QStringLiteral("Open notes in browser"),
                                     QStringLiteral("Notes"), box,
                                     [actions] {
                                         actions.dismiss();
                                         actions.openNotes();
                                     }),
                          0, Qt::AlignLeft);
    }
    return box;
}

void followClock(QWidget* view, CaptureSession& session) {
    auto* headline = view->findChild<QLabel*>(QStringLiteral("headline"));
    if (!headline) {
        return; // preparing or finished: no clock shown
    }
    QPointer<CaptureSession> owner(&session);
    QObject::connect(&session, &CaptureSession::clockMoved, headline, [headline, owner] {
        if (owner) {
            headline->setText(headlineText(owner->state(), owner->elapsed()));
        }
    });
}

} // namespace tessel::app
