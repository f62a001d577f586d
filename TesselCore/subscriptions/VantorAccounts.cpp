#include "subscriptions/VantorAccounts.h"

#include "net/InternetDate.h"
#include "subscriptions/ToolText.h"
#include "tools/HelperInstaller.h"

namespace tessel {

using namespace Qt::Literals::StringLiterals;

namespace {

// A decimal integer with an optional sign and nothing else: no blanks, no
// digits beyond 64 bits.
std::optional<qint64> strictInteger(QStringView text) {
    qsizetype digits = 0;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text[i];
        if (i == 0 && (c == u'+' || c == u'-')) {
            continue;
        }
        if (c < u'0' || c > u'9') {
            return std::nullopt;
        }
        ++digits;
    }
    if (digits == 0) {
        return std::nullopt;
    }
    bool ok = false;
    const qint64 value = text.toLongLong(&ok);
    return ok ? std::optional<qint64>(value) : std::nullopt;
}

// GCC 12 cannot keep array temporaries (string literals, initializer lists)
// alive across a co_await: argument lists are built outside the coroutines.
const QStringList vantorStatusArguments{u"--tsv"_s, u"status"_s};
const QStringList pickArguments{u"pick"_s};
const QStringList alertsArguments{u"alerts"_s};
const QStringList whoamiArguments{u"whoami"_s};

QStringList useArguments(const QString& name) {
    return {u"use"_s, name};
}

} // namespace

VantorAccountsError VantorAccountsError::from(const ToolOutput& output) {
    const QString& words =
        output.standardError.isEmpty() ? output.standardOutput : output.standardError;
    return VantorAccountsError(trimLineBreaks(words), output.exitCode);
}

std::optional<QString> VantorAccountsCLI::resolveBinary(const QProcessEnvironment& environment,
                                                        const QString& home) {
    return HelperInstaller::resolve(u"vantor-accounts"_s, u"VANTOR_ACCOUNTS_BIN"_s, environment,
                                    home);
}

ToolRunner VantorAccountsCLI::runner(const QString& binary) {
    return makeToolRunner(binary,
                          HelperInstaller::environment(QProcessEnvironment::systemEnvironment()));
}

QString VantorAccountsCLI::notInstalled(const std::optional<QString>& installDirectory) {
    return HelperInstaller::notInstalled(u"vantor-accounts"_s, installDirectory,
                                         u"to see and switch your subscriptions"_s);
}

QList<VantorAccount> VantorAccountsCLI::parse(const QString& tsv) {
    QList<VantorAccount> accounts;
    for (const QStringView line : splitAtLineBreaks(tsv)) {
        const auto fields = line.split(u'\t');
        if (fields.size() != 10) {
            continue;
        }
        if (fields[0] != u"*" && fields[0] != u"-") {
            continue;
        }
        if (fields[1].isEmpty()) {
            continue;
        }
        VantorAccount account;
        account.live = fields[0] == u"*";
        account.name = fields[1].toString();
        account.email = fields[2].toString();
        account.fiveHourPercent = strictInteger(fields[3]);
        account.fiveHourReset = parseInternetDate(fields[4]);
        account.sevenDayPercent = strictInteger(fields[5]);
        account.sevenDayReset = parseInternetDate(fields[6]);
        account.fablePercent = strictInteger(fields[7]);
        if (fields[8].endsWith(u'd')) {
            account.refreshDays = strictInteger(fields[8].chopped(1));
        }
        account.note = fields[9].toString();
        accounts.append(std::move(account));
    }
    return accounts;
}

std::shared_ptr<VantorAccountsClient> VantorAccountsClient::create(ToolRunner runner,
                                                                   double usageInterval,
                                                                   NowFunction now,
                                                                   SleepFunction sleep) {
    return std::shared_ptr<VantorAccountsClient>(new VantorAccountsClient(
        std::move(runner), usageInterval, std::move(now), std::move(sleep)));
}

VantorAccountsClient::VantorAccountsClient(ToolRunner runner, double usageInterval, NowFunction now,
                                           SleepFunction sleep)
    : runner_(std::move(runner)), usageInterval_(usageInterval), now_(std::move(now)),
      sleep_(std::move(sleep)) {}

Task<QList<VantorAccount>> VantorAccountsClient::status(CancellationToken token) {
    const QString output = co_await usageCommand(vantorStatusArguments, false, token);
    co_return VantorAccountsCLI::parse(output);
}

Task<QString> VantorAccountsClient::pick(CancellationToken token) {
    co_return co_await usageCommand(pickArguments, false, token);
}

Task<QString> VantorAccountsClient::use(QString name, CancellationToken token) {
    co_return co_await command(useArguments(name), false, token);
}

Task<QStringList> VantorAccountsClient::alerts(CancellationToken token) {
    const QString output = co_await usageCommand(alertsArguments, true, token);
    QStringList lines;
    for (const QStringView line : splitAtLineBreaks(output)) {
        if (!line.isEmpty()) {
            lines.append(line.toString());
        }
    }
    co_return lines;
}

Task<QString> VantorAccountsClient::whoami(CancellationToken token) {
    co_return co_await command(whoamiArguments, false, token);
}

Task<QString> VantorAccountsClient::usageCommand(QStringList arguments, bool alerts,
                                                 CancellationToken token) {
    auto self = shared_from_this();
    for (;;) {
        while (usageInFlight_) {
            co_await usageWaiters_.wait(token);
        }
        const double now = now_();
        if (nextUsage_ && now < *nextUsage_) {
            // A cancelled sleep throws here, before any state is touched.
            co_await sleep_(*nextUsage_ - now, token);
            continue;
        }
        break;
    }

    usageInFlight_ = true;
    QString output;
    std::exception_ptr failure;
    try {
        output = co_await command(std::move(arguments), alerts, token);
    } catch (...) {
        failure = std::current_exception();
    }
    usageInFlight_ = false;
    nextUsage_ = now_() + usageInterval_;
    usageWaiters_.wakeAll();
    if (failure) {
        std::rethrow_exception(failure);
    }
    co_return output;
}

Task<QString> VantorAccountsClient::command(QStringList arguments, bool alerts,
                                            CancellationToken token) {
    // Copied into the frame: the run may outlive the client.
    const ToolRunner runner = runner_;
    const ToolOutput output = co_await runner(std::move(arguments), token);
    if (output.exitCode == 0 ||
        (alerts && output.exitCode == 1 && output.standardError.isEmpty())) {
        co_return trimLineBreaks(output.standardOutput);
    }
    throw VantorAccountsError::from(output);
}

} // namespace tessel
