// The Apps section's state: each row's state, the rows with a launch under
// way, and the line under a row. Main-thread object; views observe `changed`.
#pragma once

#include "apps/AppLauncher.h"
#include "apps/AppRegistry.h"
#include "async/Async.h"

#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>

#include <functional>
#include <optional>
#include <vector>

namespace tessel {

class AppsModel : public QObject {
    Q_OBJECT

public:
    struct Options {
        std::vector<VelmoraApp> apps;
        AppLauncher launcher;
        std::optional<LaunchOrg> org; // the organisation launches go out with
        // True when the row was handled elsewhere (the Meet row opens the lobby
        // for a signed-in member).
        std::function<bool(const VelmoraApp&)> override;
        // Closes the popover; empty outside it.
        std::function<void()> dismiss;
    };

    explicit AppsModel(Options options, QObject* parent = nullptr);

    const std::vector<VelmoraApp>& apps() const { return options_.apps; }
    // The state last worked out for the row, or the launcher's answer now.
    AppLauncher::State state(const QString& id) const;
    bool isInstalling(const QString& id) const { return installing_.contains(id); }
    std::optional<QString> message(const QString& id) const;

    // Works out every row's state again. An application installed by this
    // model stays "installed" while its file exists, whatever the lookup says.
    void refreshStates();
    // A click on a row. Does nothing while that row's launch runs; the
    // returned task ends with the launch.
    Task<void> activate(QString id);

signals:
    void changed();

private:
    const VelmoraApp* app(const QString& id) const;

    Options options_;
    QHash<QString, AppLauncher::State> states_;
    QSet<QString> installing_;
    QHash<QString, QString> messages_;
};

} // namespace tessel
