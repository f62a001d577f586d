// The meet server's answers and error bodies, read as the meet API, the
// uploader and the transport read them.
#include "FuzzInput.h"

#include "errors/ErrorPresentation.h"
#include "meet/MeetAPI.h"
#include "net/HTTPFailure.h"
#include "net/InternetDate.h"
#include "net/JSON.h"
#include "upload/SegmentUploader.h"

using namespace tessel;
using namespace Qt::StringLiterals;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const QByteArray body = fuzz::bytes(data, size);

    // Any refusal, and the words a person reads for it.
    for (const qint64 status : {302, 401, 422, 503}) {
        const HTTPFailure failure(status, HTTPFailure::bodyText(body), u"/api/v1/meetings"_s);
        const ErrorPresentation lines = ErrorPresentation::from(failure);
        FUZZ_CHECK(!lines.humanLine.isEmpty());
    }

    JSON answer;
    try {
        answer = JSON::parse(body);
    } catch (const Failure&) {
        return 0;
    }
    // What is written back reads as the same value.
    FUZZ_CHECK(JSON::parse(answer.dump()) == answer);

    const auto read = [](const auto& reader) {
        try {
            reader();
        } catch (const TesselError&) {
        }
    };
    read([&] { answer["meeting"].requiredString(u"id"_s); });
    read([&] { answer["session"].requiredString(u"id"_s); });
    read([&] { answer["recording"].requiredString(u"id"_s); });
    read([&] { MeetAPI::openCalls(answer); });
    read([&] { SegmentUploader::uploadURL(answer); });
    read([&] { answer.requiredString(u"segment_id"_s); });
    (void)answer["notice"]["version"].number();
    (void)MeetAPI::isClosedStatus(answer["status"]);
    for (const JSON& part : answer["parts"].array()) {
        (void)part["id"].string();
        (void)part["state"].string();
    }
    if (const auto text = answer["started_at"].string()) {
        (void)parseInternetDate(*text);
    }
    return 0;
}
