#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "MeetingAudioChunk.h"
#include "TranscriptionBacklog.h"
#include "WhisperTranscribing.h"

namespace mossly::meeting {

// Live transcription of a meeting: each source's 16 kHz chunks are collected
// in a buffer of its own and cut into windows (20 s, overlapping by 2 s, so a
// word cut at one edge is heard whole in the next window). Silent windows are
// skipped without inference. Segments that begin in a window's trailing
// overlap are held back as unstable: the next window hears them with their
// full context. A segment repeating the text just committed for its source
// (case and surrounding white space ignored) is dropped.
//
// Thread safety: one call at a time inside; inference runs on the caller's thread.
class IncrementalTranscription {
  public:
    IncrementalTranscription(std::shared_ptr<WhisperTranscribing> transcriber, double windowDuration = 20.0,
                             double overlapDuration = 2.0, float silenceThreshold = 0.002f);

    // Adds a normalized chunk and transcribes every full window; returns the
    // new stable segments. A window whose inference fails is consumed (the
    // transcript catches up after it) and the error is returned.
    std::expected<QList<MeetingTranscriptSegment>, MeetingSessionError> accept(
        const MeetingAudioChunk& chunk);
    // Transcribes what is left in every buffer as a final window; every
    // segment is stable. Sorted by start time, the microphone first at a tie.
    std::expected<QList<MeetingTranscriptSegment>, MeetingSessionError> flush();

    // The held-back tail of each source's last window, for a live preview; never written to a note.
    QList<MeetingTranscriptSegment> unstableSegments() const;
    // Buffered audio per source, overlap included.
    TranscriptionBacklog backlog() const;

  private:
    struct SourceBuffer {
        std::vector<float> samples;
        std::optional<double> startTime;
        qint64 heardSamples = 0;  // the leading overlap, already transcribed once
    };

    std::expected<QList<MeetingTranscriptSegment>, MeetingSessionError> processWindow(
        MeetingCaptureSource source, bool final);
    QList<MeetingTranscriptSegment> commit(MeetingCaptureSource source, QList<MeetingTranscriptSegment> heard,
                                           double holdBackFrom);
    std::expected<QList<MeetingTranscriptSegment>, MeetingSessionError> flushSource(
        MeetingCaptureSource source);

    std::shared_ptr<WhisperTranscribing> transcriber_;
    qint64 windowSamples_;
    qint64 overlapSamples_;
    float silenceThreshold_;
    mutable std::mutex mutex_;
    std::map<MeetingCaptureSource, SourceBuffer> buffers_;
    std::map<MeetingCaptureSource, QString> lastCommittedText_;
    std::map<MeetingCaptureSource, QList<MeetingTranscriptSegment>> unstable_;
};

}  // namespace mossly::meeting
