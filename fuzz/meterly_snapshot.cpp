// `meterly status --json`, also the last reading kept on disk: decoded, shown
// in words, and written back.
#include "FuzzInput.h"

#include "subscriptions/MeterlyPresentation.h"
#include "subscriptions/MeterlySnapshot.h"

#include <QLocale>
#include <QTimeZone>

using namespace tessel;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    MeterlySnapshot snapshot;
    try {
        snapshot = MeterlySnapshot::parse(QByteArrayView(data, static_cast<qsizetype>(size)));
    } catch (const DecodingError&) {
        return 0;
    }
    // What the last-reading file keeps reads back as the same reading.
    FUZZ_CHECK(MeterlySnapshot::parse(QByteArrayView(snapshot.toJSON())) == snapshot);
    const QDateTime now = QDateTime::fromSecsSinceEpoch(1700000000, Qt::UTC);
    const MeterlyPresentation shown(snapshot, now, QLocale::c(), QTimeZone::utc());
    (void)shown;
    return 0;
}
