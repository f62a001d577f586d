// The feed engine against the local server's feed: an AppImage is fetched
// beside the running one, checked, and put in place only when no call runs.
#include "app/FeedUpdateEngine.h"
#include "app/UpdateController.h"
#include "support/DevServer.h"
#include "support/FakeClock.h"
#include "support/Files.h"
#include "support/Wait.h"

#include <QFile>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace tessel;
using namespace tessel::test;

namespace {

QByteArray contents(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("absent");
}

struct Feed : ::testing::Test {
    void offer(const nlohmann::json& update) { server.control("update", update); }
    void writeOldImage() { writeFile(image, "old image"); }
    std::unique_ptr<UpdateController> controller(std::optional<QString> appImage,
                                                 bool packaged = false,
                                                 HTTPClient http = HTTPClient()) {
        auto engine = std::make_unique<FeedUpdateEngine>(FeedUpdateEngine::Dependencies{
            .feedURL = QUrl(QString::fromStdString(server.origin() + "/update/feed.json")),
            .currentVersion = "1.2.0",
            .http = std::move(http),
            .appImage = appImage,
            .packageManaged = packaged,
            .openURL = [this](const QUrl& url) { opened.push_back(url); },
            .tell = [this](const QString& text) { told.push_back(text); },
            .relaunch = [this](const QString& image) { relaunched.push_back(image); },
        });
        feed = engine.get();
        return std::make_unique<UpdateController>(std::move(engine), false);
    }

    DevServer server;
    QTemporaryDir dir;
    QString image = dir.filePath("Velmora.AppImage");
    FeedUpdateEngine* feed = nullptr;
    std::vector<QUrl> opened;
    std::vector<QString> told, relaunched;
};

} // namespace

TEST_F(Feed, ACallThatStartsDuringTheDownloadHoldsTheRelaunch) {
    writeOldImage();
    offer({{"version", "1.10.0"}, {"image", "new image"}});
    server.delay("update_image", 1, 2000);
    auto updates = controller(image);

    // The call starts while the image comes: after the feed was read and the
    // update allowed to proceed, before the relaunch.
    auto check = feed->check();
    ASSERT_TRUE(eventually([&] { return server.requests("update_feed") > 0; }));
    wait(sleepFor(0.5));
    updates->setCaptureIsHeld(true);
    wait(std::move(check));
    EXPECT_EQ(told.back(), "Velmora 1.10.0 is ready — it starts when your call ends.");
    EXPECT_EQ(contents(image), "old image");
    EXPECT_TRUE(relaunched.empty());

    updates->setCaptureIsHeld(false);
    FakeClock::settle();
    EXPECT_EQ(contents(image), "new image");
    EXPECT_EQ(relaunched, std::vector<QString>{image});
}

TEST_F(Feed, WhatACheckComesTo) {
    struct Row {
        const char* name;
        nlohmann::json offer;
        bool appImage;
        QByteArray imageAfter;
        size_t relaunches;
        size_t pagesOpened;
    };
    const std::string wrongSum(64, 'a');
    for (const Row& row : std::vector<Row>{
             {"newer image", {{"version", "1.10.0"}, {"image", "new"}}, true, "new", 1, 0},
             {"damaged",
              {{"version", "2.0"}, {"image", "bad"}, {"sha256", wrongSum}},
              true,
              "old image",
              0,
              0},
             {"not newer", {{"version", "1.2"}, {"image", "same"}}, true, "old image", 0, 0},
             {"not an AppImage", {{"version", "2.0"}, {"image", "new"}}, false, "old image", 0, 1},
         }) {
        SCOPED_TRACE(row.name);
        writeOldImage();
        relaunched.clear();
        opened.clear();
        offer(row.offer);
        auto updates = controller(row.appImage ? std::optional(image) : std::nullopt);
        wait(feed->check());
        EXPECT_EQ(contents(image), row.imageAfter);
        EXPECT_EQ(relaunched.size(), row.relaunches);
        EXPECT_EQ(opened.size(), row.pagesOpened);
        EXPECT_FALSE(QFile::exists(FeedUpdateEngine::stagedPath(image)));
        EXPECT_TRUE(updates->canCheckForUpdates());
    }
}

// Installed by a package manager: the program says what is available and
// fetches nothing.
TEST_F(Feed, APackagedProgramOnlySaysWhichVersionIsAvailable) {
    offer({{"version", "2.0"}, {"image", "new"}});
    auto updates = controller(std::nullopt, true);
    wait(feed->check());
    EXPECT_EQ(told.back(), "Velmora 2.0 is available — your package manager installs it with the "
                           "system's updates (package velmora-tessel).");
    EXPECT_TRUE(opened.empty());
    EXPECT_EQ(server.requests("update_image"), 0);
}

// The image streams to disk for as long as it takes (here longer than the
// whole-request limit of 1 s), but a server that sends nothing for the
// inactivity limit ends it.
TEST_F(Feed, TheImageHasTheInactivityLimitButNoWholeRequestLimit) {
    const std::string large(4 << 20, 'x');
    writeOldImage();
    offer({{"version", "2.0"}, {"image", large}});
    server.delay("update_image", 1, 1500);
    HTTPSession::Options limits;
    limits.totalSeconds = 1;
    auto patient = std::make_shared<HTTPSession>(limits);
    auto updates = controller(image, false, HTTPClient(patient));
    wait(feed->check());
    EXPECT_EQ(contents(image).size(), qsizetype(large.size()));
    EXPECT_EQ(relaunched.size(), 1u);

    writeOldImage();
    relaunched.clear();
    server.delay("update_image", 1, 1500);
    limits = HTTPSession::Options();
    limits.inactivitySeconds = 0.5;
    auto impatient = std::make_shared<HTTPSession>(limits);
    updates = controller(image, false, HTTPClient(impatient));
    wait(feed->check());
    EXPECT_EQ(contents(image), "old image");
    EXPECT_TRUE(relaunched.empty());
    EXPECT_FALSE(QFile::exists(FeedUpdateEngine::stagedPath(image)));
}
