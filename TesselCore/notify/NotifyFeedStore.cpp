#include "notify/NotifyFeedStore.h"

#include <QSettings>

namespace tessel {

using namespace Qt::Literals::StringLiterals;

namespace {

const QString shownIDsKey = u"notifyShownIDs"_s;
const QString watermarkKey = u"notifyShownCreatedAtWatermark"_s;
const QString switchKey = u"desktopNotifications"_s;

} // namespace

// The settings file keeps no types: a list of one id is read back by a new
// process as a plain string, an empty list as nothing, false as "false".

QStringList NotifyDefaultsStore::shownIDs() const {
    const QVariant value = settings_.value(shownIDsKey);
    if (value.metaType() == QMetaType::fromType<QStringList>()) {
        return value.toStringList();
    }
    if (value.metaType() == QMetaType::fromType<QString>()) {
        return {value.toString()};
    }
    return {};
}

void NotifyDefaultsStore::setShownIDs(const QStringList& ids) {
    settings_.setValue(shownIDsKey, ids);
    settings_.sync();
}

std::optional<QDateTime> NotifyDefaultsStore::shownCreatedAtWatermark() const {
    const QVariant value = settings_.value(watermarkKey);
    if (value.metaType() != QMetaType::fromType<QDateTime>() || !value.toDateTime().isValid()) {
        return std::nullopt;
    }
    return value.toDateTime();
}

void NotifyDefaultsStore::setShownCreatedAtWatermark(const std::optional<QDateTime>& watermark) {
    if (watermark) {
        settings_.setValue(watermarkKey, watermark->toUTC());
    } else {
        settings_.remove(watermarkKey);
    }
    settings_.sync();
}

bool NotifyDefaultsStore::desktopNotifications(const QSettings& settings) {
    const QVariant value = settings.value(switchKey);
    if (value.metaType() == QMetaType::fromType<bool>()) {
        return value.toBool();
    }
    if (value.metaType() == QMetaType::fromType<QString>()) {
        return value.toString() != u"false"_s;
    }
    return true;
}

bool NotifyDefaultsStore::desktopNotifications() const {
    return desktopNotifications(settings_);
}

void NotifyDefaultsStore::setDesktopNotifications(bool on) {
    settings_.setValue(switchKey, on);
    settings_.sync();
}

} // namespace tessel
