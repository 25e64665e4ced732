#pragma once

#include <QDateTime>
#include <QList>
#include <QString>
#include <QStringList>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>

#include "AudioPipeline.h"
#include "IncrementalTranscription.h"
#include "MeetingAudioStore.h"
#include "MeetingNoteWriter.h"
#include "MeetingSessionServices.h"

namespace mossly::meeting {

// Trouble that does not end the meeting: logged under `operation`, shown as `statusText`.
struct MeetingIssue {
    QString operation;
    QString statusText;
    QString description;
};

// One meeting's heavy objects. Everything but the pipeline and the audio store
// (behind its mutex) is touched by the meeting worker only, one operation at a
// time; a cancelled meeting's queued operations do nothing.
struct MeetingWork {
    QUuid sessionID;
    QDateTime startedAt;
    MeetingSessionConfiguration configuration;
    QString notesDirectory;
    std::shared_ptr<AudioPipeline> pipeline;
    std::unique_ptr<IncrementalTranscription> transcription;
    std::unique_ptr<MeetingNoteWriter> writer;
    std::mutex audioMutex;
    std::unique_ptr<MeetingAudioStore> audioStore;
    QList<MeetingTranscriptSegment> stableSegments;  // everything committed, in order
    qsizetype checkpointedCount = 0;
    // How long writes at the start, at stop and at quit wait for a busy library.
    std::chrono::milliseconds busyPatience{0};
    // Set at stop for the final write, which may have to be made again.
    MeetingSummaryStatus finalStatus = MeetingSummaryStatus::disabled;
    QDateTime endedAt;
    // A summary the provider wrote whose note write failed: written again on retry.
    std::optional<MeetingSummary> unsavedSummary;
    std::atomic<bool> cancelled{false};
};

struct MeetingPermissionOutcome {
    std::optional<MeetingSessionError> refusal;  // no selected source can be recorded
    // Selected sources that cannot be recorded while another can: the meeting starts without them.
    QList<std::pair<MeetingCaptureSource, MeetingSessionError>> unavailable;
};

struct MeetingPreparation {
    std::optional<MeetingSessionError> failure;
    QString noteIdentifier;
    std::optional<MeetingIssue> issue;  // the first manifest or an audio track could not be saved
};

struct MeetingBatch {
    QList<MeetingTranscriptSegment> stable;  // new this batch
    TranscriptionBacklog backlog;
    QList<MeetingIssue> issues;
    std::optional<QDateTime> checkpointAt;
    int chunkCount = 0;
    bool moreQueued = false;
    double durationMs = 0;
};

struct MeetingFinalization {
    MeetingBatch batch;
    std::optional<MeetingSessionError> failure;  // the note could not be finished: `writeFinal` may try again
    bool summaryRequested = false;
};

// A captured chunk taken in: kept in its recording, queued for transcription.
struct MeetingIntake {
    std::optional<MeetingSessionError> keepFailure;   // the recording file would not take it
    std::optional<MeetingSessionError> queueFailure;  // the queue would not take it (resampling, the spool)
};

struct MeetingSummaryOutcome {
    std::optional<MeetingSummary> summary;
    std::optional<QString> failure;  // the provider's description, or the note write's
    bool unsaved = false;            // the summary exists but is not in the note yet
    std::optional<MeetingIssue> statusIssue;
};

// The blocking steps of a meeting, each run on the meeting worker.
namespace meeting_work {

inline constexpr int pipelineCapacity = 240;
inline constexpr int batchChunkLimit = 64;
inline constexpr int finalFlushAttempts = 2;
inline constexpr double windowDuration = 20.0;
inline constexpr double overlapDuration = 2.0;
inline constexpr float silenceThreshold = 0.002f;

MeetingPermissionOutcome requestPermissions(MeetingPermissions& permissions,
                                            const QSet<MeetingCaptureSource>& sources);
// Appends the chunk to its recording when audio is kept and queues it (resampled,
// spooled past the memory capacity). Runs on the intake thread, in arrival order.
MeetingIntake takeIn(MeetingWork& work, const MeetingAudioChunk& chunk);
// Loads the model, creates the transcription, the note with its first manifest, and the audio tracks.
MeetingPreparation prepare(MeetingWork& work, const QString& modelPath, const MeetingTranscriberFactory& factory);
// Transcribes up to `batchChunkLimit` queued chunks; checkpoints when new stable segments exist.
MeetingBatch processQueued(MeetingWork& work);
// Drains the queue, flushes the transcription, closes the audio and finishes the note.
MeetingFinalization finalize(MeetingWork& work, const QDateTime& endedAt);
// Writes the whole transcript and the meeting's end into the note and removes the manifest;
// on failure everything stays as it was, for another try.
MeetingFinalization writeFinal(MeetingWork& work);
// Asks the provider and writes the summary block, or the "failed" status. A summary
// whose write failed is kept and written by the next call without asking again.
// `stop` ends the provider's run (the transcript is already in the note).
MeetingSummaryOutcome summarize(MeetingWork& work, const MeetingSummaryProvider& provider, std::stop_token stop);
// Drains the queue into the transcription and writes a checkpoint; the manifest stays.
MeetingBatch checkpointForTermination(MeetingWork& work);

bool holdsText(const QList<MeetingTranscriptSegment>& segments);

}  // namespace meeting_work

}  // namespace mossly::meeting
