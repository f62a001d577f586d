// The command form: one timed capture with no window.
#pragma once

#include "async/Async.h"
#include "capture/CaptureSession.h"

#include <QString>
#include <QStringList>
#include <QUrl>

#include <functional>

namespace tessel::app {

struct CaptureOptions {
    QUrl baseURL;
    QString token;
    QString title;
    QString counterpart;
    QString project;
    double seconds = 25;
};

// What a run touches of the machine: the sound, the time and standard output.
struct CaptureMachine {
    CaptureSession::MakeAudio makeAudio;
    CaptureClock clock;
    std::function<void(const QString&)> printLine;
};

class CaptureCLI {
public:
    // `arguments` is the command line without the program name and "capture".
    // Returning normally is success.
    static Task<void> run(QStringList arguments);
    static Task<void> run(QStringList arguments, CaptureMachine machine);

    // The checks that happen before anything touches the network; throws
    // TesselError with the words the operator reads.
    static CaptureOptions parse(const QStringList& arguments);

    // The whole text of `--seconds` as a C-locale decimal number, or nothing.
    static std::optional<double> parseSeconds(const QString& text);

    static const QString defaultBaseURL;
};

} // namespace tessel::app
