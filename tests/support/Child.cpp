#include "support/Child.h"

#include <QDeadlineTimer>
#include <QThread>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <vector>

namespace tessel::test {

namespace {

std::vector<char*> pointers(std::vector<QByteArray>& strings) {
    std::vector<char*> result;
    for (auto& text : strings) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

} // namespace

Child::Child(const QString& program, const QStringList& arguments, const QStringList& environment,
             const QString& outputPath, const QString& errorPath) {
    std::vector<QByteArray> argv{program.toLocal8Bit()};
    for (const QString& argument : arguments) {
        argv.push_back(argument.toLocal8Bit());
    }
    std::vector<QByteArray> envp;
    for (const QString& entry : environment) {
        envp.push_back(entry.toLocal8Bit());
    }
    const auto fileName = [](const QString& path) {
        return path.isEmpty() ? QByteArray("/dev/null") : path.toLocal8Bit();
    };
    const QByteArray output = fileName(outputPath);
    const QByteArray error = fileName(errorPath);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.constData(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (errorPath == outputPath) {
        posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    } else {
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, error.constData(),
                                         O_WRONLY | O_CREAT | O_APPEND, 0600);
    }
    auto args = pointers(argv);
    auto env = pointers(envp);
    if (posix_spawnp(&pid_, argv.front().constData(), &actions, nullptr, args.data(), env.data()) !=
        0) {
        pid_ = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
}

Child::~Child() {
    if (running()) {
        signal(SIGKILL);
        waitFor(5000);
    }
}

bool Child::running() {
    if (pid_ <= 0 || status_) {
        return false;
    }
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return false;
    }
    return true;
}

std::optional<int> Child::waitFor(int milliseconds) {
    const QDeadlineTimer deadline(milliseconds);
    while (running()) {
        if (deadline.hasExpired()) {
            return std::nullopt;
        }
        QThread::msleep(10);
    }
    return pid_ > 0 ? status_ : std::optional<int>(-1);
}

void Child::signal(int number) {
    if (running()) {
        ::kill(pid_, number);
    }
}

} // namespace tessel::test
