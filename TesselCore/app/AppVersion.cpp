#include "app/AppVersion.h"

namespace tessel {

QVariantMap AppVersion::buildInfo() {
#ifdef TESSEL_VERSION
    return {{QStringLiteral("version"), QStringLiteral(TESSEL_VERSION)}};
#else
    return {};
#endif
}

QString AppVersion::shortVersion(const std::optional<QVariantMap>& info) {
    if (info) {
        const QVariant value = info->value(QStringLiteral("version"));
        if (value.typeId() == QMetaType::QString && !value.toString().trimmed().isEmpty()) {
            return value.toString();
        }
    }
    return QStringLiteral("dev");
}

QString AppVersion::shortVersion() {
    return shortVersion(buildInfo());
}

QString AppVersion::label() {
    return QStringLiteral("Velmora ") + shortVersion();
}

} // namespace tessel
