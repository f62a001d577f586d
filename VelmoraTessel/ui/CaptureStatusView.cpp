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

CaptureStatusView::CaptureStatusView(bool inPopover, CaptureActions actions, QWidget* parent)
    : QWidget(parent), inPopover_(inPopover), actions_(std::move(actions)) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    const auto left = [layout](QWidget* widget) { layout->addWidget(widget, 0, Qt::AlignLeft); };

    preparing_ = textLine(QStringLiteral("Preparing audio permissions…"), this);
    layout->addWidget(preparing_);
    finished_ = textLine(QStringLiteral("Call saved. Writing notes…"), this);
    layout->addWidget(finished_);
    another_ =
        iconButton(QStringLiteral("record.circle"), QStringLiteral("Take notes on another call…"),
                   QStringLiteral("Take notes on another call"), this, [this] {
                       actions_.dismiss();
                       actions_.clear();
                       actions_.openWindow(QStringLiteral("call"));
                   });
    left(another_);
    signInNotice_ = new ErrorNotice(this);
    layout->addWidget(signInNotice_);
    signIn_ = iconButton(QStringLiteral("person.crop.circle"), QStringLiteral("Sign in…"),
                         QStringLiteral("Sign in…"), this, [this] {
                             actions_.dismiss();
                             actions_.openWindow(QStringLiteral("login"));
                         });
    left(signIn_);
    headline_ = textLine(QString(), this);
    headline_->setObjectName(QStringLiteral("headline"));
    headline_->setStyleSheet(QStringLiteral("font-weight: bold;"));
    layout->addWidget(headline_);
    health_ = textLine(QString(), this);
    layout->addWidget(health_);
    uploads_ = textLine(QString(), this, true);
    layout->addWidget(uploads_);
    silent_ = textLine(SilenceMeter::warningMessage, this);
    silent_->setStyleSheet(QStringLiteral("color: #e67e22;"));
    layout->addWidget(silent_);
    error_ = new ErrorNotice(this);
    layout->addWidget(error_);
    // Not a dismissal: the popover stays to show the stop.
    stop_ = iconButton(QStringLiteral("stop.circle"), QStringLiteral("Stop & write notes"),
                       QStringLiteral("Stop & write notes"), this,
                       [this] { actions_.stop(!inPopover_); });
    left(stop_);
    // The one way out of a capture that can't be stopped.
    back_ = iconButton(QStringLiteral("arrow.left"), QStringLiteral("Back"), QStringLiteral("Back"),
                       this, [this] { actions_.clear(); });
    left(back_);
    notes_ = iconButton(QStringLiteral("note.text"), QStringLiteral("Open notes in browser"),
                        QStringLiteral("Notes"), this, [this] {
                            actions_.dismiss();
                            actions_.openNotes();
                        });
    left(notes_);
    setVisible(false);
}

void CaptureStatusView::setSession(CaptureSession* session) {
    if (session_ == session) {
        return;
    }
    if (session_) {
        disconnect(session_, nullptr, this, nullptr);
    }
    session_ = session;
    if (!session) {
        setVisible(false);
        return;
    }
    connect(session, &CaptureSession::changed, this, &CaptureStatusView::followSession);
    // The clock moves the headline alone.
    connect(session, &CaptureSession::clockMoved, this, [this] {
        if (session_) {
            headline_->setText(headlineText(session_->state(), session_->elapsed()));
        }
    });
    followSession();
    setVisible(true);
}

void CaptureStatusView::followSession() {
    if (session_) {
        showSnapshot(CaptureSnapshot::of(*session_));
    }
}

void CaptureStatusView::showSnapshot(const CaptureSnapshot& capture) {
    const CaptureState state = capture.state;
    const bool running = state != CaptureState::preparing && state != CaptureState::finished;
    preparing_->setVisible(state == CaptureState::preparing);
    finished_->setVisible(state == CaptureState::finished);
    another_->setVisible(state == CaptureState::finished);

    const bool signIn = state == CaptureState::needsSignIn;
    signInNotice_->setFailure(
        signIn ? std::optional(capture.error.value_or(CaptureSession::signInMessage))
               : std::nullopt,
        capture.errorDetails);
    signIn_->setVisible(signIn);
    for (QWidget* row : std::initializer_list<QWidget*>{headline_, health_, uploads_}) {
        row->setVisible(running);
    }
    headline_->setText(headlineText(state, capture.elapsed));
    health_->setText(QStringLiteral("mic ") + mark(capture.micHealthy) +
                     QStringLiteral(" · system audio ") + mark(capture.systemHealthy));
    uploads_->setText(QStringLiteral("%1 mic · %2 system segments uploaded")
                          .arg(capture.uploads.local)
                          .arg(capture.uploads.remote));
    silent_->setVisible(running && capture.silent);
    error_->setFailure(running && !signIn ? capture.error : std::nullopt, capture.errorDetails);

    const bool uploading = state == CaptureState::uploading;
    const QString stopWords =
        uploading ? QStringLiteral("Uploading…") : QStringLiteral("Stop & write notes");
    setWords(stop_, stopWords, stopWords);
    stop_->setEnabled(!uploading);
    stop_->setVisible(running && capture.canStop);
    back_->setVisible(running && !capture.canStop &&
                      (state == CaptureState::failed || state == CaptureState::superseded));
    notes_->setVisible(capture.meetingID.has_value());
}

} // namespace tessel::app
