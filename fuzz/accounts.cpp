// `vantor-accounts --tsv status`, and the reading made of its rows when
// `meterly` gives none, with that reading's JSON form as the last-reading
// file keeps it.
#include "FuzzInput.h"

#include "subscriptions/MeterlySnapshot.h"
#include "subscriptions/VantorAccounts.h"

#include <QTimeZone>

using namespace tessel;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const QList<VantorAccount> accounts = VantorAccountsCLI::parse(fuzz::text(data, size));
    for (const VantorAccount& account : accounts) {
        FUZZ_CHECK(!account.name.isEmpty());
    }
    const QDateTime now = QDateTime::fromSecsSinceEpoch(1700000000, Qt::UTC);
    const MeterlySnapshot reading = MeterlySnapshot::fallback(accounts, now);
    try {
        FUZZ_CHECK(MeterlySnapshot::parse(QByteArrayView(reading.toJSON())) == reading);
    } catch (const DecodingError&) {
        fuzz::broken("the reading made of the rows reads back", __FILE__, __LINE__);
    }
    ToolOutput failed{fuzz::text(data, size), fuzz::text(data, size / 2), 2};
    (void)VantorAccountsError::from(failed);
    return 0;
}
