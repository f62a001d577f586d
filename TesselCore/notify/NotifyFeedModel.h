// Polls the notification service and turns each new row into one desktop
// notification: never twice, not after a restart, not after a change of
// sign-in, and not the organisation's whole history on the first run. Two
// memories do it, a bounded list of ids already shown and a creation-time
// watermark with a tolerance, plus one first-run rule: quiet seeding.
#pragma once

#include "async/Async.h"
#include "notify/NotifyAPI.h"
#include "notify/NotifyFeedStore.h"

#include <QDateTime>
#include <QObject>
#include <QPointer>
#include <QStringList>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace tessel {

// What the model hands to the desktop.
struct NotifyDesktopNotification {
    QString id;
    QString title;
    QString body;
    std::optional<QString> link;
    bool sound = false; // an urgent row

    bool operator==(const NotifyDesktopNotification&) const = default;
};

// Main thread only. Never fails to its callers: a failure ends as a line in an
// observable property, and what was known stays.
class NotifyFeedModel : public QObject {
    Q_OBJECT

public:
    // Builds the client afresh for each poll; may throw.
    using APIFactory = std::function<std::shared_ptr<const NotifyFeedAPI>()>;
    // The sign-in of the moment ("host:token"); none when signed out.
    using SessionFunction = std::function<std::optional<QString>()>;
    // Shows one notification; `Cancelled` means the poll must stop quietly.
    using Notifier = std::function<Task<void>(NotifyDesktopNotification)>;
    // Wall-clock time: it is compared with the service's creation times.
    using Clock = std::function<QDateTime()>;

    static constexpr double pollInterval = 30;
    static constexpr double signInInterval = 300; // after a 401
    static constexpr double watermarkTolerance = 600;
    static constexpr qsizetype maxShownIDs = 500;
    static constexpr qint64 feedLimit = 200;

    NotifyFeedModel(APIFactory api, SessionFunction session, Notifier notifier,
                    std::shared_ptr<NotifyFeedStore> store, Clock now = {},
                    QObject* parent = nullptr);

    // One whole poll. `token` is the poll loop's: once cancelled, no further
    // row is delivered.
    Task<void> poll(CancellationToken token = {});
    // After a click on a notification.
    Task<void> markRead(std::vector<QString> ids);

    // Polls at launch and then at least every 30 seconds until the token is
    // cancelled or the model is gone.
    static Task<void> runPollLoop(QPointer<NotifyFeedModel> model, SleepFunction sleep,
                                  CancellationToken token);

    // Observable: `changed` tells the views.
    qint64 unread() const { return unread_; }
    const std::optional<QString>& humanLine() const { return humanLine_; }
    qint64 consecutiveFailures() const { return consecutiveFailures_; }
    double nextPollInterval() const { return nextPollInterval_; }
    bool desktopNotifications() const { return desktopNotifications_; }
    qint64 deliveryFailures() const { return deliveryFailures_; }
    const std::optional<QString>& deliveryLine() const { return deliveryLine_; }
    // Writes the switch through at once; outside a sign-in wait the next
    // waking polls at once.
    void setDesktopNotifications(bool on);

    const QStringList& shownIDs() const { return shownIDs_; }
    const std::optional<QDateTime>& shownCreatedAtWatermark() const { return watermark_; }
    bool seededQuietly() const { return seededQuietly_; }
    const std::optional<QDateTime>& nextPollAt() const { return nextPollAt_; }
    // How long the poll loop sleeps after a poll.
    double loopDelay() const;

    // The two accepted forms of a creation time: ISO 8601 with a zone, with
    // or without fractional seconds.
    static std::optional<QDateTime> parseTimestamp(const QString& text);
    // What the menu says about a refused banner, from the failure's text.
    static QString deliveryWords(const QString& errorText);

signals:
    void changed();

private:
    bool current(const std::optional<QString>& session) const;
    void pollFailed(const std::exception_ptr& failure, const std::optional<QString>& session);
    void seed(const std::vector<NotifyFeedRow>& rows);
    void remember(const QString& id, const QDateTime& createdAt);
    void note(const QString& text) const;
    void noteError(const QString& text) const;

    APIFactory api_;
    SessionFunction session_;
    Notifier notifier_;
    std::shared_ptr<NotifyFeedStore> store_;
    Clock now_;

    qint64 unread_ = 0;
    std::optional<QString> humanLine_;
    qint64 consecutiveFailures_ = 0;
    double nextPollInterval_ = pollInterval;
    bool desktopNotifications_ = true;
    qint64 deliveryFailures_ = 0;
    std::optional<QString> deliveryLine_;

    QStringList shownIDs_;
    std::optional<QDateTime> watermark_;
    bool seededQuietly_ = false;
    std::optional<QDateTime> nextPollAt_;
    std::optional<QString> lastSession_;
    bool isPolling_ = false;

    friend struct PollingMark;
};

} // namespace tessel
