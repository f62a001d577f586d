#include "CaptureCLI.h"

#include "Entry.h"

#include "audio/AudioCapture.h"
#include "errors/Failures.h"

#include <QHash>
#include <QRegularExpression>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <locale.h>

namespace tessel::app {

using namespace Qt::Literals::StringLiterals;

namespace {

const QString optionMessage = QStringLiteral(
    "Unknown, repeated or incomplete capture option — use capture --help for the supported "
    "options.");
const QString requirementMessage = QStringLiteral(
    "Capture requires a title, counterpart, member session and duration between 0 and 7200 "
    "seconds — use capture --help.");
const QString hostingMessage = QStringLiteral(
    "Hosting requires a vses_ member session — sign in with the device code; organisation API "
    "keys cannot host calls.");

const QStringList knownOptions = {
    QStringLiteral("--base-url"),    QStringLiteral("--token"),   QStringLiteral("--title"),
    QStringLiteral("--counterpart"), QStringLiteral("--seconds"), QStringLiteral("--project"),
};

bool isLoopbackHost(const QString& host) {
    return host == QLatin1String("localhost") || host == QLatin1String("127.0.0.1") ||
           host == QLatin1String("::1") || host == QLatin1String("[::1]");
}

void printLine(const QString& text) {
    const QByteArray utf8 = text.toUtf8();
    std::fwrite(utf8.constData(), 1, static_cast<size_t>(utf8.size()), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

} // namespace

const QString CaptureCLI::defaultBaseURL = QStringLiteral("https://velmora.ai/meet");

std::optional<double> CaptureCLI::parseSeconds(const QString& text) {
    // Decimal only: strtod would also take hexadecimal, "inf", "nan" and leading blanks.
    static const QRegularExpression decimal(QRegularExpression::anchoredPattern(
        u"[+-]?([0-9]+[.]?[0-9]*|[.][0-9]+)([eE][+-]?[0-9]+)?"_s));
    if (!decimal.match(text).hasMatch()) {
        return std::nullopt;
    }
    static const locale_t cLocale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
    const QByteArray bytes = text.toLatin1();
    return strtod_l(bytes.constData(), nullptr, cLocale);
}

CaptureOptions CaptureCLI::parse(const QStringList& arguments) {
    QHash<QString, QString> options;
    for (qsizetype i = 0; i < arguments.size(); i += 2) {
        const QString& word = arguments.at(i);
        if (!knownOptions.contains(word) || options.contains(word) || i + 1 >= arguments.size()) {
            throw TesselError(optionMessage);
        }
        options.insert(word, arguments.at(i + 1));
    }

    CaptureOptions result;
    const bool complete = options.contains(QStringLiteral("--title")) &&
                          options.contains(QStringLiteral("--counterpart")) &&
                          options.contains(QStringLiteral("--token"));
    const auto seconds =
        parseSeconds(options.value(QStringLiteral("--seconds"), QStringLiteral("25")));
    const bool secondsOK = seconds && std::isfinite(*seconds) && *seconds > 0 && *seconds <= 7200;
    const QUrl url(options.value(QStringLiteral("--base-url"), defaultBaseURL), QUrl::StrictMode);
    if (!complete || !secondsOK || !url.isValid()) {
        throw TesselError(requirementMessage);
    }

    result.baseURL = url;
    result.token = options.value(QStringLiteral("--token"));
    result.title = options.value(QStringLiteral("--title"));
    result.counterpart = options.value(QStringLiteral("--counterpart"));
    result.project = options.value(QStringLiteral("--project"));
    result.seconds = *seconds;

    QString host = url.host();
    if (url.host().contains(QLatin1Char(':'))) {
        host = QStringLiteral("[") + host + QStringLiteral("]");
    }
    if (!isLoopbackHost(url.host()) && !isLoopbackHost(host) &&
        !result.token.startsWith(QLatin1String("vses_"))) {
        throw TesselError(hostingMessage);
    }
    return result;
}

Task<void> CaptureCLI::run(QStringList arguments) {
    // Named, not braced inside the co_await (see tests/lint/co_await_temporaries.py).
    CaptureMachine machine{defaultAudioMaker(), {}, printLine};
    co_await run(std::move(arguments), std::move(machine));
}

Task<void> CaptureCLI::run(QStringList arguments, CaptureMachine machine) {
    const auto& print = machine.printLine;
    const CaptureClock clock = machine.clock;
    if (arguments.contains(u"--help"_s)) {
        print(Entry::usageText());
        co_return;
    }
    const CaptureOptions options = parse(arguments);
    const QString token = options.token;
    MeetAPI api(
        options.baseURL, [token] { return std::optional<QString>(token); }, HTTPClient());
    CaptureSession session(std::move(api), std::move(machine.makeAudio), clock);

    print(u"Disclosure acknowledged for this capture: Heads-up: I'm taking notes on this call "
          u"with a recorder on my side; say so if you'd rather I didn't."_s);
    co_await session.start(options.title, options.counterpart, options.project, true);
    print(u"meeting: "_s + session.meetingID().value_or(u"unknown"_s));

    const double deadline = clock.now() + options.seconds;
    while (clock.now() < deadline && session.state() == CaptureState::listening) {
        co_await clock.sleep(0.2, CancellationToken());
    }
    std::optional<QString> message;
    if (session.state() == CaptureState::failed || session.state() == CaptureState::superseded) {
        message = session.error();
    }
    co_await session.stop();
    if (message) {
        throw TesselError(*message);
    }

    const qint64 local = session.uploads().local;
    const qint64 remote = session.uploads().remote;
    const qint64 needed = options.seconds >= 20 ? 2 : 1;
    if (local >= needed && remote >= needed) {
        print(u"local: %1 segments, remote: %2 segments, uploaded, session ended"_s.arg(local).arg(
            remote));
        co_return;
    }
    throw TesselError(
        u"Only local: %1, remote: %2 segments were captured — enable both audio "
        u"permissions and play the call on this computer, then rerun the proof."_s.arg(local)
            .arg(remote));
}

} // namespace tessel::app
