// The notification service's feed and unread count.
#include "FuzzInput.h"

#include "net/InternetDate.h"
#include "notify/NotifyAPI.h"

using namespace tessel;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const QByteArray body = fuzz::bytes(data, size);
    try {
        for (const NotifyFeedRow& row : NotifyAPI::decodeFeed(body)) {
            (void)parseInternetDate(row.createdAt);
        }
    } catch (const DecodingError&) {
    }
    try {
        (void)NotifyAPI::decodeCount(body);
    } catch (const DecodingError&) {
    }
    return 0;
}
