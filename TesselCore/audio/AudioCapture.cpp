#include "audio/AudioCapture.h"

#include "audio/CheckAudio.h"
#include "errors/Failures.h"

#include <QCoroFuture>
#include <QFuture>
#include <QPromise>

#include <pulse/pulseaudio.h>

#include <optional>
#include <string>

using namespace Qt::StringLiterals;

namespace tessel {

namespace {

const QString noServerMessage = u"No sound server is running — start PulseAudio or PipeWire's "
                                u"pulse server, then retry."_s;
const QString noMicrophoneMessage = u"No microphone input is available — select a microphone as "
                                    u"the input device in the desktop's sound settings, then "
                                    u"retry."_s;
const QString noAnswerMessage = u"The sound server did not answer — restart PulseAudio or "
                                u"PipeWire's pulse server, then retry."_s;
const QString noSinkReason = u"There is no default output device to record from — choose an "
                             u"output device in the sound settings, then retry."_s;

QString noMonitorReason(const std::string& sink) {
    return u"The default output %1 has no monitor to record from — choose another output device "
           u"in the sound settings, then retry."_s.arg(QString::fromStdString(sink));
}

QString wrongDeviceReason(const char* recorded, const std::string& wanted) {
    return u"The sound server recorded %1 instead of %2 — choose another output device in the "
           u"sound settings, then retry."_s.arg(QString::fromUtf8(recorded ? recorded : "nothing"),
                                                QString::fromStdString(wanted));
}

// Without a fragment size the monitor arrives in bursts of two seconds. Each
// fragment costs a round of wake-ups and protocol messages in two threads: a
// live call measured 2.3-2.8% of a core at 20 ms, 1.6-1.9% at 50 ms, and a
// fifth less again at 100 ms, one fragment a meter tick.
constexpr pa_usec_t fragmentUsec = 100 * PA_USEC_PER_MSEC;
// A server that takes longer than this to bring both streams up is stuck.
constexpr pa_usec_t bringUpUsec = 10 * PA_USEC_PER_SEC;

// The server's status for a failed call, before it becomes the words of its step.
struct PulseFailure {
    int error;
};
struct TimedOut {};

int errorOf(pa_context* context) {
    const int error = context ? pa_context_errno(context) : 0;
    return error != 0 ? error : PA_ERR_UNKNOWN;
}

class LoopLock {
public:
    explicit LoopLock(pa_threaded_mainloop* loop) : loop_(loop) { pa_threaded_mainloop_lock(loop); }
    ~LoopLock() { pa_threaded_mainloop_unlock(loop_); }
    LoopLock(const LoopLock&) = delete;
    LoopLock& operator=(const LoopLock&) = delete;

private:
    pa_threaded_mainloop* loop_;
};

void release(pa_operation* operation) {
    if (operation) {
        pa_operation_unref(operation);
    }
}

// Formats the pipeline reads directly; for any other the server converts to float.
PCMFormat formatFor(pa_sample_spec& sampleSpec) {
    PCMFormat format{SampleType::f32, false, static_cast<int>(sampleSpec.rate),
                     sampleSpec.channels};
    switch (sampleSpec.format) {
    case PA_SAMPLE_U8:
        format.sample = SampleType::u8;
        break;
    case PA_SAMPLE_S16NE:
        format.sample = SampleType::s16;
        break;
    case PA_SAMPLE_S32NE:
        format.sample = SampleType::s32;
        break;
    default:
        sampleSpec.format = PA_SAMPLE_FLOAT32NE;
        break;
    }
    return format;
}

struct SourceDetails {
    pa_sample_spec sampleSpec;
    pa_channel_map map;
};

struct ServerNames {
    std::string defaultSink;
    std::string defaultSource;
};

} // namespace

struct AudioCapture::Pulse {
    // One record stream and all its read callback needs, fixed before it connects.
    struct Source {
        AudioPipeline* pipeline = nullptr;
        AudioChannel channel = AudioChannel::local;
        pa_stream* stream = nullptr;
        PCMFormat format;
        std::size_t frameBytes = 1;
    };

    template <typename Result> struct Query {
        explicit Query(Pulse* owner) : pulse(owner) {}
        Pulse* pulse;
        std::optional<Result> result;
        bool done = false;
    };

    QByteArray server;
    pa_threaded_mainloop* loop = nullptr;
    // Under the loop's lock from here on.
    pa_context* context = nullptr;
    pa_time_event* deadline = nullptr;
    bool timedOut = false;
    bool aborted = false;
    bool devicesTouched = false; // past connecting: a failure now stops everything
    Source local;
    Source remote;
    std::string followedSink; // the default sink whose monitor `remote` records
    std::string monitor;

    Pulse(QByteArray address, AudioPipeline& pipeline) : server(std::move(address)) {
        local.pipeline = &pipeline;
        remote.pipeline = &pipeline;
        remote.channel = AudioChannel::remote;
    }

    void startLoop() {
        loop = pa_threaded_mainloop_new();
        if (!loop) {
            throw TesselError(noServerMessage);
        }
        pa_threaded_mainloop_set_name(loop, "tessel.pulse");
        if (pa_threaded_mainloop_start(loop) < 0) {
            checkAudio(PA_ERR_INTERNAL, u"Starting the sound server connection"_s);
        }
    }

    // On the bring-up thread: the order in which a refusal of either source
    // leaves nothing running.
    void bringUp() {
        LoopLock lock(loop);
        struct Disarm {
            Pulse& pulse;
            ~Disarm() { pulse.disarm(); }
        } disarm{*this};

        try {
            connect();
        } catch (const PulseFailure& failure) {
            if (failure.error == PA_ERR_ACCESS) {
                throw AudioCaptureError::microphonePermissionDenied();
            }
            if (failure.error == PA_ERR_CONNECTIONREFUSED) {
                throw TesselError(noServerMessage);
            }
            checkAudio(failure.error, u"Connecting to the sound server"_s);
        } catch (const TimedOut&) {
            throw TesselError(noAnswerMessage);
        }
        devicesTouched = true;

        ServerNames names;
        try {
            names = serverNames();
            const auto details =
                names.defaultSource.empty() ? std::nullopt : sourceInfo(names.defaultSource);
            if (!details || details->sampleSpec.rate == 0 || details->sampleSpec.channels == 0) {
                throw TesselError(noMicrophoneMessage);
            }
            // No device name: the stream follows the default source when it changes.
            openStream(local, "Velmora Tessel microphone", *details, nullptr);
        } catch (const PulseFailure& failure) {
            if (failure.error == PA_ERR_ACCESS) {
                throw AudioCaptureError::microphonePermissionDenied();
            }
            checkAudio(failure.error, u"Starting the microphone"_s);
        } catch (const TimedOut&) {
            throw TesselError(noAnswerMessage);
        }

        try {
            startSystemAudio(names.defaultSink);
        } catch (const PulseFailure& failure) {
            throw AudioCaptureError::systemAudioStartFailed(
                textOf(failure.error, u"Starting system audio capture"_s));
        } catch (const TimedOut&) {
            throw AudioCaptureError::systemAudioStartFailed(noAnswerMessage);
        }
    }

    static QString textOf(int error, const QString& what) {
        try {
            checkAudio(error, what);
        } catch (const TesselError& failure) {
            return failure.message();
        }
        return {};
    }

    void connect() {
        pa_proplist* properties = pa_proplist_new();
        pa_proplist_sets(properties, PA_PROP_APPLICATION_NAME, "Velmora Tessel");
        pa_proplist_sets(properties, PA_PROP_APPLICATION_ID, "ai.velmora.tessel");
        context =
            pa_context_new_with_proplist(pa_threaded_mainloop_get_api(loop), nullptr, properties);
        pa_proplist_free(properties);
        if (!context) {
            throw PulseFailure{PA_ERR_INTERNAL};
        }
        pa_context_set_state_callback(context, &Pulse::signal, this);
        deadline = pa_context_rttime_new(context, pa_rtclock_now() + bringUpUsec,
                                         &Pulse::onDeadline, this);
        // Never start a server of our own: a capture without one fails in words.
        if (pa_context_connect(context, server.isEmpty() ? nullptr : server.constData(),
                               PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
            throw PulseFailure{errorOf(context)};
        }
        // A refused cookie arrives later, as FAILED; `wait` looks at that each pass.
        wait([this] { return pa_context_get_state(context) == PA_CONTEXT_READY; });
    }

    void startSystemAudio(const std::string& sink) {
        // Not "@DEFAULT_MONITOR@": PipeWire's pulse server takes that for the
        // default source, the microphone, without a word.
        if (sink.empty()) {
            throw AudioCaptureError::systemAudioStartFailed(noSinkReason);
        }
        const auto name = monitorOf(sink);
        const auto details = name ? sourceInfo(*name) : std::nullopt;
        if (!details || details->sampleSpec.rate == 0 || details->sampleSpec.channels == 0) {
            throw AudioCaptureError::systemAudioStartFailed(noMonitorReason(sink));
        }
        openStream(remote, "Velmora Tessel call audio", *details, name->c_str());
        // PipeWire connects to another device instead of failing for a missing one.
        const char* recorded = pa_stream_get_device_name(remote.stream);
        if (!recorded || *name != recorded) {
            throw AudioCaptureError::systemAudioStartFailed(wrongDeviceReason(recorded, *name));
        }
        followedSink = sink;
        monitor = *name;
        followDefaultSink();
    }

    // Lock held, never on the loop's thread. Returns once `done` holds; throws
    // on abort, time-out or a connection gone bad.
    template <typename Done> void wait(Done done) {
        for (;;) {
            if (aborted) {
                throw Cancelled();
            }
            if (done()) {
                return;
            }
            if (timedOut) {
                throw TimedOut{};
            }
            if (!PA_CONTEXT_IS_GOOD(pa_context_get_state(context))) {
                throw PulseFailure{errorOf(context)};
            }
            pa_threaded_mainloop_wait(loop);
        }
    }

    template <typename Result> void run(pa_operation* operation, Query<Result>& query) {
        if (!operation) {
            throw PulseFailure{errorOf(context)};
        }
        try {
            wait([&query] { return query.done; });
        } catch (...) {
            // Its callback must not run into `query` once this frame is gone.
            pa_operation_cancel(operation);
            pa_operation_unref(operation);
            throw;
        }
        pa_operation_unref(operation);
    }

    ServerNames serverNames() {
        Query<ServerNames> query(this);
        run(pa_context_get_server_info(
                context,
                [](pa_context*, const pa_server_info* info, void* data) {
                    auto* query = static_cast<Query<ServerNames>*>(data);
                    if (info) {
                        query->result =
                            ServerNames{info->default_sink_name ? info->default_sink_name : "",
                                        info->default_source_name ? info->default_source_name : ""};
                    }
                    query->done = true;
                    pa_threaded_mainloop_signal(query->pulse->loop, 0);
                },
                &query),
            query);
        if (!query.result) {
            throw PulseFailure{errorOf(context)};
        }
        return *query.result;
    }

    // None when the server does not know the source.
    std::optional<SourceDetails> sourceInfo(const std::string& name) {
        Query<SourceDetails> query(this);
        run(pa_context_get_source_info_by_name(
                context, name.c_str(),
                [](pa_context*, const pa_source_info* info, int last, void* data) {
                    auto* query = static_cast<Query<SourceDetails>*>(data);
                    if (last == 0 && info) {
                        query->result = SourceDetails{info->sample_spec, info->channel_map};
                        return; // the end comes as a call of its own
                    }
                    query->done = true;
                    pa_threaded_mainloop_signal(query->pulse->loop, 0);
                },
                &query),
            query);
        return query.result;
    }

    // None when the sink is unknown or has no monitor.
    std::optional<std::string> monitorOf(const std::string& sink) {
        Query<std::string> query(this);
        run(pa_context_get_sink_info_by_name(
                context, sink.c_str(),
                [](pa_context*, const pa_sink_info* info, int last, void* data) {
                    auto* query = static_cast<Query<std::string>*>(data);
                    if (last == 0 && info) {
                        if (info->monitor_source_name && *info->monitor_source_name) {
                            query->result = std::string(info->monitor_source_name);
                        }
                        return;
                    }
                    query->done = true;
                    pa_threaded_mainloop_signal(query->pulse->loop, 0);
                },
                &query),
            query);
        return query.result;
    }

    void openStream(Source& source, const char* name, const SourceDetails& details,
                    const char* device) {
        pa_sample_spec sampleSpec = details.sampleSpec;
        source.format = formatFor(sampleSpec);
        source.frameBytes = pa_frame_size(&sampleSpec);
        const bool mapFits =
            pa_channel_map_valid(&details.map) && details.map.channels == sampleSpec.channels;
        source.stream = pa_stream_new(context, name, &sampleSpec, mapFits ? &details.map : nullptr);
        if (!source.stream) {
            throw PulseFailure{errorOf(context)};
        }
        // A removed device ends as FAILED; the state is watched on every stream.
        pa_stream_set_state_callback(source.stream, &Pulse::onStreamState, this);
        pa_stream_set_read_callback(source.stream, &Pulse::onRead, &source);
        pa_buffer_attr attributes;
        attributes.maxlength = static_cast<std::uint32_t>(-1);
        attributes.tlength = static_cast<std::uint32_t>(-1);
        attributes.prebuf = static_cast<std::uint32_t>(-1);
        attributes.minreq = static_cast<std::uint32_t>(-1);
        attributes.fragsize =
            static_cast<std::uint32_t>(pa_usec_to_bytes(fragmentUsec, &sampleSpec));
        if (pa_stream_connect_record(source.stream, device, &attributes, PA_STREAM_ADJUST_LATENCY) <
            0) {
            throw PulseFailure{errorOf(context)};
        }
        wait([this, &source] {
            const pa_stream_state_t state = pa_stream_get_state(source.stream);
            if (!PA_STREAM_IS_GOOD(state)) {
                throw PulseFailure{errorOf(context)};
            }
            return state == PA_STREAM_READY;
        });
    }

    // A monitor recorded by name stays on its sink; when the user picks another
    // output, move to its monitor so that the call's audio is still heard.
    void followDefaultSink() {
        pa_context_set_subscribe_callback(context, &Pulse::onServerEvent, this);
        release(pa_context_subscribe(context, PA_SUBSCRIPTION_MASK_SERVER, nullptr, nullptr));
    }

    static void onServerEvent(pa_context* context, pa_subscription_event_type_t type, uint32_t,
                              void* data) {
        if ((type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK) == PA_SUBSCRIPTION_EVENT_SERVER) {
            release(pa_context_get_server_info(context, &Pulse::onFollowServer, data));
        }
    }

    static void onFollowServer(pa_context* context, const pa_server_info* info, void* data) {
        auto* pulse = static_cast<Pulse*>(data);
        if (!info || !info->default_sink_name || !pulse->remote.stream ||
            pulse->followedSink == info->default_sink_name) {
            return;
        }
        pulse->followedSink = info->default_sink_name;
        release(pa_context_get_sink_info_by_name(context, info->default_sink_name,
                                                 &Pulse::onFollowSink, data));
    }

    static void onFollowSink(pa_context* context, const pa_sink_info* info, int last, void* data) {
        auto* pulse = static_cast<Pulse*>(data);
        if (last != 0 || !info || !info->monitor_source_name || !pulse->remote.stream ||
            pulse->monitor == info->monitor_source_name) {
            return;
        }
        pulse->monitor = info->monitor_source_name;
        release(pa_context_move_source_output_by_name(context,
                                                      pa_stream_get_index(pulse->remote.stream),
                                                      info->monitor_source_name, nullptr, nullptr));
    }

    // The loop's thread, lock held, both streams. Only the hand-over to the
    // pipeline: no logging, no Qt, no allocation beyond the pipeline's one copy.
    static void onRead(pa_stream* stream, size_t, void* data) {
        const auto& source = *static_cast<const Source*>(data);
        for (;;) {
            const void* bytes = nullptr;
            size_t size = 0;
            if (pa_stream_peek(stream, &bytes, &size) < 0 || size == 0) {
                return;
            }
            // No data with a size is a hole: the pipeline makes it silence.
            source.pipeline->receive(
                PCMView::interleaved(source.format, bytes,
                                     static_cast<std::int64_t>(size / source.frameBytes)),
                source.channel);
            pa_stream_drop(stream); // the memory dies here
        }
    }

    static void onStreamState(pa_stream*, void* data) {
        pa_threaded_mainloop_signal(static_cast<Pulse*>(data)->loop, 0);
    }

    static void signal(pa_context*, void* data) {
        pa_threaded_mainloop_signal(static_cast<Pulse*>(data)->loop, 0);
    }

    static void onDeadline(pa_mainloop_api*, pa_time_event*, const struct timeval*, void* data) {
        auto* pulse = static_cast<Pulse*>(data);
        pulse->timedOut = true;
        pa_threaded_mainloop_signal(pulse->loop, 0);
    }

    // Lock held.
    void disarm() {
        if (deadline) {
            pa_threaded_mainloop_get_api(loop)->time_free(deadline);
            deadline = nullptr;
        }
    }

    // Any thread but the loop's. Ends the waits of a bring-up in progress.
    void abort() {
        if (!loop) {
            return;
        }
        LoopLock lock(loop);
        aborted = true;
        pa_threaded_mainloop_signal(loop, 0);
    }

    // An order that also holds when the server has died: streams, then the
    // connection, under the lock; then the loop's thread ends; the callbacks'
    // data goes only with this object, after that.
    void teardown() {
        if (!loop) {
            return;
        }
        {
            LoopLock lock(loop);
            for (Source* source : {&local, &remote}) {
                if (source->stream) {
                    pa_stream_set_read_callback(source->stream, nullptr, nullptr);
                    pa_stream_set_state_callback(source->stream, nullptr, nullptr);
                    pa_stream_set_moved_callback(source->stream, nullptr, nullptr);
                    pa_stream_set_overflow_callback(source->stream, nullptr, nullptr);
                    pa_stream_disconnect(source->stream);
                    pa_stream_unref(source->stream);
                    source->stream = nullptr;
                }
            }
            disarm();
            if (context) {
                pa_context_set_state_callback(context, nullptr, nullptr);
                pa_context_set_subscribe_callback(context, nullptr, nullptr);
                pa_context_disconnect(context);
                pa_context_unref(context);
                context = nullptr;
            }
        }
        pa_threaded_mainloop_stop(loop);
        pa_threaded_mainloop_free(loop);
        loop = nullptr;
    }
};

AudioCapture::AudioCapture(Options options)
    : options_(std::move(options)), pipeline_(std::make_unique<AudioPipeline>(options_.pipeline)) {}

AudioCapture::~AudioCapture() {
    stop();
}

Task<void> AudioCapture::prepare() {
    if (finished_) {
        throw Cancelled();
    }
    if (prepared_) {
        co_return;
    }
    prepared_ = true;
    const std::weak_ptr<int> alive = lifetime_;

    pulse_ = std::make_unique<Pulse>(options_.server.toUtf8(), *pipeline_);
    try {
        pulse_->startLoop();
    } catch (...) {
        pulse_->teardown();
        throw;
    }
    // The waits for the server run on a thread of their own, so the main loop
    // goes on meanwhile.
    QPromise<void> promise;
    QFuture<void> done = promise.future();
    promise.start();
    bringUp_ = std::thread([pulse = pulse_.get(), promise = std::move(promise)]() mutable {
        try {
            pulse->bringUp();
        } catch (...) {
            promise.setException(std::current_exception());
        }
        promise.finish();
    });

    std::exception_ptr failure;
    try {
        co_await done;
    } catch (...) {
        failure = std::current_exception();
    }
    if (alive.expired()) {
        // Destroyed meanwhile; its `stop` already ended the bring-up.
        if (failure) {
            std::rethrow_exception(failure);
        }
        co_return;
    }
    if (bringUp_.joinable()) {
        bringUp_.join();
    }
    if (failure) {
        if (pulse_->devicesTouched) {
            stop();
        } else {
            pulse_->teardown();
        }
        std::rethrow_exception(failure);
    }
}

void AudioCapture::begin() {
    pipeline_->start();
}

void AudioCapture::stop() {
    if (finished_) {
        return;
    }
    finished_ = true;
    if (pulse_) {
        pulse_->abort();
    }
    if (bringUp_.joinable()) {
        bringUp_.join();
    }
    // Sources first: `finish` runs behind everything they handed over.
    if (pulse_) {
        pulse_->teardown();
    }
    pipeline_->finish();
}

CaptureSession::MakeAudio defaultAudioMaker() {
    return [] { return std::make_unique<AudioCapture>(); };
}

} // namespace tessel
