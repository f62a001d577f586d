#include "support/Zip.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QThread>

#include <stdexcept>

namespace tessel::test {

namespace {

const char* const script = R"(
import base64, json, sys, zipfile
with zipfile.ZipFile(sys.argv[1], "w") as archive:
    for entry in json.loads(sys.argv[2]):
        info = zipfile.ZipInfo(entry["name"])
        mode = 0o120777 if entry["link"] else 0o100755 if entry["exec"] else 0o100644
        info.external_attr = mode << 16
        archive.writestr(info, base64.b64decode(entry["data"]))
)";

} // namespace

void writeZip(const QString& path, const std::vector<ZipEntry>& entries) {
    QJsonArray list;
    for (const ZipEntry& entry : entries) {
        list.append(QJsonObject{{"name", entry.name},
                                {"data", QString::fromLatin1(entry.content.toBase64())},
                                {"exec", entry.executable},
                                {"link", entry.link}});
    }
    QProcess python;
    python.setProcessChannelMode(QProcess::ForwardedChannels);
    python.start("/usr/bin/python3",
                 {"-c", script, path, QString::fromUtf8(QJsonDocument(list).toJson())});
    if (!python.waitForFinished(60000) || python.exitCode() != 0) {
        throw std::runtime_error("writeZip: python3 failed for " + path.toStdString());
    }
}

std::vector<ZipEntry> appDir(const QString& name, const QString& bundleID) {
    const QString dir = name + ".app/";
    return {
        {dir + "AppRun",
         "#!/bin/sh\ncd \"$(dirname \"$0\")\" && printf '%s\\n' \"$@\" > arguments.tmp && "
         "mv arguments.tmp arguments\n",
         true},
        {dir + bundleID + ".desktop",
         "[Desktop Entry]\nType=Application\nName=" + name.toUtf8() + "\nExec=AppRun\n"},
    };
}

QStringList linesOnceWritten(const QString& path) {
    const QDeadlineTimer deadline(30000);
    while (!QFile::exists(path) && !deadline.hasExpired()) {
        QThread::msleep(20);
    }
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return {QStringLiteral("nothing written")};
    }
    return QString::fromUtf8(file.readAll()).split(u'\n', Qt::SkipEmptyParts);
}

} // namespace tessel::test
