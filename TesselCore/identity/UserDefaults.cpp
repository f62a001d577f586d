#include "identity/UserDefaults.h"

#include <QSettings>

#include <cmath>

using namespace Qt::StringLiterals;

namespace tessel {

std::optional<QString> UserDefaults::string(const QString& key) const {
    const QVariant raw = value(key);
    if (raw.typeId() == QMetaType::QString || raw.typeId() == QMetaType::QByteArray) {
        return raw.toString();
    }
    return std::nullopt;
}

QStringList UserDefaults::stringList(const QString& key) const {
    const QVariant raw = value(key);
    if (raw.typeId() == QMetaType::QStringList) {
        return raw.toStringList();
    }
    if (raw.typeId() == QMetaType::QVariantList) {
        QStringList out;
        for (const QVariant& item : raw.toList()) {
            out << item.toString();
        }
        return out;
    }
    if (const auto one = string(key)) {
        return {*one};
    }
    return {};
}

std::optional<bool> UserDefaults::boolean(const QString& key) const {
    const QVariant raw = value(key);
    if (raw.typeId() == QMetaType::Bool) {
        return raw.toBool();
    }
    const auto text = string(key);
    if (text == u"true"_s) {
        return true;
    }
    if (text == u"false"_s) {
        return false;
    }
    return std::nullopt;
}

std::optional<double> UserDefaults::number(const QString& key) const {
    const QVariant raw = value(key);
    bool ok = false;
    double n = 0;
    if (raw.typeId() == QMetaType::QString || raw.typeId() == QMetaType::QByteArray) {
        n = raw.toString().trimmed().toDouble(&ok);
    } else if (raw.typeId() != QMetaType::Bool) {
        n = raw.toDouble(&ok);
    }
    if (!ok || !std::isfinite(n)) {
        return std::nullopt;
    }
    return n;
}

SettingsDefaults::SettingsDefaults()
    : settings_(std::make_unique<QSettings>(QSettings::IniFormat, QSettings::UserScope,
                                            u"Velmora"_s, u"VelmoraTessel"_s)) {}

SettingsDefaults::SettingsDefaults(const QString& path)
    : settings_(std::make_unique<QSettings>(path, QSettings::IniFormat)) {}

SettingsDefaults::~SettingsDefaults() = default;

QVariant SettingsDefaults::value(const QString& key) const {
    return settings_->value(key);
}

void SettingsDefaults::set(const QString& key, const QVariant& value) {
    settings_->setValue(key, value);
}

void SettingsDefaults::remove(const QString& key) {
    settings_->remove(key);
}

void SettingsDefaults::sync() {
    settings_->sync();
}

} // namespace tessel
