#include "audio/Codec.h"
#include "codec/AACEncoder.h"
#include "codec/PCMResampler.h"

extern "C" const tessel::CodecFactory* tessel_codec_factory() {
    static const tessel::CodecFactory factory{
        .makeEncoder = []() -> tessel::AudioEncoder* { return new tessel::AACEncoder; },
        .makeConverter = []() -> tessel::AudioConverter* { return new tessel::PCMResampler; },
    };
    return &factory;
}
