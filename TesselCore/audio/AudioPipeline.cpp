#include "audio/AudioPipeline.h"

#include "audio/Codec.h"
#include "errors/Failures.h"
#include "upload/Segmenter.h"

#include <cstring>
#include <new>

using namespace Qt::StringLiterals;

namespace tessel {

const QString AudioPipeline::overflowMessage =
    u"Audio encoding cannot keep up — stop and save this call, close busy applications, then "
    u"start another call."_s;
const QString AudioPipeline::copyFailedMessage =
    u"Could not copy incoming audio — stop and save the call, then free memory."_s;

namespace {

std::size_t indexOf(AudioChannel channel) {
    return channel == AudioChannel::local ? 0 : 1;
}

QString describe(const std::exception_ptr& failure) {
    return describeFailure(failure, u"Encoding call audio failed — start a new call."_s);
}

} // namespace

struct AudioPipeline::Channel {
    Channel(AudioChannel channel, const CodecModule& codec)
        : encoder(codec.encoder()), resampler(codec.converter()),
          segmenter(channel, segmentDuration) {}

    std::unique_ptr<AudioEncoder> encoder;
    std::unique_ptr<AudioConverter> resampler;
    Segmenter segmenter;
    std::optional<double> lastInput; // uptime of the last converted buffer
};

// A private copy of one buffer and where it came from, in one allocation: the
// header, then the planes one after the other. The source's memory may be valid
// only during its callback; this copy belongs to the pipeline alone.
class alignas(16) AudioPipeline::BufferJob final : public SerialQueue::Job {
public:
    static BufferJob* copy(AudioPipeline& pipeline, const PCMView& source,
                           AudioChannel channel) noexcept {
        const int planes = std::min(source.format.planes(), PCMFormat::maxChannels);
        const std::size_t planeBytes = source.frames > 0 ? source.planeBytes() : 0;
        constexpr std::size_t limit = std::size_t{1} << 31; // far beyond any device's buffer
        if (planes < 0 || planeBytes > limit / static_cast<std::size_t>(std::max(planes, 1))) {
            return nullptr;
        }
        // A block the encoding thread gave back is reused; only a new stream, a
        // larger buffer or a backlog allocates.
        const std::size_t wanted =
            sizeof(BufferJob) + planeBytes * static_cast<std::size_t>(planes);
        std::size_t size = wanted;
        void* memory = pipeline.recyclers_[indexOf(channel)].take(wanted, size);
        if (!memory) {
            size = wanted;
            memory = ::operator new(wanted, std::nothrow);
        }
        if (!memory) {
            return nullptr;
        }
        auto* job = new (memory) BufferJob(pipeline, source, channel, planeBytes, size);
        for (int plane = 0; plane < planes; ++plane) {
            std::byte* target = job->bytes() + static_cast<std::size_t>(plane) * planeBytes;
            if (const std::byte* data = source.planes[static_cast<std::size_t>(plane)]) {
                std::memcpy(target, data, planeBytes);
            } else {
                std::memset(target, 0, planeBytes); // a hole in the source: silence
            }
        }
        return job;
    }

    // The block goes back to the channel's audio thread.
    static void operator delete(BufferJob* job, std::destroying_delete_t) {
        BlockRecycler& recycler = job->pipeline_.recyclers_[indexOf(job->channel)];
        const std::size_t size = job->blockSize_;
        job->~BufferJob();
        if (!recycler.give(job, size)) {
            ::operator delete(static_cast<void*>(job));
        }
    }

    void run() noexcept override { pipeline_.process(*this); }

    PCMView view() const {
        PCMView view{format, std::max<std::int64_t>(frames, 0), {}};
        const int planes = std::min(format.planes(), PCMFormat::maxChannels);
        for (int plane = 0; plane < planes; ++plane) {
            view.planes[static_cast<std::size_t>(plane)] =
                bytes() + static_cast<std::size_t>(plane) * planeBytes_;
        }
        return view;
    }

    const AudioChannel channel;
    double arrival = 0;

private:
    BufferJob(AudioPipeline& pipeline, const PCMView& source, AudioChannel channel,
              std::size_t planeBytes, std::size_t blockSize)
        : channel(channel), pipeline_(pipeline), format(source.format), frames(source.frames),
          planeBytes_(planeBytes), blockSize_(blockSize) {}

    std::byte* bytes() const {
        return reinterpret_cast<std::byte*>(const_cast<BufferJob*>(this + 1));
    }

    AudioPipeline& pipeline_;
    const PCMFormat format;
    const std::int64_t frames;
    const std::size_t planeBytes_;
    const std::size_t blockSize_;
};

AudioPipeline::AudioPipeline(Options options) : options_(std::move(options)) {}

AudioPipeline::~AudioPipeline() = default;

void AudioPipeline::start() {
    queue_.sync([this] {
        if (epoch_ || finished_) {
            return;
        }
        // Both encoders or neither: a failure leaves the pipeline as it was.
        std::shared_ptr<CodecModule> codec = CodecModule::acquire();
        std::array<std::unique_ptr<Channel>, 2> made;
        for (const AudioChannel channel : allChannels) {
            made[indexOf(channel)] = std::make_unique<Channel>(channel, *codec);
        }
        codec_ = std::move(codec);
        channels_ = std::move(made);
        epoch_ = options_.now();
        active_ = true;
        if (options_.timer) {
            queue_.setTimer(tickPeriod, [this] { tickOnQueue(); });
        }
    });
}

void AudioPipeline::receive(const PCMView& buffer, AudioChannel channel) noexcept {
    {
        std::unique_lock lock(backlogMutex_);
        if (backlog_ >= backlogLimit) {
            const bool reported = std::exchange(overflowReported_, true);
            lock.unlock();
            if (!reported) {
                report(overflowMessage);
            }
            return;
        }
        ++backlog_;
    }
    BufferJob* job = BufferJob::copy(*this, buffer, channel);
    if (!job) {
        {
            std::lock_guard lock(backlogMutex_);
            --backlog_;
        }
        report(copyFailedMessage);
        return;
    }
    job->arrival = options_.now();
    queue_.post(job);
}

void AudioPipeline::process(const BufferJob& job) noexcept {
    // Buffers before `start`, or copied just before it, only pass through the count.
    if (active_ && epoch_ && job.arrival >= *epoch_) {
        Channel& state = *channels_[indexOf(job.channel)];
        try {
            const std::vector<float> samples = state.resampler->convert(job.view());
            state.lastInput = job.arrival;
            if (job.channel == AudioChannel::remote) {
                meter_.observe(samples);
            }
            // Every frame of one buffer sits on the grid at that buffer's arrival.
            const double elapsed = job.arrival - *epoch_;
            for (const QByteArray& frame : state.encoder->append(samples)) {
                for (AudioSegment& segment : state.segmenter.append(frame, elapsed)) {
                    events_.push(std::move(segment));
                }
            }
        } catch (...) {
            fail(std::current_exception());
        }
    }
    std::lock_guard lock(backlogMutex_);
    --backlog_;
}

// From here on buffers are dropped and ticks do nothing; `finish` still
// recovers what was framed.
void AudioPipeline::fail(const std::exception_ptr& failure) {
    active_ = false;
    report(describe(failure));
}

void AudioPipeline::report(const QString& message) noexcept {
    try {
        events_.push(CaptureFailure{message});
    } catch (...) {
        // Out of memory on an audio thread: the failure cannot be told.
    }
}

double AudioPipeline::lastInput(AudioChannel channel) const {
    const auto& state = channels_[indexOf(channel)];
    return state && state->lastInput ? *state->lastInput : 0.0;
}

qint64 AudioPipeline::backlog() const {
    std::lock_guard lock(backlogMutex_);
    return backlog_;
}

void AudioPipeline::tick() {
    queue_.sync([this] { tickOnQueue(); });
}

void AudioPipeline::tickOnQueue() {
    if (!active_ || !epoch_) {
        return;
    }
    const double uptime = options_.now();
    const double elapsed = uptime - *epoch_;
    for (const AudioChannel channel : allChannels) {
        for (AudioSegment& segment : channels_[indexOf(channel)]->segmenter.advance(elapsed)) {
            events_.push(std::move(segment));
        }
    }
    events_.push(MeterReading{elapsed, uptime - lastInput(AudioChannel::local) < aliveSpan,
                              uptime - lastInput(AudioChannel::remote) < aliveSpan,
                              meter_.warning(elapsed)});
}

void AudioPipeline::finish() {
    queue_.sync([this] { finishOnQueue(); });
}

void AudioPipeline::finishOnQueue() {
    queue_.cancelTimer();
    if (finished_) {
        return;
    }
    finished_ = true;
    if (!epoch_) {
        active_ = false;
        events_.finish();
        return;
    }
    for (const AudioChannel channel : allChannels) {
        Channel& state = *channels_[indexOf(channel)];
        try {
            std::vector<QByteArray> frames = state.encoder->append(state.resampler->finish());
            for (QByteArray& frame : state.encoder->finish()) {
                frames.push_back(std::move(frame));
            }
            for (const QByteArray& frame : frames) {
                for (AudioSegment& segment :
                     state.segmenter.append(frame, options_.now() - *epoch_)) {
                    events_.push(std::move(segment));
                }
            }
        } catch (...) {
            report(describe(std::current_exception()));
        }
        // Also after a failure: what was already framed is never lost.
        if (auto segment = state.segmenter.finish()) {
            events_.push(std::move(*segment));
        }
    }
    active_ = false;
    events_.finish();
}

} // namespace tessel
