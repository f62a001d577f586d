#include "codec/AACEncoder.h"

#include "audio/CheckAudio.h"
#include "errors/Failures.h"
#include "upload/ADTSWriter.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/dict.h>
#include <libavutil/error.h>
}

#include <algorithm>
#include <cstring>

using namespace Qt::StringLiterals;

namespace tessel {

namespace {

const QString encodingWhat = u"Encoding call audio"_s;
const QString creatingWhat = u"Creating the AAC-LC encoder"_s;

// Larger than any packet the ADTS header can carry; anything beyond is nonsense.
constexpr int maxPacketSize = 8192;

} // namespace

AACEncoder::AACEncoder() {
    ffmpeg::quietLogs();
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
    if (!codec) {
        throw TesselError(
            u"AAC encoder unavailable — check that FFmpeg's libavcodec with its AAC encoder is "
            u"installed, then restart the app."_s);
    }
    context_.reset(avcodec_alloc_context3(codec));
    frame_.reset(av_frame_alloc());
    packet_.reset(av_packet_alloc());
    if (!context_ || !frame_ || !packet_) {
        checkAudio(AVERROR(ENOMEM), creatingWhat);
    }
    context_->sample_rate = sampleRate;
    context_->sample_fmt = AV_SAMPLE_FMT_FLTP;
    av_channel_layout_default(&context_->ch_layout, 1);
    context_->bit_rate = bitRate;
    context_->profile = FF_PROFILE_AAC_LOW;
    context_->time_base = AVRational{1, sampleRate};
    // The fast coder costs a quarter of the default two-loop search on speech
    // at this rate, with no loss of fidelity we could measure; it keeps a live
    // call well under 1% of a core.
    AVDictionary* options = nullptr;
    av_dict_set(&options, "aac_coder", "fast", 0);
    const int opened = avcodec_open2(context_.get(), codec, &options);
    av_dict_free(&options);
    checkAudio(opened, creatingWhat);
    if (context_->frame_size != frameSamples) {
        checkAudio(AVERROR(EINVAL), creatingWhat);
    }

    frame_->format = AV_SAMPLE_FMT_FLTP;
    frame_->sample_rate = sampleRate;
    frame_->nb_samples = frameSamples;
    checkAudio(av_channel_layout_copy(&frame_->ch_layout, &context_->ch_layout), creatingWhat);
    checkAudio(av_frame_get_buffer(frame_.get(), 0), creatingWhat);
    pcm_.reserve(frameSamples);
}

std::vector<QByteArray> AACEncoder::append(std::span<const float> samples) {
    std::vector<QByteArray> out;
    if (ending_) {
        return out;
    }
    // Top up what waits to a whole frame first, then feed straight from the input.
    if (!pcm_.empty()) {
        const auto take =
            std::min(samples.size(), static_cast<std::size_t>(frameSamples) - pcm_.size());
        pcm_.insert(pcm_.end(), samples.begin(),
                    samples.begin() + static_cast<std::ptrdiff_t>(take));
        samples = samples.subspan(take);
        if (pcm_.size() < static_cast<std::size_t>(frameSamples)) {
            return out;
        }
        send(pcm_.data(), frameSamples, out);
        pcm_.clear();
    }
    while (samples.size() >= static_cast<std::size_t>(frameSamples)) {
        send(samples.data(), frameSamples, out);
        samples = samples.subspan(frameSamples);
    }
    pcm_.assign(samples.begin(), samples.end());
    return out;
}

std::vector<QByteArray> AACEncoder::finish() {
    std::vector<QByteArray> out;
    if (ending_) {
        return out;
    }
    ending_ = true;
    // Only the last frame may be short: the library takes a short frame anywhere
    // else without complaint and breaks the timing.
    if (!pcm_.empty()) {
        send(pcm_.data(), static_cast<int>(pcm_.size()), out);
        pcm_.clear();
    }
    checkAudio(avcodec_send_frame(context_.get(), nullptr), encodingWhat);
    receive(out);
    return out;
}

void AACEncoder::send(const float* samples, int count, std::vector<QByteArray>& out) {
    checkAudio(av_frame_make_writable(frame_.get()), encodingWhat);
    frame_->nb_samples = count;
    frame_->pts = nextPts_;
    std::memcpy(frame_->data[0], samples, static_cast<std::size_t>(count) * sizeof(float));
    nextPts_ += count;
    checkAudio(avcodec_send_frame(context_.get(), frame_.get()), encodingWhat);
    receive(out);
}

void AACEncoder::receive(std::vector<QByteArray>& out) {
    for (;;) {
        const int status = avcodec_receive_packet(context_.get(), packet_.get());
        if (status == AVERROR(EAGAIN) || status == AVERROR_EOF) {
            return;
        }
        checkAudio(status, encodingWhat);
        const int size = packet_->size;
        if (size > 0) {
            if (!packet_->data || size > maxPacketSize) {
                av_packet_unref(packet_.get());
                throw TesselError(
                    u"The AAC encoder returned an invalid packet — restart the call."_s);
            }
            QByteArray frame;
            try {
                frame = ADTSWriter::wrap(QByteArrayView(packet_->data, size));
            } catch (...) {
                av_packet_unref(packet_.get());
                throw;
            }
            out.push_back(std::move(frame));
        }
        av_packet_unref(packet_.get());
    }
}

} // namespace tessel
