// How a sibling tool is run, as every caller of one sees it. The runner itself
// (a QProcess with standard input from the null device and both pipes drained at
// once, no time-out of its own) lives beside this header; models take a
// `ToolRunner` at construction so tests hand them a scripted one.
#pragma once

#include "async/Async.h"

#include <QString>
#include <QStringList>

#include <functional>

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

} // namespace tessel
