#include "PulseSourceCapture.h"

#include "CaptureErrors.h"

namespace mossly::meeting {
namespace {

constexpr pa_usec_t chunkDuration = 100 * PA_USEC_PER_MSEC;
constexpr double chunkSeconds = 0.1;
constexpr std::chrono::milliseconds watchdogInterval{250};
// A removed default device: the server may name the old one as default for a moment.
constexpr std::chrono::milliseconds defaultDeviceGrace{1000};

}  // namespace

PulseSourceCapture::PulseSourceCapture(MeetingCaptureSource source, PulseCaptureOptions options)
    : source_(source), options_(std::move(options)) {}

PulseSourceCapture::~PulseSourceCapture() { stop(); }

std::expected<void, MeetingSessionError> PulseSourceCapture::start(const std::optional<QString>& deviceUID,
                                                                   ChunkHandler onChunk, FailureHandler onFailure) {
    stop();
    auto client = PulseClient::connect(options_.serverTimeout);
    if (!client) return std::unexpected(client.error());
    client_ = std::move(*client);

    client_->lock();
    deviceUID_ = source_ == MeetingCaptureSource::microphone ? deviceUID : std::nullopt;
    onChunk_ = std::move(onChunk);
    onFailure_ = std::move(onFailure);
    watchdog_.emplace(source_, options_.watchdogLimit, options_.clock, options_.speech);
    firstChunkAt_.reset();
    missingSince_.reset();
    lookAgainAt_.reset();
    lostSourceName_.clear();
    startFailure_.reset();
    active_ = starting_ = true;
    client_->setOnLost([this] { fail(captureErrors::serverStopped()); });
    // A new default device: system audio follows the default sink, the default microphone the default source.
    client_->subscribe(PA_SUBSCRIPTION_MASK_SERVER, [this](pa_subscription_event_type_t) {
        if (!active_ || deviceUID_) return;
        resolveTarget();
        // PipeWire may announce the change before its session manager has settled the new default.
        lookAgainAt_ = options_.clock() + defaultDeviceGrace / 2;
    });
    resolveTarget();
    const bool answered = client_->waitLocked([this] { return streamReady_ || startFailure_.has_value(); });
    starting_ = false;
    if (!streamReady_) {
        const MeetingSessionError error =
            startFailure_ ? *startFailure_ : (answered ? captureErrors::serverStopped() : captureErrors::serverNotAnswering());
        active_ = false;
        closeStream();
        client_->unlock();
        client_.reset();
        return std::unexpected(error);
    }
    watchdog_->started();
    client_->every(watchdogInterval, [this] { checkWatchdog(); });
    client_->unlock();
    return {};
}

void PulseSourceCapture::stop() {
    if (!client_) return;
    if (client_->inLoopThread()) {
        // From a callback: no more deliveries; the thread itself ends with the next start or the destructor.
        closeStream();
        active_ = false;
        return;
    }
    client_->lock();
    closeStream();  // delivers what is gathered
    active_ = false;
    client_->unlock();
    client_.reset();
}

QString PulseSourceCapture::recordedSourceName() const {
    if (!client_) return {};
    client_->lock();
    const QString name = stream_ ? streamSourceName_ : QString();
    client_->unlock();
    return name;
}

void PulseSourceCapture::resolveTarget() {
    const int generation = ++generation_;
    auto current = [this, generation] { return active_ && generation == generation_; };
    PulseClient* client = client_.get();
    if (deviceUID_) {
        client->requestSource(*deviceUID_, [=, this](std::optional<PulseSourceDetails> details) {
            if (!current()) return;
            if (details) useSource(*details);
            else targetMissing();
        });
        return;
    }
    client->requestDefaults([=, this](std::optional<PulseServerDefaults> defaults) {
        if (!current()) return;
        if (!defaults) return fail(captureErrors::serverStopped());
        if (source_ == MeetingCaptureSource::microphone) {
            // The fallback default source may be a monitor: that is not a microphone.
            client->requestSource(defaults->source, [=, this](std::optional<PulseSourceDetails> details) {
                if (!current()) return;
                if (details && !details->isMonitor) useSource(*details);
                else targetMissing();
            });
            return;
        }
        if (!defaults->hasOutputDevice()) return targetMissing();
        client->requestSinkMonitor(defaults->sink, [=, this](std::optional<QString> monitor) {
            if (!current()) return;
            if (!monitor || monitor->isEmpty()) return targetMissing();
            client->requestSource(*monitor, [=, this](std::optional<PulseSourceDetails> details) {
                if (!current()) return;
                if (details) useSource(*details);
                else targetMissing();
            });
        });
    });
}

MeetingSessionError PulseSourceCapture::missingTargetError() const {
    if (source_ == MeetingCaptureSource::system) return captureErrors::noSpeakers();
    return deviceUID_ ? captureErrors::microphoneGone() : captureErrors::noMicrophone();
}

void PulseSourceCapture::targetMissing() {
    // A chosen microphone that is gone stays gone; so does anything missing at start.
    if (starting_ || deviceUID_) return fail(missingTargetError());
    if (!missingSince_) missingSince_ = options_.clock();  // checkWatchdog() fails it after the grace
}

void PulseSourceCapture::useSource(const PulseSourceDetails& details) {
    if (details.name == lostSourceName_) return targetMissing();  // still named, but its stream ended
    missingSince_.reset();
    if (stream_ && details.name == streamSourceName_) return;  // the default changed, not our device
    closeStream();

    streamSpec_ = {PA_SAMPLE_FLOAT32NE, details.spec.rate, details.spec.channels};
    pa_proplist* properties = pa_proplist_new();
    pa_proplist_sets(properties, PA_PROP_MEDIA_ROLE, "production");
    const char* title = source_ == MeetingCaptureSource::system ? "Meeting system audio" : "Meeting microphone";
    pa_proplist_sets(properties, PA_PROP_MEDIA_NAME, title);
    stream_ = pa_stream_new_with_proplist(client_->context(), title, &streamSpec_, nullptr, properties);
    pa_proplist_free(properties);
    if (!stream_) return fail(captureErrors::streamFailed(pa_strerror(pa_context_errno(client_->context()))));
    pa_stream_set_state_callback(stream_, &PulseSourceCapture::streamStateChanged, this);
    pa_stream_set_read_callback(stream_, &PulseSourceCapture::streamReadable, this);

    pa_buffer_attr buffer{};
    buffer.maxlength = buffer.tlength = buffer.prebuf = buffer.minreq = uint32_t(-1);
    buffer.fragsize = uint32_t(pa_usec_to_bytes(chunkDuration, &streamSpec_));
    const auto flags = pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY | PA_STREAM_DONT_MOVE);
    streamSourceName_ = details.name;
    if (pa_stream_connect_record(stream_, details.name.toUtf8().constData(), &buffer, flags) < 0) {
        fail(captureErrors::streamFailed(pa_strerror(pa_context_errno(client_->context()))));
    }
}

void PulseSourceCapture::fail(const MeetingSessionError& error) {
    if (starting_) {
        if (!startFailure_) startFailure_ = error;
        client_->signal();
        return;
    }
    if (!active_) return;
    closeStream();
    active_ = false;
    if (onFailure_) onFailure_(error);
}

void PulseSourceCapture::closeStream() {
    emitPending();
    if (stream_) {
        pa_stream_set_state_callback(stream_, nullptr, nullptr);
        pa_stream_set_read_callback(stream_, nullptr, nullptr);
        pa_stream_disconnect(stream_);
        pa_stream_unref(stream_);
        stream_ = nullptr;
    }
    streamReady_ = false;
    streamStartTime_.reset();
    streamFrames_ = 0;
}

void PulseSourceCapture::streamStateChanged(pa_stream* stream, void* userdata) {
    auto* self = static_cast<PulseSourceCapture*>(userdata);
    switch (pa_stream_get_state(stream)) {
    case PA_STREAM_READY:
        self->streamReady_ = true;
        self->lostSourceName_.clear();
        self->client_->signal();
        break;
    case PA_STREAM_FAILED:
    case PA_STREAM_TERMINATED:
        // The device went away (or the server did): look again for what to record.
        self->lostSourceName_ = self->streamSourceName_;
        self->closeStream();
        if (self->active_) self->resolveTarget();
        break;
    default:
        break;
    }
}

void PulseSourceCapture::streamReadable(pa_stream* stream, size_t, void* userdata) {
    auto* self = static_cast<PulseSourceCapture*>(userdata);
    while (self->stream_ == stream && pa_stream_readable_size(stream) > 0) {
        const void* data = nullptr;
        size_t bytes = 0;
        if (pa_stream_peek(stream, &data, &bytes) < 0 || bytes == 0) return;
        if (data) {
            self->deliver(static_cast<const float*>(data), bytes);
        } else {
            self->emitPending();  // a hole: time moves on
            self->streamFrames_ += qint64(bytes / pa_frame_size(&self->streamSpec_));
        }
        pa_stream_drop(stream);
    }
}

void PulseSourceCapture::deliver(const float* samples, size_t bytes) {
    if (!active_) return;
    const auto now = options_.clock();
    if (!firstChunkAt_) firstChunkAt_ = now;
    if (!streamStartTime_) streamStartTime_ = std::chrono::duration<double>(now - *firstChunkAt_).count();
    const size_t count = bytes / sizeof(float);
    const double rate = streamSpec_.rate;
    if (pending_.empty()) pendingStartTime_ = *streamStartTime_ + double(streamFrames_) / rate;
    pending_.insert(pending_.end(), samples, samples + count);
    streamFrames_ += qint64(count / streamSpec_.channels);

    const float level = rmsLevel(std::span(samples, count));
    watchdog_->chunkArrived(level);
    if (source_ == MeetingCaptureSource::microphone) options_.speech->heard(level, now);
    if (double(pending_.size() / streamSpec_.channels) >= rate * chunkSeconds) emitPending();
}

void PulseSourceCapture::emitPending() {
    if (pending_.empty()) return;
    auto chunk = MeetingAudioChunk::captured(source_, pendingStartTime_, std::move(pending_), streamSpec_.rate,
                                             streamSpec_.channels);
    pending_.clear();
    if (active_ && onChunk_) onChunk_(std::move(chunk));
}

void PulseSourceCapture::checkWatchdog() {
    if (!active_) return;
    const auto now = options_.clock();
    if (missingSince_) {
        if (now - *missingSince_ >= defaultDeviceGrace) return fail(missingTargetError());
        resolveTarget();  // not every server announces the new default
    } else if (lookAgainAt_ && now >= *lookAgainAt_) {
        lookAgainAt_.reset();
        resolveTarget();
    }
    if (auto report = watchdog_->check()) warn(report->warning);
}

}  // namespace mossly::meeting
