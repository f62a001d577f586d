// The update engine of this program: a JSON feed, {"version", "url",
// "sha256", "notes"}, at the endpoints' update feed URL. Run as an AppImage
// ($APPIMAGE) it streams the new image to a file beside the old one and checks
// its SHA-256; the relaunch (the new image over the old, started, this one
// quits) is the step that waits for a call to end. Installed by a package
// manager it never replaces its own files: it says which version is available
// and that the package manager installs it. Run any other way (built from
// source) it says that a version is available and opens its page.
#pragma once

#include "app/AppServices.h"
#include "app/UpdateEngine.h"
#include "net/HTTPClient.h"

#include <QPointer>

#include <optional>

namespace tessel {

struct UpdateFeedEntry {
    QString version;
    QUrl url;
    QByteArray sha256; // lower-case hex
    QString notes;

    // Throws DecodingError when the bytes are not that form.
    static UpdateFeedEntry fromJSON(const QByteArray& bytes);
};

// Whether dotted version `candidate` is later than `current` ("0.10" > "0.9").
bool isNewerVersion(const QString& candidate, const QString& current);

class FeedUpdateEngine : public UpdateEngine {
    Q_OBJECT

public:
    struct Dependencies {
        std::optional<QUrl> feedURL; // none: nothing can be checked
        QString currentVersion;
        HTTPClient http;
        std::optional<QString> appImage; // the running image, from $APPIMAGE
        bool packageManaged = false;     // installed by a package manager
        OpenURL openURL;
        // Tells the person something; no answer is needed.
        std::function<void(const QString&)> tell;
        // Starts the image now in place and ends this program.
        std::function<void(const QString& image)> relaunch;
    };

    explicit FeedUpdateEngine(Dependencies dependencies, QObject* parent = nullptr);

    bool canCheck() const override;
    void checkForUpdates() override;
    // The whole check, for those who wait for it.
    Task<void> check();

    // Where a fetched image waits for its relaunch.
    static QString stagedPath(const QString& image);

private:
    Task<void> install(UpdateFeedEntry entry);

    Dependencies deps_;
    bool checking_ = false;
};

} // namespace tessel
