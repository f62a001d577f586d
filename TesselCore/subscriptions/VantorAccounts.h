// The accounts tool `vantor-accounts`: which Claude accounts the user has set up,
// which one is live, and the switch of new sessions to another one. Its usage
// commands are paced, since each one asks the provider for usage figures.
#pragma once

#include "async/Async.h"
#include "async/WaitList.h"
#include "tools/ToolRunner.h"

#include <QDateTime>
#include <QList>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

#include <memory>
#include <optional>

namespace tessel {

// One row of `vantor-accounts --tsv status`; its identity is `name`.
struct VantorAccount {
    bool live = false;
    QString name;
    QString email;
    std::optional<qint64> fiveHourPercent;
    std::optional<QDateTime> fiveHourReset;
    std::optional<qint64> sevenDayPercent;
    std::optional<QDateTime> sevenDayReset;
    std::optional<qint64> fablePercent;
    std::optional<qint64> refreshDays;
    QString note;

    const QString& id() const { return name; }
    bool operator==(const VantorAccount&) const = default;
};

// A sibling tool that ran and refused, in its own words. Both `meterly` and
// `vantor-accounts` fail this way.
class VantorAccountsError : public Failure {
public:
    VantorAccountsError(QString sentence, int exitCode)
        : sentence_(std::move(sentence)), exitCode_(exitCode) {}
    // The tool's standard error, or its standard output when that is empty,
    // with line breaks trimmed from both ends.
    static VantorAccountsError from(const ToolOutput& output);

    const QString& sentence() const { return sentence_; }
    int exitCode() const { return exitCode_; }
    QString description() const override { return sentence_; }
    QString typeName() const override { return QStringLiteral("tessel::VantorAccountsError"); }
    qint64 errorCode() const override { return exitCode_; }

private:
    QString sentence_;
    int exitCode_;
};

namespace VantorAccountsCLI {

// The tool's file: the one VANTOR_ACCOUNTS_BIN names, else the usual places.
std::optional<QString> resolveBinary(const QProcessEnvironment& environment, const QString& home);
// Runs `binary` with this process's environment as it is now, PATH set to the
// helpers' one.
ToolRunner runner(const QString& binary);
// What the window says when the tool is nowhere to be found; `installDirectory`
// is where the program installs the helpers it carries, none when it carries none.
QString notInstalled(const std::optional<QString>& installDirectory);

// Rows of the tab-separated status; a line that breaks the format is dropped,
// the lines around it stand. No valid line gives an empty list, not a failure.
QList<VantorAccount> parse(const QString& tsv);

} // namespace VantorAccountsCLI

// One operation at a time on the main loop. Usage commands (`status`, `pick`,
// `alerts`) never overlap and each starts `usageInterval` after the previous
// one ended; `use` and `whoami` run at once. Operations keep the client alive
// until they end.
class VantorAccountsClient : public std::enable_shared_from_this<VantorAccountsClient> {
public:
    static std::shared_ptr<VantorAccountsClient> create(ToolRunner runner, double usageInterval,
                                                        NowFunction now = monotonicNow,
                                                        SleepFunction sleep = sleepFor);

    Task<QList<VantorAccount>> status(CancellationToken token = {});
    Task<QString> pick(CancellationToken token = {});
    Task<QString> use(QString name, CancellationToken token = {});
    // Exit status 1 with nothing on standard error means "no alerts stand".
    Task<QStringList> alerts(CancellationToken token = {});
    Task<QString> whoami(CancellationToken token = {});

private:
    VantorAccountsClient(ToolRunner runner, double usageInterval, NowFunction now,
                         SleepFunction sleep);

    Task<QString> usageCommand(QStringList arguments, bool alerts, CancellationToken token);
    Task<QString> command(QStringList arguments, bool alerts, CancellationToken token);

    ToolRunner runner_;
    double usageInterval_;
    NowFunction now_;
    SleepFunction sleep_;
    std::optional<double> nextUsage_;
    bool usageInFlight_ = false;
    WaitList usageWaiters_;
};

} // namespace tessel
