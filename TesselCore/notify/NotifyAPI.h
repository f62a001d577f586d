// The client of the notification service: the unread count, the latest rows of
// the feed, and marking rows read. The feed model sees it only through
// `NotifyFeedAPI`, so another source of rows can stand in for it.
#pragma once

#include "async/Async.h"
#include "meet/MeetAPI.h"
#include "net/HTTPClient.h"

#include <QString>
#include <QUrl>

#include <optional>
#include <vector>

class QSettings;

namespace tessel {

// One notification as the service lists it. `createdAt` stays text here, so a
// malformed timestamp costs one row later and not the whole answer.
struct NotifyFeedRow {
    QString id;
    QString title;
    QString body;
    std::optional<QString> link;
    QString urgencyEffective;
    QString createdAt;
    QString eventType;
    QString source;

    bool operator==(const NotifyFeedRow&) const = default;
};

class NotifyFeedAPI {
public:
    virtual ~NotifyFeedAPI() = default;
    virtual Task<qint64> count() const = 0;
    // The rows in the service's order.
    virtual Task<std::vector<NotifyFeedRow>> feed(qint64 limit) const = 0;
    // The number of rows the service marked.
    virtual Task<qint64> markRead(std::vector<QString> ids) const = 0;
};

class NotifyAPI : public NotifyFeedAPI {
public:
    // The base URL is `baseURL` when given, else the text under the defaults key
    // "notifyBaseURL", else `serviceURL`. Throws TesselError when it is no URL or
    // not a secure address.
    NotifyAPI(std::optional<QUrl> baseURL, TokenProvider tokenProvider, HTTPClient http,
              const QSettings& defaults, const QString& serviceURL);

    Task<qint64> count() const override;
    Task<std::vector<NotifyFeedRow>> feed(qint64 limit) const override;
    Task<qint64> markRead(std::vector<QString> ids) const override;

    const QUrl& baseURL() const { return baseURL_; }

    // The rows of a feed answer; throws DecodingError when a required key is
    // missing or of the wrong kind.
    static std::vector<NotifyFeedRow> decodeFeed(const QByteArray& body);
    // The unread count of a count answer; throws DecodingError.
    static qint64 decodeCount(const QByteArray& body);

private:
    // One request: path suffix, query, and a JSON body for a POST.
    Task<QByteArray> send(QString suffix, std::optional<qint64> limit,
                          std::optional<QByteArray> body) const;

    QUrl baseURL_;
    TokenProvider tokenProvider_;
    HTTPClient http_;
};

} // namespace tessel
