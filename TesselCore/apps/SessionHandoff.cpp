#include "apps/SessionHandoff.h"

#include "errors/Failures.h"
#include "identity/PrivateFolder.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUuid>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

using namespace Qt::StringLiterals;

namespace tessel::SessionHandoff {

namespace {

bool writeAll(int fd, const QByteArray& bytes) {
    qsizetype done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.constData() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += n;
    }
    return true;
}

} // namespace

std::optional<QString> write(const QString& orgHost, const TokenLookup& keychain,
                             const QString& root) {
    return write(orgHost, keychain, root, [] {
        return QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper() + u".json"_s;
    });
}

std::optional<QString> write(const QString& orgHost, const TokenLookup& keychain,
                             const QString& root, const std::function<QString()>& fileName) {
    std::optional<QString> token;
    try {
        token = keychain(orgHost);
    } catch (...) {
        return std::nullopt;
    }
    if (!token) {
        return std::nullopt;
    }
    try {
        PrivateFolder::make(root);
    } catch (const Failure&) {
        return std::nullopt;
    }
    const QString path = QDir(root).filePath(fileName());
    const QByteArray bytes =
        QJsonDocument(QJsonObject{{u"token"_s, *token}, {u"org_host"_s, orgHost}})
            .toJson(QJsonDocument::Compact);
    const int fd = ::open(QFile::encodeName(path).constData(),
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        return std::nullopt;
    }
    const bool written = writeAll(fd, bytes);
    if (::close(fd) != 0 || !written) {
        return std::nullopt;
    }
    return path;
}

QString defaultRoot(const QProcessEnvironment& environment, const QString& dataDirectory) {
    const QString runtime = environment.value(u"XDG_RUNTIME_DIR"_s);
    return (QDir::isAbsolutePath(runtime) ? runtime : dataDirectory) + u"/Velmora/handoff"_s;
}

} // namespace tessel::SessionHandoff
