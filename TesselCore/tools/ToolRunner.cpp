#include "tools/ToolRunner.h"

#include <QCoreApplication>
#include <QProcess>

#include <coroutine>
#include <exception>
#include <memory>

using namespace Qt::StringLiterals;

namespace tessel {

QString ToolLaunchError::description() const {
    return u"%1 could not be started: %2"_s.arg(executable_, reason_);
}

namespace {

// The state of one run, shared with the process's signal handlers. Every
// handler only records what happened and wakes the run; the run itself does
// the work between its waits, so nothing is destroyed inside a signal.
struct Run {
    std::unique_ptr<QProcess> process = std::make_unique<QProcess>();
    QByteArray output;
    QByteArray error;
    QByteArray pending; // output bytes not yet handed out as lines
    bool streaming = false;
    bool merged = false;     // standard error arrives with the output
    bool discarding = false; // a line callback failed: output is read and dropped
    bool finished = false;
    bool cancelled = false;
    int exitCode = 0;
    std::optional<QString> launchFailure;
    std::coroutine_handle<> waiter;

    ~Run() { QObject::disconnect(process.get(), nullptr, nullptr, nullptr); }

    void readOutput() {
        const QByteArray chunk = process->readAllStandardOutput();
        if (discarding) {
            return;
        }
        output += chunk;
        if (streaming) {
            pending += chunk;
        }
    }
    void readError() {
        if (!merged) {
            error += process->readAllStandardError();
        }
    }

    std::optional<QString> nextLine() {
        const auto newline = pending.indexOf('\n');
        if (newline < 0) {
            return std::nullopt;
        }
        QString line = QString::fromUtf8(pending.constData(), newline);
        pending.remove(0, newline + 1);
        return line;
    }

    // Resumption is posted, never run inside the signal that woke the run.
    void wake() {
        if (auto handle = std::exchange(waiter, {})) {
            QMetaObject::invokeMethod(
                QCoreApplication::instance(), [handle] { handle.resume(); }, Qt::QueuedConnection);
        }
    }
};

// Waits until any handler wakes the run. Constructed, not brace-initialised:
// GCC 12 destroys an aggregate temporary in a co_await operand twice.
class NextEvent {
public:
    explicit NextEvent(Run& run) : run_(run) {}
    bool await_ready() const { return false; }
    void await_suspend(std::coroutine_handle<> handle) { run_.waiter = handle; }
    void await_resume() const {}

private:
    Run& run_;
};

void connectHandlers(const std::shared_ptr<Run>& run) {
    QProcess* process = run->process.get();
    std::weak_ptr<Run> weak = run;
    const auto handle = [weak](auto action) {
        return [weak, action](auto&&...) {
            if (auto r = weak.lock()) {
                action(*r);
                r->wake();
            }
        };
    };
    QObject::connect(process, &QProcess::readyReadStandardOutput, process,
                     handle([](Run& r) { r.readOutput(); }));
    QObject::connect(process, &QProcess::readyReadStandardError, process,
                     handle([](Run& r) { r.readError(); }));
    QObject::connect(process, &QProcess::errorOccurred, process,
                     [weak](QProcess::ProcessError error) {
                         auto r = weak.lock();
                         if (r && error == QProcess::FailedToStart) {
                             // Qt names the failed call first ("execve: No such file...").
                             QString reason = r->process->errorString();
                             if (reason.startsWith(u"execve: "_s)) {
                                 reason.remove(0, 8);
                             }
                             r->launchFailure = reason;
                             r->wake();
                         }
                     });
    // For a crash, QProcess reports the signal's number as the exit code.
    QObject::connect(process, &QProcess::finished, process, [weak](int exitCode) {
        if (auto r = weak.lock()) {
            r->readOutput();
            r->readError();
            r->exitCode = exitCode;
            r->finished = true;
            r->wake();
        }
    });
}

} // namespace

Task<ToolOutput> runTool(ToolInvocation invocation, CancellationToken token) {
    token.check();
    auto run = std::make_shared<Run>();
    run->streaming = static_cast<bool>(invocation.onLine);
    run->merged = invocation.mergeErrorIntoOutput;
    QProcess& process = *run->process;
    process.setProgram(invocation.executable);
    process.setArguments(invocation.arguments);
    if (invocation.environment) {
        process.setProcessEnvironment(*invocation.environment);
    }
    process.setStandardInputFile(QProcess::nullDevice());
    process.setProcessChannelMode(invocation.mergeErrorIntoOutput ? QProcess::MergedChannels
                                                                  : QProcess::SeparateChannels);
    connectHandlers(run);
    std::weak_ptr<Run> weak = run;
    const auto registration = token.onCancel(&process, [weak] {
        if (auto r = weak.lock()) {
            r->cancelled = true;
            r->process->kill();
            r->wake();
        }
    });
    process.start();

    std::exception_ptr lineFailure;
    const auto stopForLineFailure = [&] {
        lineFailure = std::current_exception();
        run->discarding = true;
        run->pending.clear();
        if (!run->finished) {
            run->process->terminate();
        }
    };
    for (;;) {
        if (run->launchFailure) {
            throw ToolLaunchError(invocation.executable, *run->launchFailure);
        }
        while (run->streaming && !run->discarding && !run->cancelled) {
            const auto line = run->nextLine();
            if (!line) {
                break;
            }
            try {
                co_await invocation.onLine(*line);
            } catch (...) {
                stopForLineFailure();
            }
        }
        if (run->finished) {
            break;
        }
        co_await NextEvent(*run);
    }
    // What is left without a newline is the last line.
    if (run->streaming && !run->discarding && !run->cancelled && !run->pending.isEmpty()) {
        const QString last = QString::fromUtf8(std::exchange(run->pending, {}));
        try {
            co_await invocation.onLine(last);
        } catch (...) {
            lineFailure = std::current_exception();
        }
    }
    if (run->cancelled) {
        throw Cancelled();
    }
    if (lineFailure) {
        std::rethrow_exception(lineFailure);
    }
    co_return ToolOutput{QString::fromUtf8(run->output), QString::fromUtf8(run->error),
                         run->exitCode};
}

ToolRunner makeToolRunner(QString executable, QProcessEnvironment environment) {
    return [executable, environment](QStringList arguments,
                                     CancellationToken token) -> Task<ToolOutput> {
        return runTool({executable, std::move(arguments), environment, false, {}},
                       std::move(token));
    };
}

StreamingToolRunner makeStreamingToolRunner(QString executable, QProcessEnvironment environment) {
    return [executable, environment](QStringList arguments, LineCallback onLine,
                                     CancellationToken token) -> Task<ToolOutput> {
        return runTool({executable, std::move(arguments), environment, false, std::move(onLine)},
                       std::move(token));
    };
}

} // namespace tessel
