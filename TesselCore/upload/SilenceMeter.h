// Whether the far end of the call has been heard at all. Only the remote track
// is observed: the user's own voice says nothing about the call's audio.
#pragma once

#include <QString>

#include <span>

namespace tessel {

class SilenceMeter {
public:
    static const QString warningMessage;
    static constexpr double silenceThreshold = 30.0; // seconds

    explicit SilenceMeter(float floor) : floor_(floor) {}

    // One block of samples; a block whose RMS reaches the floor counts as sound,
    // and from then on the call has been heard for good.
    void observe(std::span<const float> samples);
    // True once `silenceThreshold` seconds passed without sound.
    bool warning(double elapsed) const;

    bool heardSound() const { return heardSound_; }
    float floor() const { return floor_; }

private:
    float floor_;
    bool heardSound_ = false;
};

} // namespace tessel
