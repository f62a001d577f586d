// How a sibling tool is run, as every caller of one sees it. The runner itself
// (a QProcess with standard input from the null device and both pipes drained at
// once, no time-out of its own) lives beside this header; models take a
// `ToolRunner` at construction so tests hand them a scripted one.
#pragma once

#include "async/Async.h"

#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

namespace tessel {

// What a finished tool run gave: both output streams decoded as UTF-8 with bad
// bytes repaired, and its termination status (the exit status, or the number of
// the signal that ended it).
struct ToolOutput {
    QString standardOutput;
    QString standardError;
    int exitCode = 0;
};

// One run of a tool already chosen (executable and environment bound), from its
// argument list to its output. Fails when the tool cannot be launched; a
// cancelled token ends the process and throws `Cancelled`.
using ToolRunner = std::function<Task<ToolOutput>(QStringList arguments, CancellationToken token)>;

// One line of a streaming tool's standard output, without its newline (a
// carriage return before it stays). Lines are awaited one at a time, in order,
// all before the run returns. A throw ends the tool and is the run's failure.
using LineCallback = std::function<Task<void>(QString line)>;

// A `ToolRunner` for tools that report as they go, one line at a time.
using StreamingToolRunner = std::function<Task<ToolOutput>(
    QStringList arguments, LineCallback onLine, CancellationToken token)>;

// A tool that could not be started: no such file, not executable, no memory.
class ToolLaunchError : public Failure {
public:
    ToolLaunchError(QString executable, QString reason)
        : executable_(std::move(executable)), reason_(std::move(reason)) {}
    const QString& executable() const { return executable_; }
    QString description() const override;
    QString typeName() const override { return QStringLiteral("tessel::ToolLaunchError"); }

private:
    QString executable_;
    QString reason_;
};

// One run of a tool, fully described.
struct ToolInvocation {
    QString executable;
    QStringList arguments;
    // None: the tool inherits this process's environment.
    std::optional<QProcessEnvironment> environment;
    // Standard error goes into `standardOutput` too, in the order it was written.
    bool mergeErrorIntoOutput = false;
    LineCallback onLine;
};

// Runs a tool with standard input from the null device, reading both output
// pipes as data arrives (a tool may fill one while the other is still empty),
// with no time-out of its own. A tool ended by a signal gives that signal's
// number as `exitCode`. Fails only when the tool cannot be started, when
// `onLine` fails (the tool is asked to terminate, its output read out, and the
// failure passed on), or with `Cancelled` (the tool is killed at once).
Task<ToolOutput> runTool(ToolInvocation invocation, CancellationToken token = {});

// Runners bound to one executable and environment.
ToolRunner makeToolRunner(QString executable, QProcessEnvironment environment);
StreamingToolRunner makeStreamingToolRunner(QString executable, QProcessEnvironment environment);

} // namespace tessel
