#pragma once

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "MeetingAudioChunk.h"
#include "TranscriptionBacklog.h"
#include "WhisperTranscribing.h"

namespace mossly::meeting {

// What one call heard, and the first error it met: segments heard before or
// after a failure are never dropped because of it.
struct TranscriptionStep {
    QList<MeetingTranscriptSegment> segments;
    std::optional<MeetingSessionError> failure;
};

// Live transcription of a meeting: each source's 16 kHz chunks are collected
// in a buffer of its own and cut into windows (20 s, overlapping by 2 s, so a
// word cut at one edge is heard whole in the next window). Silent windows are
// skipped without inference. Every segment heard is stable at once, except one
// repeating the text just committed for its source (case and surrounding white
// space ignored), which is dropped. Audio whose inference fails stays buffered
// and is tried again, so the transcript catches up rather than skipping it.
//
// Thread safety: one call at a time inside; inference runs on the caller's thread.
class IncrementalTranscription {
  public:
    IncrementalTranscription(std::shared_ptr<WhisperTranscribing> transcriber, double windowDuration = 20.0,
                             double overlapDuration = 2.0, float silenceThreshold = 0.002f);

    // Adds a normalized chunk and transcribes every full window. A window whose inference
    // fails stays buffered and is tried again with the next chunks; after a few failures it
    // is set aside, still buffered, for `flush`.
    TranscriptionStep accept(const MeetingAudioChunk& chunk);
    // Transcribes what is left of every source as a final window. Sorted by start
    // time, the microphone first at a tie. What fails stays buffered for another flush.
    TranscriptionStep flush();

    // Buffered audio per source, overlap and failed windows included.
    TranscriptionBacklog backlog() const;

  private:
    struct SourceBuffer {
        std::vector<float> samples;
        std::optional<double> startTime;
        qint64 heardSamples = 0;  // the leading overlap, already transcribed once
        int failedAttempts = 0;   // of the window at the buffer's start
    };
    // Audio whose inference failed, kept for the next flush.
    struct ClosedRun {
        std::vector<float> samples;
        double startTime = 0;
    };

    std::expected<QList<MeetingTranscriptSegment>, MeetingSessionError> transcribe(
        MeetingCaptureSource source, std::span<const float> window, double offset);
    std::expected<QList<MeetingTranscriptSegment>, MeetingSessionError> processWindow(MeetingCaptureSource source);
    void setAsideWindow(MeetingCaptureSource source);
    void retryClosedRuns(MeetingCaptureSource source, TranscriptionStep& step);
    void closeRun(MeetingCaptureSource source, TranscriptionStep& step);
    QList<MeetingTranscriptSegment> commit(MeetingCaptureSource source, QList<MeetingTranscriptSegment> heard);

    std::shared_ptr<WhisperTranscribing> transcriber_;
    qint64 windowSamples_;
    qint64 overlapSamples_;
    float silenceThreshold_;
    mutable std::mutex mutex_;
    std::map<MeetingCaptureSource, SourceBuffer> buffers_;
    std::map<MeetingCaptureSource, std::deque<ClosedRun>> failedRuns_;
    std::map<MeetingCaptureSource, QString> lastCommittedText_;
};

}  // namespace mossly::meeting
