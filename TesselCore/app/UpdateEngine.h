// The seam to whatever finds, fetches and installs a new version. Before it
// goes on, an engine asks its gate three questions; the gate is the
// application's update control, which holds everything back while a call runs.
#pragma once

#include <QObject>

#include <functional>

namespace tessel {

class UpdateGate {
public:
    virtual ~UpdateGate() = default;
    // Throw TesselError with the words to show when the answer is no.
    virtual void mayPerformUpdateCheck() = 0;
    virtual void shouldProceedWithUpdate() = 0;
    // True: the gate keeps `relaunch` and calls it once nothing holds it back;
    // false: the engine relaunches now.
    virtual bool shouldPostponeRelaunch(std::function<void()> relaunch) = 0;
};

class UpdateEngine : public QObject {
    Q_OBJECT

public:
    using QObject::QObject;

    // Whether a check could start now (a feed is known, none is running).
    virtual bool canCheck() const = 0;
    // Called once, after the gate is in place.
    virtual void start() {}
    // A check the user asked for; what it finds is the engine's to show.
    virtual void checkForUpdates() = 0;

    void setGate(UpdateGate* gate) { gate_ = gate; }

signals:
    void canCheckChanged();

protected:
    UpdateGate* gate() const { return gate_; }

private:
    UpdateGate* gate_ = nullptr;
};

// No engine: nothing can be checked. The program without a feed.
class NoUpdateEngine : public UpdateEngine {
public:
    bool canCheck() const override { return false; }
    void checkForUpdates() override {}
};

} // namespace tessel
