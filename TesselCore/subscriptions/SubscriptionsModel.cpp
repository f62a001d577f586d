#include "subscriptions/SubscriptionsModel.h"

#include "errors/Failures.h"
#include "subscriptions/MeterlyPresentation.h"

#include <QLocale>
#include <QTimeZone>

#include <algorithm>

namespace tessel {

using namespace Qt::Literals::StringLiterals;

namespace {

const QString offLine = u"Subscription notifications are off."_s;

QString describe(const std::exception_ptr& error) {
    return describeFailure(error, u"unknown error"_s);
}

bool allowed(DesktopNotifications::Authorization status) {
    return status == DesktopNotifications::Authorization::authorized ||
           status == DesktopNotifications::Authorization::provisional;
}

Task<void> refreshWeakly(QPointer<SubscriptionsModel> model) {
    if (model) {
        co_await model->refresh(false);
    }
}

Task<void> sleepThen(SleepFunction sleep, double seconds, CancellationToken token,
                     QPointer<QObject> owner, std::function<void()> then) {
    co_await sleep(seconds, token);
    if (owner && !token.isCancelled()) {
        then();
    }
}

} // namespace

SubscriptionsModel::SubscriptionsModel(Parts parts, QObject* parent)
    : QObject(parent), parts_(std::move(parts)), isInstalled_(parts_.client != nullptr) {
    if (!parts_.now) {
        parts_.now = [] { return QDateTime::currentDateTimeUtc(); };
    }
    // A saved reading is on show from the first moment.
    snapshot_ = parts_.snapshotStore.load();
    if (parts_.startingServices) {
        timer_.setInterval(int(refreshInterval * 1000));
        QPointer<SubscriptionsModel> self(this);
        timer_.callOnTimeout(this, [self] { spawn([self] { return refreshWeakly(self); }); });
        timer_.start();
        spawn([self] { return refreshWeakly(self); });
    }
}

// The captions' timers would find the model gone and do nothing; ended here,
// they end now rather than when their time comes.
SubscriptionsModel::~SubscriptionsModel() {
    for (const auto& task : {captionTask_, fadeTask_}) {
        if (task) {
            task->cancel();
        }
    }
}

std::shared_ptr<BackgroundTask> SubscriptionsModel::after(double seconds,
                                                          std::function<void()> then) {
    QPointer<QObject> owner(this);
    return BackgroundTask::start(
        [sleep = parts_.sleep, seconds, owner, then](CancellationToken token) {
            return sleepThen(sleep, seconds, token, owner, then);
        });
}

std::optional<QDateTime> SubscriptionsModel::lastFetch() const {
    return snapshot_ ? MeterlySnapshot::date(snapshot_->fetchedAt) : std::nullopt;
}

QString SubscriptionsModel::menuSymbol() const {
    const bool attention = snapshot_ && std::any_of(snapshot_->seats.cbegin(),
                                                    snapshot_->seats.cend(), [](const auto& seat) {
                                                        return needsAttention(seat.displayStatus());
                                                    });
    return attention ? u"v.circle.fill"_s : u"v.circle"_s;
}

QStringList SubscriptionsModel::displayErrors() const {
    const QList<MeterlySnapshot::Seat> seats =
        snapshot_ ? snapshot_->seats : QList<MeterlySnapshot::Seat>();
    QStringList out;
    for (const QString& error : errors_) {
        out.append(MeterlyPresentation::human(error, seats));
    }
    return out;
}

void SubscriptionsModel::updateNotificationAuthorization() {
    const QPointer<DesktopNotifications> desktop = parts_.desktop;
    if (desktop) {
        QPointer<SubscriptionsModel> self(this);
        spawn([self, desktop] { return readAuthorization(self, desktop); });
    }
}

Task<void> SubscriptionsModel::readAuthorization(QPointer<SubscriptionsModel> model,
                                                 QPointer<DesktopNotifications> desktop) {
    const Authorization status = co_await desktop->authorization();
    if (model) {
        model->notificationAuthorization_ = status;
        emit model->changed();
    }
}

Task<void> SubscriptionsModel::refresh(bool fresh) {
    QPointer<SubscriptionsModel> self(this);
    if (parts_.startingServices) {
        updateNotificationAuthorization();
    }
    const QDateTime started = parts_.now();
    if (lastAttempt_ && lastAttempt_->msecsTo(started) < qint64(guardInterval * 1000)) {
        if (fresh) {
            showRefreshCaption();
        }
        co_return;
    }
    if (isFetching_ || switchingName_) {
        co_return;
    }
    lastAttempt_ = started;
    isFetching_ = true;
    errors_.clear();
    emit changed();

    std::optional<MeterlySnapshot> reading;
    std::exception_ptr failure;
    try {
        const QPointer<AccountsModel> accounts = parts_.accounts;
        if (const auto client = parts_.client) {
            reading = co_await client->status();
        } else if (const auto tool = accounts ? accounts->client() : nullptr) {
            const QList<VantorAccount> rows = co_await tool->status();
            if (self) {
                reading = MeterlySnapshot::fallback(rows, parts_.now());
            }
        } else {
            throw TesselError(parts_.notInstalled);
        }
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self) {
        co_return;
    }
    lastRead_ = parts_.now();
    if (failure || !reading->hasUsableReading()) {
        if (!failure || !isCancellation(failure)) {
            failedRefresh(failure ? describe(failure) : u"No subscription usage was available."_s);
        }
        isFetching_ = false;
        emit changed();
        co_return;
    }
    snapshot_ = std::move(reading);
    failureCaption_.reset();
    showingFailedRefresh_ = false;
    if (fadeTask_) {
        fadeTask_->cancel();
    }
    try {
        parts_.snapshotStore.save(*snapshot_);
    } catch (const Failure& error) {
        errors_.append(u"Could not save the last subscription reading: "_s + error.description());
    }
    emit changed();
    // A reading from the accounts tool never notifies.
    if (isInstalled_) {
        co_await deliverNotifications();
        if (!self) {
            co_return;
        }
    }
    isFetching_ = false;
    emit changed();
}

void SubscriptionsModel::failedRefresh(const QString& description) {
    errors_ = QStringList{description};
    const auto fetched = lastFetch();
    failureCaption_ =
        fetched ? u"Could not refresh; showing "_s +
                      QLocale().toString(fetched->toLocalTime().time(), QLocale::ShortFormat)
                : u"Could not refresh; no saved reading yet"_s;
    showingFailedRefresh_ = snapshot_.has_value();
    if (fadeTask_) {
        fadeTask_->cancel();
    }
    fadeTask_ = after(2, [this] {
        showingFailedRefresh_ = false;
        emit changed();
    });
}

void SubscriptionsModel::showRefreshCaption() {
    const QDateTime now = parts_.now();
    const QDateTime reference = lastFetch().value_or(lastAttempt_.value_or(now));
    refreshCaption_ = u"Updated %1 s ago"_s.arg(reference.msecsTo(now) / 1000);
    if (captionTask_) {
        captionTask_->cancel();
    }
    captionTask_ = after(1.5, [this] {
        refreshCaption_.reset();
        emit changed();
    });
    emit changed();
}

Task<void> SubscriptionsModel::deliverOne(QPointer<SubscriptionsModel> model,
                                          QList<MeterlyPresentation::Notification> notifications,
                                          QString key) {
    const auto found =
        std::find_if(notifications.cbegin(), notifications.cend(),
                     [&](const MeterlyPresentation::Notification& n) { return n.key == key; });
    if (!model || found == notifications.cend()) {
        throw Cancelled(); // the key is not kept
    }
    co_await model->notify(*found);
}

Task<void> SubscriptionsModel::deliverNotifications() {
    QPointer<SubscriptionsModel> self(this);
    const MeterlyPresentation presentation(*snapshot_, parts_.now(), QLocale(),
                                           QTimeZone::systemTimeZone());
    QStringList keys;
    for (const auto& notification : presentation.notifications) {
        keys.append(notification.key);
    }
    const std::shared_ptr<MeterlyAlertsStore> store = parts_.alertsStore;
    // Named, not a temporary in the co_await: GCC 12 destroys such a temporary twice.
    MeterlyAlertsStore::Deliver deliver = [self, notifications =
                                                     presentation.notifications](QString key) {
        return deliverOne(self, notifications, std::move(key));
    };
    std::exception_ptr failure;
    try {
        co_await store->notifyNew(keys, std::move(deliver));
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self || !failure || isCancellation(failure)) {
        co_return;
    }
    // With notifications off alerts stay undelivered and unstored, silently,
    // and arrive at the first reading after the user allows them.
    if (!allowed(notificationAuthorization_) && !parts_.notifier) {
        co_return;
    }
    errors_.append(describe(failure));
    emit changed();
}

Task<void> SubscriptionsModel::notify(MeterlyPresentation::Notification notification) {
    if (parts_.notifier) {
        const Notifier notifier = *parts_.notifier;
        co_await notifier(notification.body);
        co_return;
    }
    QPointer<SubscriptionsModel> self(this);
    const QPointer<DesktopNotifications> desktop = parts_.desktop;
    if (!desktop) {
        throw TesselError(offLine);
    }
    const Authorization status = co_await desktop->authorization();
    if (!self || !desktop) {
        throw Cancelled();
    }
    notificationAuthorization_ = status;
    emit changed();
    if (!allowed(status)) {
        throw TesselError(offLine);
    }
    co_await desktop->postAlert(notification.title, notification.body);
}

Task<void> SubscriptionsModel::use(QString name) {
    QPointer<SubscriptionsModel> self(this);
    const QPointer<AccountsModel> accounts = parts_.accounts;
    if (!accounts || !accounts->client() || isFetching_ || switchingName_) {
        co_return;
    }
    switchingName_ = name;
    errors_.clear();
    emit changed();

    std::exception_ptr failure;
    try {
        co_await accounts->use(name);
        if (self && lastAttempt_) {
            // The refresh below must pass the minute's guard to see the new seat,
            // and the reader keeps its answer for a minute from the end of its
            // run, so the minute counts from whichever came later.
            const QDateTime since = std::max(*lastAttempt_, lastRead_.value_or(*lastAttempt_));
            const double waited = double(since.msecsTo(parts_.now())) / 1000.0;
            if (waited < guardInterval) {
                const SleepFunction sleep = parts_.sleep;
                const CancellationToken token;
                co_await sleep(guardInterval - waited, token);
            }
        }
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self) {
        co_return;
    }
    switchingName_.reset();
    if (failure) {
        errors_ = QStringList{describe(failure)};
        emit changed();
        co_return;
    }
    emit changed();
    co_await refresh(true);
}

} // namespace tessel
