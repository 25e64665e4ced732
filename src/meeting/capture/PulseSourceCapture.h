#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include "CaptureWatchdog.h"
#include "MeetingAudioCapture.h"
#include "PulseClient.h"

namespace mossly::meeting {

struct PulseCaptureOptions {
    std::chrono::milliseconds serverTimeout = defaultServerTimeout;
    std::chrono::milliseconds watchdogLimit = defaultWatchdogLimit;
    CaptureClock clock = [] { return std::chrono::steady_clock::now(); };
    // The microphone writes, system audio reads: give both captures of a meeting the same one.
    std::shared_ptr<SpeechActivity> speech = std::make_shared<SpeechActivity>();
};

// Records one source of the audio server as 32-bit float at the device's own
// rate and channels, in chunks of about 100 ms (what is left is delivered on stop).
//
// The microphone is the chosen source (by its server name) or the server's
// default source, never a monitor. System audio is the monitor of the server's
// default sink, followed when the default sink changes. Streams never move on
// their own (PA_STREAM_DONT_MOVE): a vanished device ends in onFailure rather
// than in silently recording another device under the wrong label.
//
// Not to be destroyed from inside its own callbacks.
class PulseSourceCapture : public MeetingAudioCapture {
public:
    explicit PulseSourceCapture(MeetingCaptureSource source, PulseCaptureOptions options = {});
    ~PulseSourceCapture() override;

    MeetingCaptureSource source() const override { return source_; }
    std::expected<void, MeetingSessionError> start(const std::optional<QString>& deviceUID, ChunkHandler onChunk,
                                                   FailureHandler onFailure) override;
    void stop() override;

    // The server's name of the source being recorded; empty when none. Not while start() or stop() runs.
    QString recordedSourceName() const;

private:
    // All below run on the loop thread or with the loop locked.
    void resolveTarget();
    void useSource(const PulseSourceDetails& details);
    void fail(const MeetingSessionError& error);
    // Nothing to record right now: fails, or for a default device waits briefly for the server to name a new one.
    void targetMissing();
    MeetingSessionError missingTargetError() const;
    void closeStream();
    void deliver(const float* samples, size_t bytes);
    void emitPending();
    void checkWatchdog();
    static void streamStateChanged(pa_stream* stream, void* userdata);
    static void streamReadable(pa_stream* stream, size_t bytes, void* userdata);

    const MeetingCaptureSource source_;
    const PulseCaptureOptions options_;
    std::unique_ptr<PulseClient> client_;
    std::optional<QString> deviceUID_;
    ChunkHandler onChunk_;
    FailureHandler onFailure_;
    std::optional<CaptureWatchdog> watchdog_;

    pa_stream* stream_ = nullptr;
    QString streamSourceName_;
    QString lostSourceName_;  // the source whose stream the server ended
    pa_sample_spec streamSpec_{};
    bool streamReady_ = false;
    std::optional<double> streamStartTime_;
    qint64 streamFrames_ = 0;
    // The server hands over a few milliseconds at a time: gathered into chunks of about 100 ms.
    std::vector<float> pending_;
    double pendingStartTime_ = 0;
    std::optional<std::chrono::steady_clock::time_point> firstChunkAt_;

    std::optional<std::chrono::steady_clock::time_point> missingSince_;
    std::optional<std::chrono::steady_clock::time_point> lookAgainAt_;
    int generation_ = 0;  // answers for an older resolution are ignored
    bool active_ = false;
    bool starting_ = false;
    std::optional<MeetingSessionError> startFailure_;
};

class MicrophoneCapture final : public PulseSourceCapture {
public:
    explicit MicrophoneCapture(PulseCaptureOptions options = {})
        : PulseSourceCapture(MeetingCaptureSource::microphone, std::move(options)) {}
};

// PulseAudio mixes every program's sound into the sink's monitor and cannot
// leave one program out, so Mossly's own sounds would be recorded; Mossly
// plays none while recording.
class SystemAudioCapture final : public PulseSourceCapture {
public:
    explicit SystemAudioCapture(PulseCaptureOptions options = {})
        : PulseSourceCapture(MeetingCaptureSource::system, std::move(options)) {}
};

}  // namespace mossly::meeting
