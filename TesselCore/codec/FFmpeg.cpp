#include "codec/FFmpeg.h"

extern "C" {
#include <libavutil/log.h>
}

#include <mutex>

namespace tessel::ffmpeg {

void quietLogs() {
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_level(AV_LOG_ERROR); });
}

} // namespace tessel::ffmpeg
