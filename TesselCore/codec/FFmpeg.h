// Owning handles for the FFmpeg objects this folder uses, and the library's
// logging kept quiet: its failures reach us as statuses and are worded here.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libswresample/swresample.h>
}

#include <memory>

namespace tessel::ffmpeg {

struct CodecContextFree {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct FrameFree {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct PacketFree {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct SwrFree {
    void operator()(SwrContext* context) const { swr_free(&context); }
};

using CodecContext = std::unique_ptr<AVCodecContext, CodecContextFree>;
using Frame = std::unique_ptr<AVFrame, FrameFree>;
using Packet = std::unique_ptr<AVPacket, PacketFree>;
using Resampler = std::unique_ptr<SwrContext, SwrFree>;

// Once per process: only errors reach stderr.
void quietLogs();

} // namespace tessel::ffmpeg
