// A file a test sets up, written whole; the test fails when it cannot be.
#pragma once

#include <QFile>
#include <gtest/gtest.h>

namespace tessel::test {

inline QString writeFile(const QString& path, const QByteArray& bytes,
                         QFile::Permissions mode = {}) {
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << path.toStdString();
    file.write(bytes);
    file.close();
    if (mode) {
        file.setPermissions(mode);
    }
    return path;
}

} // namespace tessel::test
