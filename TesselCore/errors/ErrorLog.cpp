#include "errors/ErrorLog.h"

#include <QDateTime>

#include <fcntl.h>
#include <sys/stat.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>
#include <string>
#include <syslog.h>

namespace tessel::log {

namespace {

constexpr off_t rotateAfterBytes = 1024 * 1024;

std::mutex sinkMutex;
Sink currentSink;

int priorityOf(Level level) {
    switch (level) {
    case Level::error:
        return LOG_ERR;
    case Level::warning:
        return LOG_WARNING;
    case Level::info:
        return LOG_INFO;
    }
    return LOG_ERR;
}

const char* nameOf(Level level) {
    switch (level) {
    case Level::error:
        return "error";
    case Level::warning:
        return "warning";
    case Level::info:
        return "info";
    }
    return "error";
}

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

// The journal counts as present when its socket exists.
// VELMORA_TESSEL_JOURNAL_SOCKET names another path to look for; one that
// doesn't exist stands for a machine without a journal.
bool journalPresent() {
    static const bool present = [] {
        std::string path = environment("VELMORA_TESSEL_JOURNAL_SOCKET");
        if (path.empty()) {
            path = "/run/systemd/journal/socket";
        }
        struct stat st {};
        return ::stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
    }();
    return present;
}

// $XDG_STATE_HOME/velmora/tessel.log, ~/.local/state/velmora/tessel.log by
// default; empty when there is no home to put it in.
std::string logFilePath() {
    std::string base = environment("XDG_STATE_HOME");
    if (base.empty() || base.front() != '/') {
        const std::string home = environment("HOME");
        if (home.empty()) {
            return {};
        }
        base = home + "/.local/state";
    }
    return base + "/velmora/tessel.log";
}

// Every missing folder on the way, private to the user.
void makeFolders(const std::string& file) {
    for (auto slash = file.find('/', 1); slash != std::string::npos;
         slash = file.find('/', slash + 1)) {
        ::mkdir(file.substr(0, slash).c_str(), 0700);
    }
}

std::mutex fileMutex;

// Appends one line to the log file, which is moved aside to "tessel.log.1" once
// it has passed 1 MiB. A line that can't be written is lost: the log never
// falls back to a terminal.
void writeFile(Level level, const char* category, const QByteArray& text) {
    const std::string path = logFilePath();
    if (path.empty()) {
        return;
    }
    const QByteArray line = QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs).toUtf8() +
                            ' ' + nameOf(level) + ' ' + subsystem + ' ' + category + ": " + text +
                            '\n';

    std::lock_guard lock(fileMutex);
    constexpr int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW;
    int fd = ::open(path.c_str(), flags, 0600);
    if (fd < 0) {
        makeFolders(path);
        fd = ::open(path.c_str(), flags, 0600);
    }
    if (fd < 0) {
        return;
    }
    struct stat st {};
    if (::fstat(fd, &st) == 0 && st.st_size >= rotateAfterBytes) {
        ::close(fd);
        ::rename(path.c_str(), (path + ".1").c_str());
        fd = ::open(path.c_str(), flags, 0600);
        if (fd < 0) {
            return;
        }
    } else if (st.st_mode & 077) {
        ::fchmod(fd, 0600);
    }
    [[maybe_unused]] const auto written =
        ::write(fd, line.constData(), static_cast<size_t>(line.size()));
    ::close(fd);
}

void writeDefault(Level level, const char* category, const QString& text) {
    const QByteArray utf8 = text.toUtf8();
    if (journalPresent()) {
        const int rc =
            sd_journal_send("MESSAGE=%s", utf8.constData(), "PRIORITY=%d", priorityOf(level),
                            "SYSLOG_IDENTIFIER=VelmoraTessel", "TESSEL_SUBSYSTEM=%s", subsystem,
                            "TESSEL_CATEGORY=%s", category, nullptr);
        if (rc >= 0) {
            return;
        }
    }
    writeFile(level, category, utf8);
}

} // namespace

void write(Level level, const char* category, const QString& text) {
    Sink sink;
    {
        std::lock_guard lock(sinkMutex);
        sink = currentSink;
    }
    if (sink) {
        sink(level, category, text);
    } else {
        writeDefault(level, category, text);
    }
}

ScopedSink::ScopedSink(Sink sink) {
    std::lock_guard lock(sinkMutex);
    previous_ = std::exchange(currentSink, std::move(sink));
}

ScopedSink::~ScopedSink() {
    std::lock_guard lock(sinkMutex);
    currentSink = std::move(previous_);
}

} // namespace tessel::log
