// The system log. Entries go to the systemd journal with the subsystem and the
// category as fields, or, when no journal is listening, to the private file
// $XDG_STATE_HOME/velmora/tessel.log (moved aside once past 1 MiB). Never to
// standard output or standard error: those belong to the command form's own
// lines. Session tokens never reach a log line.
#pragma once

#include <QString>
#include <functional>

namespace tessel::log {

inline constexpr const char* subsystem = "ai.velmora.tessel";

enum class Level { error, warning, info };

// `category` is one of "errors", "notify", "helpers", ...
void write(Level level, const char* category, const QString& text);

// The technical line of a failure, at error level, category "errors".
inline void error(const QString& text) {
    write(Level::error, "errors", text);
}

// Tests replace where lines go; the guard puts the previous sink back.
using Sink = std::function<void(Level, const char* category, const QString& text)>;
class ScopedSink {
public:
    explicit ScopedSink(Sink sink);
    ~ScopedSink();
    ScopedSink(const ScopedSink&) = delete;
    ScopedSink& operator=(const ScopedSink&) = delete;

private:
    Sink previous_;
};

} // namespace tessel::log
