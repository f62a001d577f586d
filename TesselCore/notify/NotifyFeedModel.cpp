#include "notify/NotifyFeedModel.h"

#include "errors/ErrorLog.h"
#include "errors/Failures.h"
#include "net/HTTPFailure.h"

#include <QRegularExpression>
#include <QSet>

#include <algorithm>
#include <utility>

namespace tessel {

using namespace Qt::Literals::StringLiterals;

namespace {

const char* const category = "notify";

// The error's own words, as a person or a log reader sees them.
QString describe(const std::exception_ptr& error) {
    return describeFailure(error, u"unknown error"_s);
}

QString watermarkText(const std::optional<QDateTime>& watermark) {
    return watermark ? watermark->toUTC().toString(Qt::ISODateWithMs) : u"none"_s;
}

QStringList lastShown(QStringList ids) {
    if (ids.size() > NotifyFeedModel::maxShownIDs) {
        ids.remove(0, ids.size() - NotifyFeedModel::maxShownIDs);
    }
    return ids;
}

} // namespace

// Clears the polling mark on every way out of a poll, while the model lives.
struct PollingMark {
    QPointer<NotifyFeedModel> model;
    ~PollingMark() {
        if (model) {
            model->isPolling_ = false;
        }
    }
};

NotifyFeedModel::NotifyFeedModel(APIFactory api, SessionFunction session, Notifier notifier,
                                 std::shared_ptr<NotifyFeedStore> store, Clock now, QObject* parent)
    : QObject(parent), api_(std::move(api)), session_(std::move(session)),
      notifier_(std::move(notifier)), store_(std::move(store)),
      now_(now ? std::move(now) : Clock([] { return QDateTime::currentDateTimeUtc(); })) {
    desktopNotifications_ = store_->desktopNotifications();

    // Newest first, every id met before dropped, then the newest 500 back in
    // their order.
    const QStringList stored = store_->shownIDs();
    QSet<QString> met;
    QStringList kept;
    for (auto it = stored.crbegin(); it != stored.crend() && kept.size() < maxShownIDs; ++it) {
        if (!met.contains(*it)) {
            met.insert(*it);
            kept.prepend(*it);
        }
    }
    shownIDs_ = kept;
    store_->setShownIDs(shownIDs_);
    watermark_ = store_->shownCreatedAtWatermark();
}

void NotifyFeedModel::note(const QString& text) const {
    log::write(log::Level::info, category, text);
}

void NotifyFeedModel::noteError(const QString& text) const {
    log::write(log::Level::error, category, text);
}

bool NotifyFeedModel::current(const std::optional<QString>& session) const {
    return desktopNotifications_ && session_() == session;
}

void NotifyFeedModel::setDesktopNotifications(bool on) {
    desktopNotifications_ = on;
    store_->setDesktopNotifications(on);
    // During a sign-in wait the schedule stands.
    if (!humanLine_) {
        nextPollAt_.reset();
    }
    emit changed();
}

double NotifyFeedModel::loopDelay() const {
    double delay = pollInterval;
    if (desktopNotifications_ && nextPollAt_) {
        delay = static_cast<double>(now_().msecsTo(*nextPollAt_)) / 1000.0;
    }
    return std::clamp(delay, 0.1, pollInterval);
}

Task<void> NotifyFeedModel::runPollLoop(QPointer<NotifyFeedModel> model, SleepFunction sleep,
                                        CancellationToken token) {
    while (model && !token.isCancelled()) {
        co_await model->poll(token);
        if (!model || token.isCancelled()) {
            co_return;
        }
        try {
            co_await sleep(model->loopDelay(), token);
        } catch (const Cancelled&) {
            co_return;
        }
    }
}

std::optional<QDateTime> NotifyFeedModel::parseTimestamp(const QString& text) {
    // Qt alone also takes a blank for the "T", no zone, or "+0100".
    static const QRegularExpression form(
        u"^\\d{4}-\\d{2}-\\d{2}T\\d{2}:\\d{2}:\\d{2}(\\.\\d+)?(Z|[+-]\\d{2}:\\d{2})$"_s);
    if (!form.match(text).hasMatch()) {
        return std::nullopt;
    }
    const QDateTime parsed = QDateTime::fromString(text, Qt::ISODateWithMs);
    if (!parsed.isValid()) {
        return std::nullopt;
    }
    return parsed.toUTC();
}

QString NotifyFeedModel::deliveryWords(const QString& errorText) {
    if (errorText.contains(u"not allowed"_s, Qt::CaseInsensitive) ||
        errorText.contains(u"not authorized"_s, Qt::CaseInsensitive)) {
        return u"Your desktop will not show notifications for this copy of Velmora — allow "
               u"notifications for it in your desktop's notification settings."_s;
    }
    if (errorText.contains(u"off."_s, Qt::CaseInsensitive)) {
        return u"Desktop notifications are off for Velmora in your desktop's notification "
               u"settings."_s;
    }
    return u"A notification could not be shown: "_s + errorText;
}

Task<void> NotifyFeedModel::poll(CancellationToken token) {
    QPointer<NotifyFeedModel> self(this);
    const std::optional<QString> s = session_();
    if (s != lastSession_) {
        // What was shown under one sign-in stays shown under the next.
        lastSession_ = s;
        unread_ = 0;
        humanLine_.reset();
        consecutiveFailures_ = 0;
        nextPollAt_.reset();
        nextPollInterval_ = pollInterval;
        emit changed();
    }
    if (!s) {
        note(u"poll skipped: not signed in"_s);
        co_return;
    }
    if (!desktopNotifications_) {
        note(u"poll skipped: desktop notifications off"_s);
        co_return;
    }
    const QDateTime started = now_();
    if (isPolling_ || (nextPollAt_ && started < *nextPollAt_)) {
        co_return;
    }
    isPolling_ = true;
    const PollingMark mark{self};
    nextPollAt_ = started.addMSecs(qint64(pollInterval * 1000));

    std::vector<NotifyFeedRow> rows;
    std::exception_ptr failure;
    try {
        const std::shared_ptr<const NotifyFeedAPI> api = api_();
        const qint64 count = co_await api->count();
        if (!self || !current(s)) {
            co_return; // a late answer for a sign-in or a switch that is gone
        }
        // A poll that finds things as they were tells no view: the popover
        // would be rebuilt every poll for nothing.
        if (std::exchange(unread_, count) != count) {
            emit changed();
        }
        if (count >= 1) {
            rows = co_await api->feed(feedLimit);
        }
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self) {
        co_return;
    }
    if (failure) {
        pollFailed(failure, s);
        co_return;
    }
    note(u"poll: unread=%1 rows=%2 shown=%3 watermark=%4"_s.arg(unread_)
             .arg(qint64(rows.size()))
             .arg(shownIDs_.size())
             .arg(watermarkText(watermark_)));
    if (!current(s)) {
        co_return;
    }
    const bool recovered =
        humanLine_ || consecutiveFailures_ != 0 || nextPollInterval_ != pollInterval;
    humanLine_.reset();
    consecutiveFailures_ = 0;
    nextPollInterval_ = pollInterval;
    if (recovered) {
        emit changed();
    }

    if (!watermark_ && shownIDs_.isEmpty()) {
        seed(rows);
        co_return;
    }

    std::optional<QDateTime> floor;
    if (watermark_) {
        floor = watermark_->addMSecs(-qint64(watermarkTolerance * 1000));
    }
    QSet<QString> seen(shownIDs_.cbegin(), shownIDs_.cend());
    for (const NotifyFeedRow& row : rows) {
        if (row.urgencyEffective == u"digest"_s || seen.contains(row.id)) {
            continue;
        }
        const std::optional<QDateTime> createdAt = parseTimestamp(row.createdAt);
        if (!createdAt) {
            noteError(
                u"row %1: created_at '%2' did not parse; skipped"_s.arg(row.id, row.createdAt));
            continue;
        }
        if (floor && *createdAt <= *floor) {
            note(u"row %1: older than the watermark; skipped"_s.arg(row.id));
            continue;
        }
        if (!current(s) || token.isCancelled()) {
            co_return; // the rows not yet walked wait for the next poll
        }
        note(u"row %1: delivering"_s.arg(row.id));
        NotifyDesktopNotification notification{row.id, row.title, row.body, row.link,
                                               row.urgencyEffective == u"interrupt"_s};
        std::exception_ptr refused;
        try {
            co_await notifier_(std::move(notification));
        } catch (...) {
            refused = std::current_exception();
        }
        if (!self) {
            co_return;
        }
        if (!refused) {
            note(u"row %1: shown"_s.arg(row.id));
            deliveryFailures_ = 0;
            deliveryLine_.reset();
            seen.insert(row.id);
            remember(row.id, *createdAt);
            emit changed();
            continue;
        }
        if (isCancellation(refused)) {
            co_return;
        }
        // Not remembered: the next poll tries the row again.
        const QString text = describe(refused);
        ++deliveryFailures_;
        deliveryLine_ = deliveryWords(text);
        noteError(u"row %1: the desktop refused the banner: %2"_s.arg(row.id, text));
        emit changed();
    }
}

void NotifyFeedModel::remember(const QString& id, const QDateTime& createdAt) {
    shownIDs_.append(id);
    shownIDs_ = lastShown(std::move(shownIDs_));
    store_->setShownIDs(shownIDs_);
    if (!watermark_ || createdAt > *watermark_) {
        watermark_ = createdAt;
    }
    store_->setShownCreatedAtWatermark(watermark_);
}

void NotifyFeedModel::seed(const std::vector<NotifyFeedRow>& rows) {
    std::optional<QDateTime> newest;
    QStringList ids;
    for (const NotifyFeedRow& row : rows) {
        ids.append(row.id);
        const auto createdAt = parseTimestamp(row.createdAt);
        if (createdAt && (!newest || *createdAt > *newest)) {
            newest = createdAt;
        }
    }
    shownIDs_ = lastShown(std::move(ids));
    store_->setShownIDs(shownIDs_);
    watermark_ = newest ? *newest : now_().toUTC();
    store_->setShownCreatedAtWatermark(watermark_);
    seededQuietly_ = true;
    note(u"first poll: %1 rows seeded as history, watermark=%2"_s.arg(qint64(rows.size()))
             .arg(watermarkText(watermark_)));
}

void NotifyFeedModel::pollFailed(const std::exception_ptr& failure,
                                 const std::optional<QString>& session) {
    if (!current(session) || isCancellation(failure)) {
        return;
    }
    noteError(u"poll failed: "_s + describe(failure));
    ++consecutiveFailures_;
    humanLine_.reset();
    nextPollInterval_ = pollInterval;
    try {
        std::rethrow_exception(failure);
    } catch (const HTTPFailure& refused) {
        if (refused.status == 401) {
            humanLine_ = refused.humanLine();
            nextPollInterval_ = signInInterval;
        }
    } catch (...) {
        // Outages of the service are not the user's to see.
    }
    nextPollAt_ = now_().addMSecs(qint64(nextPollInterval_ * 1000));
    emit changed();
}

Task<void> NotifyFeedModel::markRead(std::vector<QString> ids) {
    QPointer<NotifyFeedModel> self(this);
    const std::optional<QString> s = session_();
    if (!s || ids.empty()) {
        co_return;
    }
    std::optional<qint64> marked;
    try {
        const std::shared_ptr<const NotifyFeedAPI> api = api_();
        marked = co_await api->markRead(std::move(ids));
    } catch (...) {
        // No line, no counter and no retry: the row stays unread on the server.
    }
    if (!self || !marked || session_() != s) {
        co_return;
    }
    unread_ = std::max<qint64>(0, unread_ - *marked);
    emit changed();
}

} // namespace tessel
