#include "identity/UserDefaults.h"

#include <QFile>
#include <QFileInfo>
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

namespace {

const QString organisation = u"Velmora"_s;
const QString application = u"VelmoraTessel"_s;

// Earlier versions kept the organisation selection in VelmoraTessel.ini beside
// this file and only the feed's state here. The earlier file is read once: a key
// this file already holds wins, and the earlier file goes once its keys are safe.
void adoptEarlierFile(QSettings& settings) {
    const QString earlier = QFileInfo(settings.fileName()).path() + u'/' + application + u".ini"_s;
    if (!QFile::exists(earlier)) {
        return;
    }
    {
        const QSettings old(earlier, QSettings::IniFormat);
        if (old.status() != QSettings::NoError) {
            return;
        }
        for (const QString& key : old.allKeys()) {
            if (!settings.contains(key)) {
                settings.setValue(key, old.value(key));
            }
        }
    }
    settings.sync();
    if (settings.status() == QSettings::NoError) {
        QFile::remove(earlier);
    }
}

} // namespace

SettingsDefaults::SettingsDefaults()
    : settings_(std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope,
                                            organisation, application)) {
    adoptEarlierFile(*settings_);
}

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
