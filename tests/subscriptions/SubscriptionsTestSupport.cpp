#include "subscriptions/SubscriptionsTestSupport.h"

#include "net/InternetDate.h"

#include <ctime>

namespace tessel::test {

using namespace Qt::Literals::StringLiterals;

void pinLocaleAndZone() {
    qputenv("TZ", "Europe/Berlin");
    tzset();
    QLocale::setDefault(testLocale());
}

QLocale testLocale() {
    return QLocale(QLocale::English, QLocale::UnitedStates);
}

QTimeZone testZone() {
    return QTimeZone("Europe/Berlin");
}

QDateTime at(const char* internetDate) {
    return parseInternetDate(QString::fromLatin1(internetDate)).value();
}

MeterlySnapshot reading(const QStringList& seats, const QString& extra, const QString& fetchedAt) {
    return MeterlySnapshot::parse(
        uR"({"fetched_at":"%1","seats":[%2],"alerts":[],"next":{},"timeline":[]%3})"_s.arg(
            fetchedAt, seats.join(u','), extra));
}

QString seatJSON(const QString& id, const QString& provider, const QString& account,
                 const QString& extra, const QString& windows) {
    return uR"({"id":"%1","provider":"%2","provider_label":"%3","account":"%4","live":false,)"
           uR"("windows":[%5],"advice":{"verb":"ok","reason":""},"note":""%6})"_s.arg(
               id, provider,
               provider.isEmpty() ? QString() : provider.at(0).toUpper() + provider.mid(1), account,
               windows, extra);
}

} // namespace tessel::test
