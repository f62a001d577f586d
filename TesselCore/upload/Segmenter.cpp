#include "upload/Segmenter.h"

#include <cassert>
#include <cmath>

namespace tessel {

Segmenter::Segmenter(AudioChannel channel, double duration)
    : channel_(channel), duration_(duration), boundary_(duration) {
    assert(duration > 0);
}

std::vector<AudioSegment> Segmenter::advance(double elapsed) {
    if (elapsed < boundary_) {
        return {};
    }
    // One cut however many grid points were crossed: a long gap makes no empty
    // segments and spends no sequence numbers.
    boundary_ = (std::floor(elapsed / duration_) + 1) * duration_;
    std::vector<AudioSegment> cut;
    if (auto segment = finish()) {
        cut.push_back(std::move(*segment));
    }
    return cut;
}

std::vector<AudioSegment> Segmenter::append(const QByteArray& packet, double elapsed) {
    auto cut = advance(elapsed);
    data_.append(packet);
    return cut;
}

std::optional<AudioSegment> Segmenter::finish() {
    if (data_.isEmpty()) {
        return std::nullopt;
    }
    AudioSegment segment{channel_, nextSequence_, QUuid::createUuid(), std::move(data_)};
    data_ = QByteArray();
    ++nextSequence_;
    return segment;
}

} // namespace tessel
