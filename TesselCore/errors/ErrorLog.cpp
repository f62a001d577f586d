#include "errors/ErrorLog.h"

#include <sys/stat.h>
#include <systemd/sd-journal.h>

#include <cstdio>
#include <mutex>
#include <syslog.h>

namespace tessel::log {

namespace {

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

// The journal counts as present when its socket exists; otherwise every line
// goes to standard error, where a terminal or a service manager picks it up.
bool journalPresent() {
    static const bool present = [] {
        struct stat st {};
        return ::stat("/run/systemd/journal/socket", &st) == 0;
    }();
    return present;
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
    std::fprintf(stderr, "[%s:%s] %s\n", subsystem, category, utf8.constData());
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
