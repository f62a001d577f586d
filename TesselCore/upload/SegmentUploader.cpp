#include "upload/SegmentUploader.h"

#include "net/HTTPFailure.h"

namespace tessel {

using namespace Qt::Literals::StringLiterals;

namespace {

const QByteArray methodPOST = QByteArrayLiteral("POST");
const QByteArray methodPUT = QByteArrayLiteral("PUT");

// Refusals that repeating won't change end the attempts at once.
bool endsAttempts(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const Cancelled&) {
        return true;
    } catch (const HTTPFailure& failure) {
        return failure.status < 500 && failure.status != 408 && failure.status != 429;
    } catch (const TesselError&) {
        return true;
    } catch (...) {
        return false;
    }
}

} // namespace

QUrl SegmentUploader::uploadURL(const JSON& answer) {
    const QUrl url(answer.requiredString(u"upload_url"_s), QUrl::StrictMode);
    if (!url.isValid() || url.scheme().isEmpty() || url.host().isEmpty()) {
        throw TesselError(
            u"The upload URL is invalid — check the storage service configuration and retry."_s);
    }
    const QString scheme = url.scheme();
    if (scheme != u"https"_s && !(scheme == u"http"_s && MeetAPI::isLoopbackHost(url.host()))) {
        throw TesselError(u"The upload URL is insecure — configure HTTPS storage and retry."_s);
    }
    if (const auto method = answer[u"method"_s].string(); method && *method != u"PUT"_s) {
        throw TesselError(
            u"The storage service did not request PUT — fix the presign method and retry."_s);
    }
    return url;
}

SegmentUploader::SegmentUploader(MeetAPI api, QString meeting, QString recording,
                                 SleepFunction sleep)
    : api_(std::move(api)), meeting_(std::move(meeting)), recording_(std::move(recording)),
      sleep_(std::move(sleep)) {}

Task<void> SegmentUploader::upload(AudioSegment segment, CancellationToken token) const {
    const SegmentUploader self = *this; // the caller's value may go while this waits
    const QString base = u"/"_s + self.meeting_ + u"/recording"_s;
    const double length = static_cast<double>(segment.bytes.size());
    // Built once: every attempt sends the same body and the same chunk id.
    const JSON::Object presignBody{
        {u"recording_id"_s, self.recording_}, {u"kind"_s, wireName(segment.channel)},
        {u"content_length"_s, length},        {u"chunk_uuid"_s, segment.chunkText()},
        {u"content_type"_s, u"audio/aac"_s},
    };

    for (int attempt = 1;; ++attempt) {
        std::exception_ptr failure;
        try {
            token.check();
            const JSON presigned =
                co_await self.api_.call(base + u"/presign"_s, methodPOST, presignBody, token);
            if (presigned[u"state"_s].string() == u"completed"_s) {
                co_return;
            }
            const QString segmentID = presigned.requiredString(u"segment_id"_s);
            HTTPRequest put;
            put.url = uploadURL(presigned);
            put.method = methodPUT;
            put.timeout = 60;
            put.body = segment.bytes;
            put.setHeader("Content-Type", "audio/aac");
            co_await self.api_.http().checked(std::move(put), token);

            JSON::Object completeBody{{u"segment_id"_s, segmentID}, {u"content_length"_s, length}};
            const JSON completed = co_await self.api_.call(
                base + u"/segment-complete"_s, methodPOST, std::move(completeBody), token);
            if (completed[u"recording_state"_s].string() == u"stopped"_s) {
                throw TesselError(u"The server stopped this recording — open the call in your "
                                  u"browser to review the saved audio."_s);
            }
            co_return;
        } catch (...) {
            failure = std::current_exception();
        }
        if (endsAttempts(failure) || attempt == attempts) {
            std::rethrow_exception(failure);
        }
        co_await self.sleep_(attempt * 0.4, token);
    }
}

} // namespace tessel
