#include "support/ScriptedAudio.h"

namespace tessel::test {

QByteArray adtsFrames(int frames, int payloadSize, char fill) {
    QByteArray out;
    const int length = payloadSize + 7;
    for (int i = 0; i < frames; ++i) {
        const char header[7] = {
            static_cast<char>(0xFF),
            static_cast<char>(0xF1),
            static_cast<char>(0x60),
            static_cast<char>(0x40 | (length >> 11)),
            static_cast<char>((length >> 3) & 0xFF),
            static_cast<char>(((length & 7) << 5) | 0x1F),
            static_cast<char>(0xFC),
        };
        out.append(header, 7);
        out.append(QByteArray(payloadSize, fill));
    }
    return out;
}

void ScriptedAudioControl::emitSegment(AudioChannel channel, int frames) {
    auto& next = nextSequence[channel == AudioChannel::local ? 0 : 1];
    // The payload carries the sequence so a test can tell stored segments apart.
    const char fill = static_cast<char>(next & 0x7F);
    stream->push(AudioSegment{channel, next, QUuid::createUuid(), adtsFrames(frames, 90, fill)});
    ++next;
}

void ScriptedAudioControl::emitMeter(double elapsed, bool local, bool remote, bool silent) {
    stream->push(MeterReading{elapsed, local, remote, silent});
}

void ScriptedAudioControl::emitFailure(const QString& message) {
    stream->push(CaptureFailure{message});
}

ScriptedAudio::ScriptedAudio(std::shared_ptr<ScriptedAudioControl> control)
    : control_(std::move(control)) {
    control_->stream = &stream_;
    control_->alive = true;
}

ScriptedAudio::~ScriptedAudio() {
    control_->alive = false;
    control_->stream = nullptr;
}

Task<void> ScriptedAudio::prepare() {
    ++control_->prepared;
    if (control_->prepareFailure) {
        std::rethrow_exception(control_->prepareFailure);
    }
    co_return;
}

void ScriptedAudio::begin() {
    ++control_->begun;
    if (control_->beginFailure) {
        std::rethrow_exception(control_->beginFailure);
    }
}

void ScriptedAudio::stop() {
    ++control_->stopped;
    stream_.finish();
}

std::function<std::unique_ptr<CaptureAudio>()>
ScriptedAudio::maker(std::shared_ptr<ScriptedAudioControl> control) {
    return [control] { return std::make_unique<ScriptedAudio>(control); };
}

} // namespace tessel::test
