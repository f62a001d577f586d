#include "ApplicationDelegate.h"

#include "errors/ErrorLog.h"

#include <QPushButton>
#include <QSessionManager>
#include <QSocketNotifier>
#include <QTimer>

#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace tessel::app {

namespace {

// The signal handler only writes the signal's number here; the loop reads it.
int signalPipe[2] = {-1, -1};

void onSignal(int signal) {
    const char byte = static_cast<char>(signal);
    [[maybe_unused]] const auto written = ::write(signalPipe[1], &byte, 1);
}

} // namespace

TesselApplicationDelegate::TesselApplicationDelegate(QObject* parent) : QObject(parent) {}

TesselApplicationDelegate::~TesselApplicationDelegate() = default;

void TesselApplicationDelegate::applicationDidFinishLaunching() {
    QTimer::singleShot(0, this, [this] {
        for (const auto& job : launchJobs) {
            job();
        }
    });
}

void TesselApplicationDelegate::requestQuit() {
    if (!model || !model->capture()) {
        terminate();
        return;
    }
    askBeforeQuitting();
}

void TesselApplicationDelegate::askBeforeQuitting() {
    if (question_) {
        question_->raise();
        question_->activateWindow();
        return;
    }
    // Asked in every capture state, failed and superseded too: a capture being
    // held is the only test. Nothing is stopped on the way out.
    auto* box = new QMessageBox(QMessageBox::Warning, QStringLiteral("Velmora"),
                                QStringLiteral("Quit and keep the audio on the server?"));
    box->setInformativeText(
        QStringLiteral("Everything already uploaded stays; unsent audio will be lost."));
    QPushButton* cancel = box->addButton(QStringLiteral("Cancel"), QMessageBox::RejectRole);
    QPushButton* quit = box->addButton(QStringLiteral("Quit"), QMessageBox::DestructiveRole);
    box->setDefaultButton(cancel);
    box->setEscapeButton(cancel);
    box->setAttribute(Qt::WA_DeleteOnClose);
    connect(box, &QMessageBox::finished, this, [this, box, quit] {
        if (box->clickedButton() == quit) {
            terminate();
        }
    });
    question_ = box;
    box->open();
    box->raise();
    box->activateWindow();
}

void TesselApplicationDelegate::commitData(QSessionManager& manager) {
    if (!model || !model->capture()) {
        return;
    }
    // The logout waits for the person's answer to the same question: it is
    // cancelled now, and a Quit ends the program before they log out again.
    manager.cancel();
    askBeforeQuitting();
}

void TesselApplicationDelegate::watchTerminationSignals() {
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalPipe) != 0) {
        log::error(QStringLiteral("Termination signals can't be watched: no socket pair."));
        return;
    }
    signalNotifier_ = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, this);
    connect(signalNotifier_, &QSocketNotifier::activated, this, [this] {
        char byte = 0;
        if (::read(signalPipe[0], &byte, 1) == 1) {
            terminateForSignal(byte);
        }
    });
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGINT, &action, nullptr);
}

void TesselApplicationDelegate::terminateForSignal(int signal) {
    if (terminating_) {
        return;
    }
    terminating_ = true;
    if (!model || !model->capture()) {
        terminate();
        return;
    }
    log::write(
        log::Level::info, "app",
        QStringLiteral("Signal %1 during a call: stopping the capture before exit.").arg(signal));
    // A user logging out should not leave a live call behind, but the session
    // won't wait for ever.
    QTimer::singleShot(static_cast<int>(signalStopBound * 1000), this, [this] { terminate(); });
    QPointer<TesselApplicationDelegate> self(this);
    spawn([self, model = model]() -> Task<void> {
        if (model) {
            co_await model->stop(false);
        }
        if (self) {
            self->terminate();
        }
    });
}

} // namespace tessel::app
