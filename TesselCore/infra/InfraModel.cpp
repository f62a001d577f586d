#include "infra/InfraModel.h"

#include <QPointer>
#include <QRegularExpression>

#include <utility>

using namespace Qt::StringLiterals;

namespace tessel {

namespace {

// A tool run that either gave its output or failed in words. Only a
// cancellation (the model went away) passes on as a throw. Constructed, not
// brace-initialised: GCC 12 mishandles aggregates built around a co_await.
struct CallResult {
    CallResult() = default;
    explicit CallResult(ToolOutput out) : output(std::move(out)) {}
    explicit CallResult(QString text) : failure(std::move(text)) {}
    std::optional<ToolOutput> output;
    QString failure;
};

Task<CallResult> callTool(StreamingToolRunner runner, QStringList arguments,
                          CancellationToken token) {
    const LineCallback ignore = [](QString) -> Task<void> { co_return; };
    CallResult result;
    try {
        result = CallResult(co_await runner(std::move(arguments), ignore, std::move(token)));
    } catch (const Cancelled&) {
        throw;
    } catch (const Failure& failure) {
        result = CallResult(failure.description());
    } catch (const std::exception& error) {
        result = CallResult(QString::fromUtf8(error.what()));
    }
    co_return result;
}

// The first line with something on it, split at any kind of line break.
std::optional<QString> firstLine(const QString& text) {
    static const QRegularExpression lineBreak(u"[\\n\\r\\x{0b}\\x{0c}\\x{85}\\x{2028}\\x{2029}]"_s);
    for (const QString& line : text.split(lineBreak)) {
        if (!line.trimmed().isEmpty()) {
            return line.trimmed();
        }
    }
    return std::nullopt;
}

} // namespace

QString toolFailureText(const ToolOutput& output) {
    const QString error = output.standardError.trimmed();
    const QString text = error.isEmpty() ? output.standardOutput.trimmed() : error;
    return text.isEmpty()
               ? u"%1 ended with status %2."_s.arg(InfraCLI::toolName).arg(output.exitCode)
               : text;
}

InfraModel::InfraModel(InfraTool tool, NowFunction now, SleepFunction sleep, QObject* parent)
    : QObject(parent), tool_(std::move(tool)), now_(std::move(now)), sleep_(std::move(sleep)) {
    runner_ = tool_.resolve();
}

InfraModel::~InfraModel() {
    token_.cancel();
}

Task<void> InfraModel::refresh(bool force) {
    QPointer<InfraModel> self(this);
    // The tool comes from a package of its own, which may be installed while
    // the program runs: a missing one is looked for again at each refresh.
    if (!runner_) {
        runner_ = tool_.resolve();
    }
    if (!runner_) {
        error_ = tool_.notInstalled;
        emit changed();
        co_return;
    }
    while (force && busy_) {
        try {
            co_await sleep_(busyPollInterval, token_);
        } catch (const Cancelled&) {
            co_return;
        }
        if (!self) {
            co_return;
        }
    }
    if (busy_ || (!force && lastRead_ && now_() - *lastRead_ < minimumInterval)) {
        co_return;
    }
    if (!runner_) { // unbound while this refresh waited
        co_return;
    }
    busy_ = true;
    emit changed();
    try {
        co_await read(*runner_);
    } catch (const Cancelled&) {
        co_return; // only when the model is gone
    }
    if (!self) {
        co_return;
    }
    busy_ = false;
    lastRead_ = now_();
    emit changed();
}

// Reads the report into the model; `busy` and `lastRead` are the caller's.
Task<void> InfraModel::read(StreamingToolRunner runner) {
    QPointer<InfraModel> self(this);
    // Argument lists are built before the co_await: GCC 12 fails on an
    // initializer list inside one ("array used as initializer").
    const QStringList statusJSON{u"status"_s, u"--json"_s};
    const CallResult report = co_await callTool(runner, statusJSON, token_);
    if (!self) {
        co_return;
    }
    if (!report.output) {
        error_ = report.failure;
        co_return;
    }
    if (report.output->exitCode != 0) {
        error_ = toolFailureText(*report.output);
        co_return;
    }
    try {
        status_ = InfraStatus::decode(report.output->standardOutput.toUtf8());
    } catch (const Failure& failure) {
        error_ = failure.description();
        co_return;
    }
    const QString warning = report.output->standardError.trimmed();
    error_ = warning.isEmpty() ? std::nullopt : std::optional(warning);
    supervisorHumanLine_.reset();
    if (status_->supervisor.loaded) {
        co_return;
    }
    if (status_->supervisor.detail) {
        supervisorHumanLine_ = status_->supervisor.detail;
        co_return;
    }
    // The human form of the report says why the supervisor is not loaded.
    emit changed();
    const QStringList statusText{u"status"_s};
    const CallResult human = co_await callTool(runner, statusText, token_);
    if (!self) {
        co_return;
    }
    if (!human.output) {
        error_ = human.failure;
        co_return;
    }
    supervisorHumanLine_ = firstLine(human.output->standardOutput);
    if (!human.output->standardError.trimmed().isEmpty()) {
        error_ = human.output->standardError.trimmed();
    } else if (human.output->exitCode != 0) {
        error_ = toolFailureText(*human.output);
    }
}

Task<void> InfraModel::restart(InfraStatus::Organisation row) {
    QPointer<InfraModel> self(this);
    if (!runner_ || !row.canRestart() || busy_) {
        co_return;
    }
    busy_ = true;
    emit changed();
    CallResult result;
    try {
        const QStringList arguments{u"restart"_s, row.slug};
        result = co_await callTool(*runner_, arguments, token_);
    } catch (const Cancelled&) {
        co_return;
    }
    if (!self) {
        co_return;
    }
    busy_ = false;
    if (!result.output || result.output->exitCode != 0) {
        error_ = result.output ? toolFailureText(*result.output) : result.failure;
        emit changed();
        co_return;
    }
    emit changed();
    co_await refresh(true);
}

void InfraModel::rebindHelpers() {
    runner_ = tool_.resolve();
    lastRead_.reset();
    error_.reset();
    emit changed();
}

} // namespace tessel
