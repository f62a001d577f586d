// The encoder and the converter of a call live in a module of their own
// (libtessel-codec.so), loaded when a call starts and let go when the last call
// ends. FFmpeg and the fifty libraries it brings keep about 9 MB resident from
// the moment they are loaded, 12 MB after a call: an idle tray program should
// not carry them.
#pragma once

#include "audio/PCMBuffer.h"

#include <QByteArray>

#include <memory>
#include <span>
#include <vector>

namespace tessel {

// 16 kHz mono float samples in, ADTS frames of AAC out (see codec/AACEncoder.h).
class AudioEncoder {
public:
    virtual ~AudioEncoder() = default;
    virtual std::vector<QByteArray> append(std::span<const float> samples) = 0;
    virtual std::vector<QByteArray> finish() = 0;
};

// Any device's PCM to 16 kHz mono float (see codec/PCMResampler.h).
class AudioConverter {
public:
    virtual ~AudioConverter() = default;
    virtual std::vector<float> convert(const PCMView& buffer) = 0;
    virtual std::vector<float> finish() = 0;
};

// What the module hands out. The objects are the module's code: they must be
// gone before the module is let go.
struct CodecFactory {
    AudioEncoder* (*makeEncoder)();
    AudioConverter* (*makeConverter)();
};

class CodecModule {
public:
    // The module, loaded now or already loaded for another holder. Throws
    // TesselError when it cannot be found or loaded.
    static std::shared_ptr<CodecModule> acquire();

    ~CodecModule();
    CodecModule(const CodecModule&) = delete;
    CodecModule& operator=(const CodecModule&) = delete;

    // Both throw TesselError when the library has no encoder or cannot open it.
    std::unique_ptr<AudioEncoder> encoder() const;
    std::unique_ptr<AudioConverter> converter() const;

    CodecModule(void* handle, const CodecFactory& factory) : handle_(handle), factory_(factory) {}

private:
    void* handle_;
    const CodecFactory& factory_;
};

} // namespace tessel

// The module's one entry point.
extern "C" const tessel::CodecFactory* tessel_codec_factory();
