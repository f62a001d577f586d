#include "notify/NotifyAPI.h"

#include "net/HTTPFailure.h"

#include <QSettings>
#include <QUrlQuery>

#include <nlohmann/json.hpp>

namespace tessel {

using namespace Qt::Literals::StringLiterals;
using nlohmann::json;

namespace {

const QString invalidAddress = u"The notification service address is invalid."_s;
const QString feedPath = u"v1/notify/feed"_s;

json parseObject(const QByteArray& body, const char* what) {
    json value = json::parse(body.constBegin(), body.constEnd(), nullptr, false);
    if (value.is_discarded() || !value.is_object()) {
        throw DecodingError(u"The notification service's %1 answer is not a JSON object."_s.arg(
            QLatin1String(what)));
    }
    return value;
}

qint64 requiredInteger(const json& object, const char* key, const char* what) {
    const auto found = object.find(key);
    if (found == object.end() || !found->is_number_integer()) {
        throw DecodingError(
            u"The notification service's %1 answer has no whole number \"%2\"."_s.arg(
                QLatin1String(what), QLatin1String(key)));
    }
    return found->get<qint64>();
}

QString requiredText(const json& row, const char* key, std::size_t index) {
    const auto found = row.find(key);
    if (found == row.end() || !found->is_string()) {
        throw DecodingError(u"The notification feed's row %1 has no text \"%2\"."_s.arg(index).arg(
            QLatin1String(key)));
    }
    return QString::fromStdString(found->get<std::string>());
}

} // namespace

NotifyAPI::NotifyAPI(std::optional<QUrl> baseURL, TokenProvider tokenProvider, HTTPClient http,
                     const QSettings& defaults, const QString& serviceURL)
    : tokenProvider_(std::move(tokenProvider)), http_(std::move(http)) {
    if (baseURL) {
        baseURL_ = *baseURL;
    } else {
        // Settings written by another process come back as text whatever they
        // were; a value that isn't text counts as absent.
        const QVariant stored = defaults.value(u"notifyBaseURL"_s);
        const QString text =
            stored.metaType() == QMetaType::fromType<QString>() ? stored.toString() : serviceURL;
        baseURL_ = QUrl(text.trimmed(), QUrl::StrictMode);
    }
    if (baseURL_.isEmpty() || !baseURL_.isValid()) {
        throw TesselError(invalidAddress);
    }
    MeetAPI::validateURL(baseURL_);
}

std::vector<NotifyFeedRow> NotifyAPI::decodeFeed(const QByteArray& body) {
    const json answer = parseObject(body, "feed");
    requiredInteger(answer, "count", "feed");
    const auto data = answer.find("data");
    if (data == answer.end() || !data->is_array()) {
        throw DecodingError(u"The notification service's feed answer has no list \"data\"."_s);
    }
    std::vector<NotifyFeedRow> rows;
    rows.reserve(data->size());
    for (std::size_t i = 0; i < data->size(); ++i) {
        const json& row = (*data)[i];
        if (!row.is_object()) {
            throw DecodingError(u"The notification feed's row %1 is not an object."_s.arg(i));
        }
        NotifyFeedRow decoded;
        decoded.id = requiredText(row, "id", i);
        decoded.title = requiredText(row, "title", i);
        decoded.body = requiredText(row, "body", i);
        if (const auto link = row.find("link"); link != row.end() && !link->is_null()) {
            decoded.link = requiredText(row, "link", i);
        }
        decoded.urgencyEffective = requiredText(row, "urgency_effective", i);
        decoded.createdAt = requiredText(row, "created_at", i);
        decoded.eventType = requiredText(row, "event_type", i);
        decoded.source = requiredText(row, "source", i);
        rows.push_back(std::move(decoded));
    }
    return rows;
}

Task<QByteArray> NotifyAPI::send(QString suffix, std::optional<qint64> limit,
                                 std::optional<QByteArray> body) const {
    // Copied before the first wait: the caller's value may be gone by the answer.
    const NotifyAPI api = *this;
    QUrl url = api.baseURL_;
    QString root = url.path();
    if (!root.endsWith(u'/')) {
        root += u'/';
    }
    url.setPath(root + feedPath + suffix);
    if (limit) {
        QUrlQuery query;
        query.addQueryItem(u"limit"_s, QString::number(*limit));
        url.setQuery(query);
    }

    const std::optional<QString> token = api.tokenProvider_ ? api.tokenProvider_() : std::nullopt;
    if (!token || token->isEmpty()) {
        throw HTTPFailure(401, u"No current member session"_s, url.path());
    }
    HTTPRequest request;
    request.url = url;
    request.timeout = 60;
    request.setHeader("x-session-token", token->toUtf8());
    if (body) {
        request.method = "POST";
        request.setHeader("Content-Type", "application/json");
        request.body = *body;
    }
    co_return co_await api.http_.checked(std::move(request));
}

Task<qint64> NotifyAPI::count() const {
    const QByteArray answer = co_await send(u"/count"_s, std::nullopt, std::nullopt);
    co_return decodeCount(answer);
}

qint64 NotifyAPI::decodeCount(const QByteArray& body) {
    return requiredInteger(parseObject(body, "count"), "unread", "count");
}

Task<std::vector<NotifyFeedRow>> NotifyAPI::feed(qint64 limit) const {
    const QByteArray answer = co_await send(QString(), limit, std::nullopt);
    co_return decodeFeed(answer);
}

Task<qint64> NotifyAPI::markRead(std::vector<QString> ids) const {
    if (ids.empty()) {
        co_return 0;
    }
    json list = json::array();
    for (const QString& id : ids) {
        list.push_back(id.toStdString());
    }
    const json object{{"notification_ids", std::move(list)}};
    QByteArray body = QByteArray::fromStdString(object.dump());
    const QByteArray answer = co_await send(u"/read"_s, std::nullopt, std::move(body));
    co_return requiredInteger(parseObject(answer, "read"), "marked", "read");
}

} // namespace tessel
