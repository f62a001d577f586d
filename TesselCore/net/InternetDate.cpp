#include "net/InternetDate.h"

#include <QRegularExpression>
#include <QTimeZone>

namespace tessel {

std::optional<QDateTime> parseInternetDate(QStringView text) {
    static const QRegularExpression form(
        QStringLiteral(R"(^\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}(\.\d+)?(Z|[+-]\d{2}:\d{2})$)"));
    if (!form.match(text).hasMatch()) {
        return std::nullopt;
    }
    QDateTime parsed = QDateTime::fromString(text.toString(), Qt::ISODateWithMs);
    if (!parsed.isValid()) {
        return std::nullopt;
    }
    return parsed;
}

QString formatInternetDate(const QDateTime& instant) {
    return instant.toTimeZone(QTimeZone::utc()).toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss'Z'"));
}

} // namespace tessel
