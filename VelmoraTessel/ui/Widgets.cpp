#include "ui/Widgets.h"

#include "upload/SilenceMeter.h"

#include <QApplication>
#include <QClipboard>
#include <QDesktopServices>
#include <QVBoxLayout>

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
    return b;
}

QString elapsedText(double elapsed) {
    const auto seconds = static_cast<qint64>(elapsed);
    return QStringLiteral("%1:%2").arg(seconds / 60).arg(seconds % 60, 2, 10, QLatin1Char('0'));
}

namespace {

QWidget* errorNotice(const QString& human, const std::optional<QString>& details, QWidget* parent) {
    auto* box = new QWidget(parent);
    auto* layout = new QVBoxLayout(box);
    layout->setContentsMargins(0, 0, 0, 0);
    auto* line = textLine(human, box);
    line->setStyleSheet(QStringLiteral("color: #c0392b;"));
    layout->addWidget(line);
    if (details) {
        // Details stay folded for each new failure: the notice is built anew.
        auto* detailLabel = textLine(*details, box, true);
        detailLabel->setFont(QFont(QStringLiteral("monospace")));
        detailLabel->hide();
        auto* copy = button(QStringLiteral("Copy details"), box,
                            [text = *details] { QApplication::clipboard()->setText(text); });
        copy->hide();
        auto* toggle = button(QStringLiteral("Details"), box, [detailLabel, copy] {
            detailLabel->setVisible(!detailLabel->isVisible());
            copy->setVisible(detailLabel->isVisible());
        });
        toggle->setFlat(true);
        layout->addWidget(toggle, 0, Qt::AlignLeft);
        layout->addWidget(detailLabel);
        layout->addWidget(copy, 0, Qt::AlignLeft);
    }
    return box;
}

} // namespace

QWidget* modelError(AppModel& model, const std::function<void()>& dismiss, QWidget* parent) {
    if (!model.error()) {
        return nullptr;
    }
    QWidget* notice = errorNotice(*model.error(), model.errorDetails(), parent);
    if (const auto& refused = model.permissionError()) {
        const QUrl settings(refused->settingsURL());
        auto* open = button(refused->settingsButtonTitle(), notice, [dismiss, settings] {
            dismiss();
            QDesktopServices::openUrl(settings);
        });
        notice->layout()->addWidget(open);
    }
    return notice;
}

QWidget* captureStatus(AppModel& model, CaptureSession& session, bool inPopover,
                       const CaptureActions& actions, QWidget* parent) {
    auto* box = new QWidget(parent);
    auto* layout = new QVBoxLayout(box);
    layout->setContentsMargins(0, 0, 0, 0);
    const CaptureState state = session.state();
    QPointer<AppModel> owner(&model);

    if (state == CaptureState::preparing) {
        layout->addWidget(textLine(QStringLiteral("Preparing audio permissions…"), box));
        return box;
    }
    if (state == CaptureState::finished) {
        layout->addWidget(textLine(QStringLiteral("Call saved. Writing notes…"), box));
        layout->addWidget(button(QStringLiteral("Take notes on another call"), box, [=] {
            actions.dismiss();
            if (owner) {
                owner->clearCapture();
            }
            actions.openWindow(QStringLiteral("call"));
        }));
        return box;
    }
    if (state == CaptureState::needsSignIn) {
        layout->addWidget(errorNotice(session.error().value_or(CaptureSession::signInMessage),
                                      session.errorDetails(), box));
        layout->addWidget(button(QStringLiteral("Sign in…"), box, [=] {
            actions.dismiss();
            actions.openWindow(QStringLiteral("login"));
        }));
    }
    const QString word = state == CaptureState::needsSignIn ? QStringLiteral("Uploads paused")
                         : state == CaptureState::listening ? QStringLiteral("Listening")
                                                            : QStringLiteral("Capture stopped");
    auto* headline = textLine(word + QStringLiteral(" · ") + elapsedText(session.elapsed()), box);
    headline->setStyleSheet(QStringLiteral("font-weight: bold;"));
    layout->addWidget(headline);
    const auto mark = [](bool healthy) {
        return healthy ? QStringLiteral("✓") : QStringLiteral("—");
    };
    layout->addWidget(textLine(QStringLiteral("mic ") + mark(session.micHealthy()) +
                                   QStringLiteral(" · system audio ") +
                                   mark(session.systemHealthy()),
                               box));
    layout->addWidget(textLine(QStringLiteral("%1 mic · %2 system segments uploaded")
                                   .arg(session.uploads().local)
                                   .arg(session.uploads().remote),
                               box, true));
    if (session.silent()) {
        auto* silent = textLine(SilenceMeter::warningMessage, box);
        silent->setStyleSheet(QStringLiteral("color: #d35400;"));
        layout->addWidget(silent);
    }
    if (session.error() && state != CaptureState::needsSignIn) {
        layout->addWidget(errorNotice(*session.error(), session.errorDetails(), box));
    }
    if (session.canStop()) {
        const bool uploading = state == CaptureState::uploading;
        auto* stop =
            button(uploading ? QStringLiteral("Uploading…") : QStringLiteral("Stop & write notes"),
                   box, [owner, inPopover] {
                       // Not a dismissal: the popover stays to show the stop.
                       spawn([owner, inPopover]() -> Task<void> {
                           if (owner) {
                               co_await owner->stop(!inPopover);
                           }
                       });
                   });
        stop->setEnabled(!uploading);
        layout->addWidget(stop);
    } else if (state == CaptureState::failed || state == CaptureState::superseded) {
        layout->addWidget(button(QStringLiteral("Back"), box, [owner] {
            if (owner) {
                owner->clearCapture();
            }
        }));
    }
    if (session.meetingID()) {
        layout->addWidget(button(QStringLiteral("Open notes in browser"), box, [=] {
            actions.dismiss();
            if (owner) {
                owner->openNotes();
            }
        }));
    }
    return box;
}

} // namespace tessel::app
