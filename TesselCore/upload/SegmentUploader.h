// Carries one segment to storage: presign at the meet server, PUT to the
// presigned URL, confirm. Quick retries across short outages; the patient
// retrying belongs to the queue above.
#pragma once

#include "meet/MeetAPI.h"
#include "upload/AudioSegment.h"

namespace tessel {

class SegmentUploader {
public:
    static constexpr int attempts = 3;

    SegmentUploader(MeetAPI api, QString meeting, QString recording, SleepFunction sleep);

    // Returns when the server has the segment; throws what ended the attempts.
    Task<void> upload(AudioSegment segment, CancellationToken token = {}) const;

    // Where a presign answer says to PUT: HTTPS, or HTTP on loopback only.
    // Throws TesselError for anything else.
    static QUrl uploadURL(const JSON& presigned);

private:
    MeetAPI api_;
    QString meeting_;
    QString recording_;
    SleepFunction sleep_;
};

} // namespace tessel
