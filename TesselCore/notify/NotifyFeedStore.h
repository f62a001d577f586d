// What the feed remembers between runs: the ids already shown, the newest
// creation time shown, and the user's switch.
#pragma once

#include <QDateTime>
#include <QStringList>

#include <optional>

class QSettings;

namespace tessel {

class NotifyFeedStore {
public:
    virtual ~NotifyFeedStore() = default;

    // Oldest first.
    virtual QStringList shownIDs() const = 0;
    virtual void setShownIDs(const QStringList& ids) = 0;
    virtual std::optional<QDateTime> shownCreatedAtWatermark() const = 0;
    // None removes the watermark.
    virtual void setShownCreatedAtWatermark(const std::optional<QDateTime>& watermark) = 0;
    virtual bool desktopNotifications() const = 0;
    virtual void setDesktopNotifications(bool on) = 0;
};

// The store over the user's settings, under "notifyShownIDs",
// "notifyShownCreatedAtWatermark" and "desktopNotifications". Every write is
// flushed to disk at once, so a crash loses at most the row in flight.
class NotifyDefaultsStore : public NotifyFeedStore {
public:
    // The settings outlive the store.
    explicit NotifyDefaultsStore(QSettings& settings) : settings_(settings) {}

    QStringList shownIDs() const override;
    void setShownIDs(const QStringList& ids) override;
    std::optional<QDateTime> shownCreatedAtWatermark() const override;
    void setShownCreatedAtWatermark(const std::optional<QDateTime>& watermark) override;
    bool desktopNotifications() const override;
    void setDesktopNotifications(bool on) override;

    // The switch as another reader of the settings sees it: on unless it holds false.
    static bool desktopNotifications(const QSettings& settings);

private:
    QSettings& settings_;
};

} // namespace tessel
