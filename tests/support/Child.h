// A child program started with posix_spawn. QProcess starts children with a
// clone that shares the parent's memory until exec and runs intercepted calls
// in between, which leaves the thread sanitizer believing the test is a forked
// child; posix_spawn runs nothing of ours before exec.
#pragma once

#include <QString>
#include <QStringList>

#include <sys/types.h>

#include <optional>

namespace tessel::test {

class Child {
public:
    // Standard output and error are appended to the files named, or go nowhere
    // when a name is empty; the same name for both merges them.
    Child(const QString& program, const QStringList& arguments, const QStringList& environment,
          const QString& outputPath = {}, const QString& errorPath = {});
    ~Child(); // kills and reaps a child still running
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    bool started() const { return pid_ > 0; }
    bool running();
    // The exit code (-1 when a signal ended it), or nothing if still running at the deadline.
    std::optional<int> waitFor(int milliseconds);
    void signal(int number);

private:
    pid_t pid_ = -1;
    std::optional<int> status_;
};

} // namespace tessel::test
