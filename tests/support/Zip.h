// ZIP archives for tests, written by Python's zipfile, which writes any entry
// name it is given ("../x", "/etc/x") as it is.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <utility>
#include <vector>

namespace tessel::test {

struct ZipEntry {
    QString name;
    QByteArray content;
    bool executable = false;
    bool link = false; // a symbolic link to `content`
};

// Writes the archive to `path`; throws when Python fails.
void writeZip(const QString& path, const std::vector<ZipEntry>& entries);

// An AppDir for the archive: "<name>.app/AppRun", a script that writes its
// arguments, one a line, to "<name>.app/arguments" (renamed into place, whole), and
// "<name>.app/<id>.desktop".
std::vector<ZipEntry> appDir(const QString& name, const QString& bundleID);

// The lines of a file an application started apart writes, such as the
// AppDir's "arguments", once it is there (30 s at most).
QStringList linesOnceWritten(const QString& path);

} // namespace tessel::test
