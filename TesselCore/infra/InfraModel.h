// The latest report of velmora-conductor-onboard for the menu: read at most
// every 30 seconds unless forced, one tool call at a time, and a conductor
// restarted on request. Every failure ends as a line in `error`; the last good
// report stays beside it.
#pragma once

#include "async/Async.h"
#include "infra/InfraStatus.h"

#include <QObject>

#include <optional>

namespace tessel {

class InfraModel : public QObject {
    Q_OBJECT

public:
    // `sleep` paces a forced refresh that waits for a running one.
    InfraModel(InfraTool tool, NowFunction now, SleepFunction sleep, QObject* parent = nullptr);
    ~InfraModel() override;

    const std::optional<InfraStatus>& status() const { return status_; }
    const std::optional<QString>& error() const { return error_; }
    bool busy() const { return busy_; }
    const std::optional<QString>& supervisorHumanLine() const { return supervisorHumanLine_; }
    bool isInstalled() const { return runner_.has_value(); }
    const QString& notInstalled() const { return tool_.notInstalled; }

    // Never fails. A missing tool is looked for again first. A forced refresh
    // waits for a running call and then reads; an unforced one gives up when a
    // call runs or the last read is under 30 s old.
    Task<void> refresh(bool force);
    // Never fails. Does nothing for a row that cannot restart or while a call
    // runs; a restart that worked is followed by a forced refresh.
    Task<void> restart(InfraStatus::Organisation row);
    // Looks for the tool again, for when it was installed after the start.
    void rebindHelpers();

    static constexpr double minimumInterval = 30;
    static constexpr double busyPollInterval = 0.05;

signals:
    // Any observable property changed.
    void changed();

private:
    Task<void> read(StreamingToolRunner runner);

    InfraTool tool_;
    NowFunction now_;
    SleepFunction sleep_;
    CancellationToken token_; // cancelled when the model goes
    std::optional<StreamingToolRunner> runner_;
    std::optional<InfraStatus> status_;
    std::optional<QString> error_;
    bool busy_ = false;
    std::optional<QString> supervisorHumanLine_;
    std::optional<double> lastRead_;
};

// A failed tool run in one line: standard error, else standard output, trimmed;
// when the tool said nothing, its status.
QString toolFailureText(const ToolOutput& output);

} // namespace tessel
