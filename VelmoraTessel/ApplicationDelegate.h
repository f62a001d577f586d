// The application's lifecycle: the background jobs that start once launching
// ends, and the one road out. Every Quit comes through requestQuit(), which
// asks first while a capture is held; the desktop's logout asks the same;
// SIGTERM and SIGINT, with nobody to ask, stop a running call as Stop would
// (bounded at ten seconds) and then end the program.
#pragma once

#include "app/AppModel.h"

#include <QMessageBox>
#include <QObject>
#include <QPointer>

#include <functional>
#include <vector>

class QSessionManager;
class QSocketNotifier;

namespace tessel::app {

class TesselApplicationDelegate : public QObject {
    Q_OBJECT

public:
    static constexpr double signalStopBound = 10;

    explicit TesselApplicationDelegate(QObject* parent = nullptr);
    ~TesselApplicationDelegate() override;

    QPointer<AppModel> model;
    // Jobs that start once the loop runs: the helper installation, the
    // notification feed's poll loop, ... Each is started once and owns itself.
    std::vector<std::function<void()>> launchJobs;
    // Ends the program; the real one leaves the event loop.
    std::function<void()> terminate;

    // Runs the launch jobs on the loop's first turn.
    void applicationDidFinishLaunching();

    void requestQuit();
    void commitData(QSessionManager& manager);
    // Turns SIGTERM and SIGINT into a stop of the call and an exit.
    void watchTerminationSignals();
    void terminateForSignal(int signal);

private:
    void askBeforeQuitting();

    QPointer<QMessageBox> question_;
    QSocketNotifier* signalNotifier_ = nullptr;
    bool terminating_ = false;
};

} // namespace tessel::app
