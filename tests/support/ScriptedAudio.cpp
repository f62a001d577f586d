#include "support/ScriptedAudio.h"

#include "upload/ADTSWriter.h"

namespace tessel::test {

QByteArray adtsFrames(int frames, int payloadSize, char fill) {
    QByteArray out;
    for (int i = 0; i < frames; ++i) {
        out.append(ADTSWriter::wrap(QByteArray(payloadSize, fill)));
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

Task<void> ScriptedAudio::prepare() {
    ++control_->prepared;
    if (control_->prepareFailure) {
        std::rethrow_exception(control_->prepareFailure);
    }
    co_return;
}

} // namespace tessel::test
