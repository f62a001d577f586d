#include "upload/SilenceMeter.h"

#include <cmath>

using namespace Qt::StringLiterals;

namespace tessel {

const QString SilenceMeter::warningMessage =
    u"Not hearing the call — is the call's audio playing on this computer?"_s;

void SilenceMeter::observe(std::span<const float> samples) {
    if (samples.empty()) {
        return;
    }
    double sum = 0;
    for (const float sample : samples) {
        sum += static_cast<double>(sample * sample); // squared in float, summed in double
    }
    if (std::sqrt(sum / static_cast<double>(samples.size())) >= static_cast<double>(floor_)) {
        heardSound_ = true;
    }
}

bool SilenceMeter::warning(double elapsed) const {
    return elapsed >= silenceThreshold && !heardSound_;
}

} // namespace tessel
