// Programs a test runs on QProcess: to their end, or in the background and
// stopped by PID.
#pragma once

#include <QProcess>

namespace tessel::test {

struct Ran {
    int status = -1; // -1: not started, ended by a signal, or killed at the time limit
    QString out;
    QString err;
};

inline Ran
runToEnd(const QString& program, const QStringList& arguments,
         const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment(),
         int milliseconds = 30000) {
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(program, arguments);
    const bool finished = process.waitForFinished(milliseconds);
    if (!finished) {
        process.kill();
        process.waitForFinished();
    }
    return {finished && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError())};
}

// SIGTERM, and SIGKILL when the process hasn't gone five seconds later.
inline void stopProcess(QProcess& process) {
    if (process.state() == QProcess::NotRunning) {
        return;
    }
    process.terminate();
    if (!process.waitForFinished(5000)) {
        process.kill();
        process.waitForFinished(5000);
    }
}

} // namespace tessel::test
