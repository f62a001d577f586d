// Cuts one track's stream of ADTS frames on the grid shared by both tracks: the
// multiples of `duration` seconds since the pipeline's epoch. Frames are placed by
// their arrival, and a timer advances the grid so that a channel that has gone
// quiet still closes its segment on time.
#pragma once

#include "upload/AudioSegment.h"

#include <optional>
#include <vector>

namespace tessel {

class Segmenter {
public:
    // `duration` must be above 0.
    Segmenter(AudioChannel channel, double duration);

    // One finished ADTS frame that arrived `elapsed` seconds after the epoch. A
    // frame at or past the boundary closes the open segment and opens the next.
    std::vector<AudioSegment> append(const QByteArray& packet, double elapsed);
    // Time passed without a frame; cuts when a boundary was crossed.
    std::vector<AudioSegment> advance(double elapsed);
    // Cuts whatever is held; none when nothing is.
    std::optional<AudioSegment> finish();

    AudioChannel channel() const { return channel_; }
    double boundary() const { return boundary_; }

private:
    AudioChannel channel_;
    double duration_;
    double boundary_;
    QByteArray data_;
    qint64 nextSequence_ = 0;
};

} // namespace tessel
