// The session handoff file: private, new each time, never written through an
// existing entry.
#include "apps/SessionHandoff.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>

using namespace tessel;
using namespace Qt::StringLiterals;

namespace {

unsigned modeOf(const QString& path) {
    struct stat st {};
    ::lstat(QFile::encodeName(path).constData(), &st);
    return st.st_mode & 07777;
}

const SessionHandoff::TokenLookup stored = [](const QString& host) -> std::optional<QString> {
    if (host == u"acme.velmora.ai"_s) {
        return u"vses_secret"_s;
    }
    return std::nullopt;
};

TEST(SessionHandoffTest, WithoutASessionNothingIsCreated) {
    QTemporaryDir home;
    const QString root = home.filePath(u"run/Velmora/handoff"_s);
    const SessionHandoff::TokenLookup failing = [](const QString&) -> std::optional<QString> {
        throw std::runtime_error("keyring locked");
    };
    EXPECT_EQ(SessionHandoff::write(u"other.velmora.ai"_s, stored, root), std::nullopt);
    EXPECT_EQ(SessionHandoff::write(u"acme.velmora.ai"_s, failing, root), std::nullopt);
    EXPECT_FALSE(QFileInfo::exists(home.filePath(u"run"_s)));
}

TEST(SessionHandoffTest, EachCallWritesANewPrivateFileOfTwoKeys) {
    QTemporaryDir home;
    const QString root = home.filePath(u"run/Velmora/handoff"_s);
    const auto first = SessionHandoff::write(u"acme.velmora.ai"_s, stored, root);
    const auto second = SessionHandoff::write(u"acme.velmora.ai"_s, stored, root);
    ASSERT_TRUE(first && second);
    EXPECT_NE(*first, *second);
    EXPECT_EQ(modeOf(root), 0700u);
    EXPECT_EQ(modeOf(home.filePath(u"run"_s)), 0700u);
    for (const QString& path : {*first, *second}) {
        EXPECT_EQ(QFileInfo(path).dir().path(), root);
        EXPECT_TRUE(QFileInfo(path).fileName().contains(
            QRegularExpression(u"^[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}\\.json$"_s)));
        EXPECT_EQ(modeOf(path), 0600u);
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        const QByteArray bytes = file.readAll();
        EXPECT_FALSE(bytes.endsWith('\n'));
        EXPECT_EQ(
            QJsonDocument::fromJson(bytes).object(),
            (QJsonObject{{u"token"_s, u"vses_secret"_s}, {u"org_host"_s, u"acme.velmora.ai"_s}}));
    }
}

TEST(SessionHandoffTest, NeverWritesThroughAnExistingFileOrLink) {
    QTemporaryDir home;
    const QString root = home.filePath(u"handoff"_s);
    ASSERT_TRUE(QDir().mkpath(root));
    QFile::setPermissions(root, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner |
                                    QFile::ReadGroup | QFile::ExeGroup);
    const QString target = home.filePath(u"elsewhere"_s);
    QFile(target).open(QIODevice::WriteOnly);
    QFile(root + u"/taken.json"_s).open(QIODevice::WriteOnly);
    ASSERT_TRUE(QFile::link(target, root + u"/link.json"_s));
    for (const QString& name : {u"taken.json"_s, u"link.json"_s}) {
        EXPECT_EQ(
            SessionHandoff::write(u"acme.velmora.ai"_s, stored, root, [name] { return name; }),
            std::nullopt)
            << name.toStdString();
    }
    EXPECT_EQ(QFileInfo(target).size(), 0);
    EXPECT_EQ(modeOf(root), 0750u); // an existing directory keeps its mode
}

// The runtime folder comes from the environment; another user may own it or
// the Velmora folder in it.
TEST(SessionHandoffTest, NeverWritesIntoAFolderOpenToOthers) {
    QTemporaryDir home;
    const QString shared = home.filePath(u"shared"_s);
    ASSERT_TRUE(QDir().mkpath(shared));
    ASSERT_EQ(::chmod(QFile::encodeName(shared).constData(), 0777), 0);
    QProcessEnvironment environment;
    environment.insert(u"XDG_RUNTIME_DIR"_s, shared);
    const QString root = SessionHandoff::defaultRoot(environment, home.filePath(u"data"_s));
    EXPECT_EQ(SessionHandoff::write(u"acme.velmora.ai"_s, stored, root), std::nullopt);
    EXPECT_FALSE(QFileInfo::exists(shared + u"/Velmora"_s));

    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can give a folder to another user";
    }
    ASSERT_EQ(::chmod(QFile::encodeName(shared).constData(), 0700), 0);
    const QByteArray velmora = QFile::encodeName(shared + u"/Velmora"_s);
    ASSERT_EQ(::mkdir(velmora.constData(), 0777), 0);
    ASSERT_EQ(::chmod(velmora.constData(), 0777), 0);
    ASSERT_EQ(::chown(velmora.constData(), 65534, 65534), 0);
    EXPECT_EQ(SessionHandoff::write(u"acme.velmora.ai"_s, stored, root), std::nullopt);
    EXPECT_FALSE(QFileInfo::exists(root));
}

} // namespace
