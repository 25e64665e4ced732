#include "MeetingSessionWork.h"

#include <QElapsedTimer>
#include <algorithm>

#include "MeetingSummaryService.h"

namespace mossly::meeting::meeting_work {

namespace {

const QString readOperation = QStringLiteral("Read queued meeting audio");
const QString readStatus = QStringLiteral("A retained audio chunk could not be read for transcription.");
const QString transcribeOperation = QStringLiteral("Transcribe meeting audio");
const QString transcribeStatus =
    QStringLiteral("Capture continues and audio is retained, but transcription is catching up after an error.");
const QString checkpointOperation = QStringLiteral("Checkpoint meeting transcript");
const QString audioOperation = QStringLiteral("Retain meeting audio");

MeetingIssue issue(const QString& operation, const QString& status, const MeetingSessionError& error) {
    return {operation, status, error.description()};
}

void commit(MeetingWork& work, MeetingBatch& batch, const QList<MeetingTranscriptSegment>& segments) {
    batch.stable += segments;
    work.stableSegments += segments;
    sortSegments(work.stableSegments);
}

// Everything queued goes into the transcription; `limit` < 0 for all of it.
void drain(MeetingWork& work, MeetingBatch& batch, int limit) {
    while (limit < 0 || batch.chunkCount < limit) {
        auto next = work.pipeline->dequeue();
        if (!next) {
            batch.issues.append(issue(readOperation, readStatus, next.error()));
            continue;  // the unreadable record is gone; the next one may be fine
        }
        if (!*next) return;
        ++batch.chunkCount;
        auto heard = work.transcription->accept(**next);
        commit(work, batch, heard.segments);
        if (heard.failure) batch.issues.append(issue(transcribeOperation, transcribeStatus, *heard.failure));
    }
    batch.moreQueued = !work.pipeline->backlog().isEmpty();
}

void checkpointIfNew(MeetingWork& work, MeetingBatch& batch) {
    if (work.stableSegments.size() == work.checkpointedCount) return;
    auto written = work.writer->checkpoint(work.stableSegments, false);
    if (!written) {
        // The writer keeps nothing half-written; the next checkpoint writes every segment.
        batch.issues.append(issue(checkpointOperation, written.error().description(), written.error()));
        return;
    }
    work.checkpointedCount = work.stableSegments.size();
    batch.checkpointAt = QDateTime::currentDateTimeUtc();
}

void publish(MeetingWork& work, MeetingBatch& batch) {
    batch.backlog = work.pipeline->backlog() + work.transcription->backlog();
}

}  // namespace

bool holdsText(const QList<MeetingTranscriptSegment>& segments) {
    return std::ranges::any_of(segments, [](const auto& segment) { return !segment.text.trimmed().isEmpty(); });
}

MeetingPermissionOutcome requestPermissions(MeetingPermissions& permissions,
                                            const QSet<MeetingCaptureSource>& sources) {
    MeetingPermissionOutcome outcome;
    for (auto source : {MeetingCaptureSource::microphone, MeetingCaptureSource::system}) {
        if (!sources.contains(source)) continue;
        auto access = source == MeetingCaptureSource::microphone ? permissions.microphoneAccess()
                                                                 : permissions.systemAudioAccess();
        if (!access) outcome.unavailable.append({source, access.error()});
    }
    // One source is enough for a meeting; with none, say what is missing, once per reason.
    if (outcome.unavailable.isEmpty() || outcome.unavailable.size() < sources.size()) return outcome;
    QStringList reasons;
    for (const auto& [source, error] : outcome.unavailable) {
        if (!reasons.contains(error.description())) reasons.append(error.description());
    }
    outcome.refusal = reasons.size() == 1 ? outcome.unavailable.first().second
                                          : MeetingSessionError::captureFailed(reasons.join(u' '));
    outcome.unavailable.clear();
    return outcome;
}

MeetingIntake takeIn(MeetingWork& work, const MeetingAudioChunk& chunk) {
    MeetingIntake intake;
    if (work.cancelled) return intake;  // a failed meeting's audio must not reach the next one
    if (work.configuration.retainAudio) {
        std::lock_guard lock(work.audioMutex);
        if (work.audioStore) {
            if (auto kept = work.audioStore->append(chunk); !kept) intake.keepFailure = kept.error();
        }
    }
    if (auto queued = work.pipeline->enqueue(chunk); !queued) intake.queueFailure = queued.error();
    return intake;
}

MeetingPreparation prepare(MeetingWork& work, const QString& modelPath, const MeetingTranscriberFactory& factory) {
    MeetingPreparation result;
    // A failed meeting may have left audio behind; it must not reach this one's transcript.
    static_cast<void>(work.pipeline->flush());
    while (true) {
        auto leftover = work.pipeline->dequeue();
        if (leftover && !*leftover) break;
    }

    auto transcriber = factory(modelPath);
    if (!transcriber) {
        result.failure = transcriber.error();
        return result;
    }
    work.transcription = std::make_unique<IncrementalTranscription>(std::move(*transcriber), windowDuration,
                                                                    overlapDuration, silenceThreshold);

    const auto& configuration = work.configuration;
    work.writer = std::make_unique<MeetingNoteWriter>(work.sessionID, work.startedAt, work.notesDirectory);
    work.writer->setBusyPatience(work.busyPatience);
    auto note = work.writer->create(configuration.title, configuration.sources, configuration.modelName,
                                    configuration.provider);
    // Checkpoints while recording do not wait: a busy one is simply written by the next.
    work.writer->setBusyPatience(std::chrono::milliseconds{0});
    if (!work.writer->noteIdentifier()) {
        result.failure = note.error();
        return result;
    }
    result.noteIdentifier = *work.writer->noteIdentifier();
    if (!note) result.issue = issue(checkpointOperation, note.error().description(), note.error());

    if (configuration.retainAudio) {
        std::lock_guard lock(work.audioMutex);
        work.audioStore = std::make_unique<MeetingAudioStore>(work.notesDirectory, result.noteIdentifier);
        for (auto source : {MeetingCaptureSource::microphone, MeetingCaptureSource::system}) {
            if (!configuration.sources.contains(source)) continue;
            if (auto opened = work.audioStore->open(source); !opened && !result.issue) {
                result.issue = issue(audioOperation, opened.error().description(), opened.error());
            }
        }
        // After a crash the manifest says where the recordings being written are.
        if (auto saved = work.writer->recordAudioPaths(work.audioStore->recordingPaths()); !saved && !result.issue) {
            result.issue = issue(checkpointOperation, saved.error().description(), saved.error());
        }
    }
    return result;
}

MeetingBatch processQueued(MeetingWork& work) {
    MeetingBatch batch;
    if (work.cancelled) return batch;
    QElapsedTimer timer;
    timer.start();
    drain(work, batch, batchChunkLimit);
    checkpointIfNew(work, batch);
    publish(work, batch);
    batch.durationMs = double(timer.nsecsElapsed()) / 1e6;
    return batch;
}

MeetingFinalization finalize(MeetingWork& work, const QDateTime& endedAt) {
    MeetingFinalization result;
    if (work.cancelled) return result;
    auto& batch = result.batch;
    if (auto flushed = work.pipeline->flush(); !flushed) {
        batch.issues.append(issue(transcribeOperation, transcribeStatus, flushed.error()));
    }
    drain(work, batch, -1);
    // What fails stays buffered: a second flush tries it again before the words are given up.
    for (int attempt = 0; attempt < finalFlushAttempts; ++attempt) {
        auto rest = work.transcription->flush();
        commit(work, batch, rest.segments);
        if (!rest.failure) break;
        if (attempt + 1 == finalFlushAttempts) {
            batch.issues.append(issue(transcribeOperation, transcribeStatus, *rest.failure));
        }
    }

    {
        std::lock_guard lock(work.audioMutex);
        if (work.audioStore) {
            auto finished = work.audioStore->finish();
            // What was kept, even when another track failed.
            static_cast<void>(work.writer->recordAudioPaths(finished.paths));
            if (finished.failure) {
                batch.issues.append(issue(audioOperation, finished.failure->description(), *finished.failure));
            }
            work.audioStore.reset();
        }
    }

    result.summaryRequested =
        work.configuration.provider != MeetingSummaryProviderKind::none && holdsText(work.stableSegments);
    work.finalStatus = result.summaryRequested ? MeetingSummaryStatus::pending : MeetingSummaryStatus::disabled;
    work.endedAt = endedAt;
    auto written = writeFinal(work);
    result.failure = written.failure;
    publish(work, batch);
    return result;
}

MeetingFinalization writeFinal(MeetingWork& work) {
    MeetingFinalization result;
    result.summaryRequested = work.finalStatus == MeetingSummaryStatus::pending;
    if (work.cancelled) return result;
    work.writer->setBusyPatience(work.busyPatience);
    auto finished = work.writer->finish(work.finalStatus, {}, work.endedAt, work.stableSegments);
    if (!finished) {
        result.failure = finished.error();
        return result;
    }
    work.checkpointedCount = work.stableSegments.size();
    return result;
}

MeetingSummaryOutcome summarize(MeetingWork& work, const MeetingSummaryProvider& provider, std::stop_token stop) {
    MeetingSummaryOutcome outcome;
    if (work.cancelled) return outcome;
    work.writer->setBusyPatience(work.busyPatience);
    if (!work.unsavedSummary) {
        auto summary = provider.summarize(MeetingSummaryService::transcript(work.stableSegments), std::move(stop));
        if (!summary) {
            outcome.failure = summary.error().description();
            if (auto marked = work.writer->setSummaryStatus(MeetingSummaryStatus::failed); !marked) {
                outcome.statusIssue = issue(checkpointOperation, marked.error().description(), marked.error());
            }
            return outcome;
        }
        work.unsavedSummary = std::move(*summary);
    }
    outcome.summary = work.unsavedSummary;
    if (auto written = work.writer->insertSummary(*work.unsavedSummary); !written) {
        // Kept for the retry, which writes it without asking the provider again.
        outcome.failure = written.error().description();
        outcome.unsaved = true;
        if (auto marked = work.writer->setSummaryStatus(MeetingSummaryStatus::failed); !marked) {
            outcome.statusIssue = issue(checkpointOperation, marked.error().description(), marked.error());
        }
        return outcome;
    }
    work.unsavedSummary.reset();
    return outcome;
}

MeetingBatch checkpointForTermination(MeetingWork& work) {
    MeetingBatch batch;
    if (work.cancelled) return batch;
    work.writer->setBusyPatience(work.busyPatience);
    if (auto flushed = work.pipeline->flush(); !flushed) {
        batch.issues.append(issue(transcribeOperation, transcribeStatus, flushed.error()));
    }
    drain(work, batch, -1);
    checkpointIfNew(work, batch);
    publish(work, batch);
    return batch;
}

}  // namespace mossly::meeting::meeting_work
