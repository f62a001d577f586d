#include "audio/PCMBuffer.h"

namespace tessel {

int PCMFormat::bytesPerSample() const {
    switch (sample) {
    case SampleType::u8:
        return 1;
    case SampleType::s16:
        return 2;
    case SampleType::s32:
    case SampleType::f32:
        return 4;
    case SampleType::f64:
        return 8;
    }
    return 4;
}

PCMBuffer::PCMBuffer(const PCMFormat& format, std::int64_t frames)
    : format_(format), frames_(frames),
      bytes_(new std::byte[PCMView{format, frames, {}}.planeBytes() *
                           static_cast<std::size_t>(format.planes())]()) {}

PCMView PCMBuffer::view() const {
    PCMView view{format_, frames_, {}};
    const std::size_t size = view.planeBytes();
    for (int index = 0; index < format_.planes() && index < PCMFormat::maxChannels; ++index) {
        view.planes[static_cast<std::size_t>(index)] =
            bytes_.get() + static_cast<std::size_t>(index) * size;
    }
    return view;
}

} // namespace tessel
