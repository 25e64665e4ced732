#pragma once

#include <deque>
#include <expected>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "AudioResampler.h"
#include "AudioSpool.h"
#include "MeetingAudioChunk.h"
#include "TranscriptionBacklog.h"

namespace mossly::meeting {

struct AudioPipelineMetrics {
    qint64 queuedChunks = 0;       // chunks accepted since the start
    qint64 droppedChunks = 0;      // chunks lost because the spool could not take them
    qint64 diskBackedChunks = 0;   // chunks that went to the spool
    qint64 normalizedSamples = 0;  // samples produced in the transcription format

    bool operator==(const AudioPipelineMetrics&) const = default;
};

// Between capture and transcription: every chunk is mixed to mono and
// resampled to 16 kHz (one streaming resampler per source, so chunk edges
// leave no clicks), then held in a memory queue of `capacity` chunks that
// overflows to a spool file, so a slow transcription neither drops audio nor
// grows memory. Chunks come out in arrival order.
//
// Thread safety: all methods may be called from any thread (one at a time inside).
class AudioPipeline {
  public:
    // Without a spool, a private temporary file is used.
    explicit AudioPipeline(int capacity, std::unique_ptr<AudioSpoolStorage> spool = nullptr);

    // Fails when the chunk cannot be converted, or when it would overflow to a
    // spool that cannot take it (the chunk is then counted as dropped).
    std::expected<void, MeetingSessionError> enqueue(const MeetingAudioChunk& chunk);
    // Pushes out what the resamplers hold back; call once capture has stopped.
    std::expected<void, MeetingSessionError> flush();
    // The oldest chunk, or none when the queue is empty.
    std::expected<std::optional<MeetingAudioChunk>, MeetingSessionError> dequeue();

    TranscriptionBacklog backlog() const;
    AudioPipelineMetrics metrics() const;

  private:
    // One continuous run of audio from a source in one format.
    struct Stream {
        double inputRate = 0;
        int channelCount = 0;
        double startTime = 0;
        qint64 inputFrames = 0;
        qint64 outputSamples = 0;
        std::optional<AudioResampler> resampler;  // absent for audio already at 16 kHz
    };
    struct SpoolRecord {
        qint64 offset = 0;
        qint64 length = 0;
        MeetingCaptureSource source;
        qint64 sampleCount = 0;
    };

    std::expected<void, MeetingSessionError> startStreamIfNeeded(const MeetingAudioChunk& chunk);
    std::expected<void, MeetingSessionError> endStream(MeetingCaptureSource source);
    std::expected<void, MeetingSessionError> append(MeetingCaptureSource source, Stream& stream,
                                                    std::vector<float> samples);
    std::expected<std::optional<MeetingAudioChunk>, MeetingSessionError> readSpooled();

    const int capacity_;
    std::unique_ptr<AudioSpoolStorage> spool_;
    mutable std::mutex mutex_;
    std::map<MeetingCaptureSource, Stream> streams_;
    std::deque<MeetingAudioChunk> queue_;
    std::vector<SpoolRecord> spoolRecords_;
    size_t spoolReadIndex_ = 0;
    std::map<MeetingCaptureSource, qint64> queuedSamples_;
    AudioPipelineMetrics metrics_;
};

}  // namespace mossly::meeting
