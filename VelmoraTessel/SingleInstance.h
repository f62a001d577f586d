// One tray application per session: the first one holds the name
// ai.velmora.tessel on the session bus; a later launch asks it to show its
// popover and ends.
#pragma once

#include <QDBusConnection>
#include <QObject>

namespace tessel::app {

class SingleInstance : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "ai.velmora.tessel")

public:
    static constexpr const char* serviceName = "ai.velmora.tessel";
    static constexpr const char* objectPath = "/ai/velmora/tessel";

    enum class Claim { claimed, anotherRuns, noBus };

    explicit SingleInstance(QDBusConnection bus, QObject* parent = nullptr);
    ~SingleInstance() override;

    // Takes the name; when another instance holds it, that one is asked to
    // show its popover.
    Claim claim();
    // Gives the name up, for a relaunch into a new version.
    void release();

    const QDBusConnection& bus() const { return bus_; }

public slots:
    // Called over the bus by a second launch.
    Q_SCRIPTABLE void Activate();

signals:
    void activateRequested();

private:
    QDBusConnection bus_;
    bool held_ = false;
};

} // namespace tessel::app
