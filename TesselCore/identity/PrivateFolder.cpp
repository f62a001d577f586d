#include "identity/PrivateFolder.h"

#include "errors/Failures.h"

#include <QDir>
#include <QFile>
#include <QStringList>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

using namespace Qt::StringLiterals;

namespace tessel::PrivateFolder {

namespace {

[[noreturn]] void cannotCreate(const QString& folder) {
    throw TesselError(
        u"Could not create the private directory %1 — check that it can be written."_s.arg(folder));
}

} // namespace

QString openToOthers(const QString& folder) {
    return u"The folder %1 is open to other users — secrets are not put there; make it yours "
           u"with mode 0700 or set XDG_RUNTIME_DIR to a private folder."_s.arg(folder);
}

void make(const QString& path) {
    const QString clean =
        QDir::cleanPath(QDir::isAbsolutePath(path) ? path : QDir::current().filePath(path));
    QStringList folders{u"/"_s};
    QString prefix;
    for (const QString& part : clean.split(u'/', Qt::SkipEmptyParts)) {
        prefix += u'/' + part;
        folders << prefix;
    }

    const uid_t user = ::geteuid();
    // Set when the folder above is root's, writable by all and sticky: in it
    // anyone may have made the next name, so only the user's own will do.
    bool inShared = false;
    for (const QString& folder : folders) {
        const QByteArray native = QFile::encodeName(folder);
        if (::mkdir(native.constData(), 0700) != 0 && errno != EEXIST) {
            cannotCreate(folder);
        }
        const auto trusted = [&](uid_t owner) {
            return owner == user || (owner == 0 && !inShared);
        };
        struct stat st {};
        if (::lstat(native.constData(), &st) != 0) {
            cannotCreate(folder);
        }
        if (S_ISLNK(st.st_mode)) {
            if (!trusted(st.st_uid)) {
                throw TesselError(openToOthers(folder));
            }
            if (::stat(native.constData(), &st) != 0) {
                cannotCreate(folder);
            }
        }
        if (!S_ISDIR(st.st_mode)) {
            cannotCreate(folder);
        }
        const bool writableByOthers = (st.st_mode & (S_IWGRP | S_IWOTH)) != 0;
        const bool sharedSticky = st.st_uid == 0 && (st.st_mode & S_ISVTX) != 0;
        if (!trusted(st.st_uid) || (writableByOthers && !sharedSticky)) {
            throw TesselError(openToOthers(folder));
        }
        inShared = writableByOthers;
    }
}

} // namespace tessel::PrivateFolder
