#include "NotificationServer.h"

#include <QDBusMessage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTimer>

using namespace Qt::Literals::StringLiterals;

namespace {

QJsonObject hintValues(const QVariantMap& hints, QJsonObject& types) {
    QJsonObject values;
    for (auto it = hints.cbegin(); it != hints.cend(); ++it) {
        const QVariant& value = it.value();
        types.insert(it.key(), QString::fromLatin1(value.metaType().name()));
        // A byte would otherwise read as a character.
        values.insert(it.key(), value.metaType() == QMetaType::fromType<uchar>()
                                    ? QJsonValue(int(value.value<uchar>()))
                                    : QJsonValue::fromVariant(value));
    }
    return values;
}

} // namespace

NotificationServer::NotificationServer(QDBusConnection bus, const QString& recordPath)
    : bus_(std::move(bus)), record_(recordPath) {
    record_.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Text);
}

void NotificationServer::write(QJsonObject entry) {
    entry.insert(u"seq"_s, ++sequence_);
    record_.write(QJsonDocument(entry).toJson(QJsonDocument::Compact) + '\n');
    record_.flush();
}

bool NotificationServer::answerNow(const QString& method, QJsonObject entry,
                                   const QVariantList& answer) {
    entry.insert(u"call"_s, method);
    const auto refusal =
        refusals_.contains(method) ? refusals_.constFind(method) : refusals_.constFind(u"*"_s);
    const int wait = delays_.value(method, delays_.value(u"*"_s, 0));
    if (refusal != refusals_.cend()) {
        entry.insert(u"error"_s, refusal->name);
    }
    if (wait > 0) {
        entry.insert(u"delay_ms"_s, wait);
    }
    write(entry);
    if (refusal == refusals_.cend() && wait == 0) {
        return true;
    }
    setDelayedReply(true);
    const QDBusMessage reply = refusal != refusals_.cend()
                                   ? message().createErrorReply(refusal->name, refusal->message)
                                   : message().createReply(answer);
    QTimer::singleShot(wait, this, [this, reply] { bus_.send(reply); });
    return false;
}

QStringList NotificationServer::GetCapabilities() {
    answerNow(u"GetCapabilities"_s, {}, {capabilities_});
    return capabilities_;
}

uint NotificationServer::Notify(const QString& appName, uint replacesId, const QString& appIcon,
                                const QString& summary, const QString& body,
                                const QStringList& actions, const QVariantMap& hints,
                                int expireTimeout) {
    QJsonObject types;
    QJsonObject entry{{u"app_name"_s, appName},
                      {u"replaces_id"_s, qint64(replacesId)},
                      {u"app_icon"_s, appIcon},
                      {u"summary"_s, summary},
                      {u"body"_s, body},
                      {u"actions"_s, QJsonArray::fromStringList(actions)},
                      {u"hints"_s, hintValues(hints, types)},
                      {u"expire_timeout"_s, expireTimeout}};
    entry.insert(u"hint_types"_s, types);
    const bool refused = refusals_.contains(u"Notify"_s) || refusals_.contains(u"*"_s);
    uint id = 0;
    if (!refused) {
        // An id still open is replaced in place; any other gets a new banner.
        id = replacesId != 0 && open_.contains(replacesId) ? replacesId : nextId_++;
        open_.insert(id, summary);
        entry.insert(u"id"_s, qint64(id));
    }
    answerNow(u"Notify"_s, entry, {id});
    return id;
}

void NotificationServer::CloseNotification(uint id) {
    if (!answerNow(u"CloseNotification"_s, {{u"id"_s, qint64(id)}}, {})) {
        return;
    }
    if (open_.remove(id) > 0) {
        emit NotificationClosed(id, 3);
    }
}

QString NotificationServer::GetServerInformation(QString& vendor, QString& version,
                                                 QString& specVersion) {
    const QString name = u"velmora-notifyd"_s;
    vendor = u"Velmora"_s;
    version = u"1.0"_s;
    specVersion = u"1.2"_s;
    answerNow(u"GetServerInformation"_s, {}, {name, vendor, version, specVersion});
    return name;
}

void NotificationServer::invokeAction(uint id, const QString& key) {
    write({{u"control"_s, u"InvokeAction"_s}, {u"id"_s, qint64(id)}, {u"key"_s, key}});
    emit ActionInvoked(id, key);
}

void NotificationServer::close(uint id, uint reason) {
    write({{u"control"_s, u"Close"_s}, {u"id"_s, qint64(id)}, {u"reason"_s, qint64(reason)}});
    if (open_.remove(id) > 0) {
        emit NotificationClosed(id, reason);
    }
}

void NotificationServer::refuse(const QString& method, const QString& errorName,
                                const QString& message) {
    write({{u"control"_s, u"Refuse"_s}, {u"method"_s, method}, {u"error"_s, errorName}});
    if (errorName.isEmpty()) {
        refusals_.remove(method);
    } else {
        refusals_.insert(method, {errorName, message});
    }
}

void NotificationServer::delay(const QString& method, int milliseconds) {
    write({{u"control"_s, u"Delay"_s}, {u"method"_s, method}, {u"delay_ms"_s, milliseconds}});
    delays_.insert(method, std::max(0, milliseconds));
}

void NotificationServer::setCapabilities(const QStringList& capabilities) {
    write({{u"control"_s, u"SetCapabilities"_s},
           {u"capabilities"_s, QJsonArray::fromStringList(capabilities)}});
    capabilities_ = capabilities;
}
