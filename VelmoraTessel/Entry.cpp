#include "Entry.h"

#include "CaptureCLI.h"
#include "TesselApp.h"

#include "async/Async.h"
#include "errors/ErrorLog.h"
#include "errors/Failures.h"
#include "identity/Endpoints.h"

#include <QCoreApplication>
#include <QStringList>

#include <cstdio>
#include <cstdlib>

namespace tessel::app {

QString Entry::usageText() {
    return QStringList{
        QStringLiteral("VelmoraTessel                        Open the tray app"),
        QStringLiteral("VelmoraTessel capture --base-url URL --token MEMBER_SESSION --title NAME "
                       "--counterpart NAME --seconds 25 --project \"\""),
        QString(),
        QStringLiteral("capture acknowledges the disclosure on the operator's behalf. Say it to "
                       "the participants first:"),
        QStringLiteral("Heads-up: I'm taking notes on this call with a recorder on my side; say so "
                       "if you'd rather I didn't."),
        QStringLiteral("capture records the sound server of the desktop session it runs in "
                       "(PulseAudio or PipeWire): run it in the session where the call plays."),
    }
        .join(QLatin1Char('\n'));
}

namespace {

void print(std::FILE* stream, const QString& text) {
    const QByteArray utf8 = text.toUtf8();
    std::fwrite(utf8.constData(), 1, static_cast<size_t>(utf8.size()), stream);
    std::fputc('\n', stream);
    std::fflush(stream);
}

// Qt's own warnings are log lines like any other: they go to the system log,
// never to the terminal, where the command form says only its one line.
void logQtMessage(QtMsgType type, const QMessageLogContext&, const QString& message) {
    switch (type) {
    case QtFatalMsg:
        print(stderr, message);
        break;
    case QtCriticalMsg:
        log::write(log::Level::error, "qt", message);
        break;
    case QtWarningMsg:
        log::write(log::Level::warning, "qt", message);
        break;
    case QtDebugMsg:
    case QtInfoMsg:
        log::write(log::Level::info, "qt", message);
        break;
    }
}

Task<void> runCapture(QStringList arguments) {
    int status = 0;
    try {
        co_await CaptureCLI::run(arguments);
    } catch (const Failure& failure) {
        print(stderr, QStringLiteral("Velmora Tessel: ") + failure.description());
        status = 1;
    } catch (const std::exception& error) {
        print(stderr, QStringLiteral("Velmora Tessel: ") + QString::fromUtf8(error.what()));
        status = 1;
    }
    std::fflush(stdout);
    // The loop ends and main returns, so every thread and object of the run is
    // gone in order before the process exits.
    QCoreApplication::exit(status);
}

} // namespace

int Entry::main(int argc, char** argv) {
    qInstallMessageHandler(logQtMessage);
    QStringList arguments;
    for (int i = 0; i < argc; ++i) {
        arguments << QString::fromLocal8Bit(argv[i]);
    }

    if (arguments.size() > 1 && arguments.at(1) == QLatin1String("capture")) {
        QCoreApplication loop(argc, argv);
        const QStringList rest = arguments.mid(2);
        QMetaObject::invokeMethod(
            &loop, [rest] { runCapture(rest); }, Qt::QueuedConnection);
        return loop.exec();
    }
    for (const QString& argument : arguments) {
        if (argument == QLatin1String("--help") || argument == QLatin1String("-h")) {
            print(stdout, usageText());
            return 0;
        }
    }
    if (arguments.size() >= 2) {
        print(stderr, QStringLiteral("Unknown command — use --help or capture.\n") + usageText());
        return 2;
    }
    // A broken endpoints file stops the program before anything starts.
    try {
        Endpoints::fromEnvironment();
    } catch (const TesselError& error) {
        print(stderr, QStringLiteral("Velmora Tessel: ") + error.message());
        return 1;
    }
    return runTrayApp(argc, argv);
}

} // namespace tessel::app
