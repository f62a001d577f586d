// The command form: one timed capture with no window.
#pragma once

#include "async/Async.h"
#include "capture/CaptureSession.h"

#include <QString>
#include <QStringList>
#include <QUrl>

namespace tessel::app {

struct CaptureOptions {
    QUrl baseURL;
    QString token;
    QString title;
    QString counterpart;
    QString project;
    double seconds = 25;
};

class CaptureCLI {
public:
    // `arguments` is the command line without the program name and "capture".
    // Returning normally is success.
    static Task<void> run(QStringList arguments);
    // The same with the audio source and time given, for tests.
    static Task<void> run(QStringList arguments, CaptureSession::MakeAudio makeAudio,
                          CaptureClock clock);

    // The checks that happen before anything touches the network; throws
    // TesselError with the words the operator reads.
    static CaptureOptions parse(const QStringList& arguments);

    // The whole text of `--seconds` as a C-locale decimal number, or nothing.
    static std::optional<double> parseSeconds(const QString& text);

    static const QString defaultBaseURL;
};

} // namespace tessel::app
