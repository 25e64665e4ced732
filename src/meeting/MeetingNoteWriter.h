#pragma once

#include <QDateTime>
#include <QList>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QUuid>
#include <chrono>
#include <expected>
#include <functional>
#include <optional>

#include "MeetingRecoveryStore.h"
#include "MeetingTypes.h"
#include "NoteRepository.h"

namespace mossly::meeting {

// The note's "meeting-summary-status": "pending", "disabled", "complete", "failed".
enum class MeetingSummaryStatus { pending, disabled, complete, failed };
QString rawValue(MeetingSummaryStatus status);

// Writes one meeting's Markdown note. It creates the note when recording
// starts and afterwards rewrites only its own two blocks (transcript and
// summary) and its "meeting-" front matter, so whatever the user or an agent
// types elsewhere in the note stays. Every rewrite is revision-checked
// through the repository: when the note changed between our read and our
// write, the writer reads it again and retries on the new revision; it never
// overwrites a newer version.
//
// From `create` until `finish` the writer holds the meeting's recorder claim
// (see MeetingRecorderLock), so recovery leaves its meeting alone meanwhile.
//
// Not thread-safe: one thread at a time (the recorder's meeting worker). Every
// call blocks on the disk, and waits up to `busyPatience` for a busy library.
class MeetingNoteWriter {
public:
    static inline const QString interruptedNotice =
        QStringLiteral("> Recording was interrupted. This transcript contains the last durable checkpoint.");
    // Read–write rounds per rewrite before giving up to a writer that keeps changing the note.
    static constexpr int updateAttempts = 3;

    MeetingNoteWriter(QUuid sessionID, QDateTime startedAt, const QString& notesDirectory);

    // How long a write waits for another writer (the app saving, an agent) to
    // release the library before it fails as busy. None by default.
    void setBusyPatience(std::chrono::milliseconds patience) { busyPatience_ = patience; }

    // "Meeting 2026-11-23 14:05" in local time.
    static QString defaultTitle(const QDateTime& startedAt);
    static QString initialBody(const QString& title);
    static QString renderTranscript(const QList<MeetingTranscriptSegment>& segments, bool interrupted);

    // Creates the note (an empty title becomes `defaultTitle`) and the first recovery manifest.
    // When the manifest cannot be saved the note still exists and the error is returned;
    // the next checkpoint saves it again.
    std::expected<StoredNote, MeetingSessionError> create(const QString& title,
                                                          const QSet<MeetingCaptureSource>& sources,
                                                          const QString& model, MeetingSummaryProviderKind provider,
                                                          const QStringList& audioPaths = {});
    // Replaces the transcript block with the stable `segments` (a note whose markers were
    // deleted gets the block at its end) and then saves the manifest. On failure the note keeps
    // its previous checkpoint and the manifest its previous count: the caller keeps the
    // segments and the next checkpoint writes them all.
    std::expected<StoredNote, MeetingSessionError> checkpoint(const QList<MeetingTranscriptSegment>& segments,
                                                              bool interrupted);
    // Replaces the summary block (or appends one) and sets the summary status to "complete".
    std::expected<StoredNote, MeetingSessionError> insertSummary(const MeetingSummary& summary);
    std::expected<StoredNote, MeetingSessionError> setSummaryStatus(MeetingSummaryStatus status);
    // Writes "meeting-ended-at", the summary status and the retained recordings, with
    // `transcript` (when given) in the same write, then removes the recovery manifest and
    // the claim: the transcript is complete. On failure nothing was written and the manifest
    // stays, so the same call can be made again. No note (never created, or deleted) is not
    // an error unless there are segments to write: the manifest is removed and there is
    // nothing to return.
    std::expected<std::optional<StoredNote>, MeetingSessionError> finish(
        MeetingSummaryStatus summaryStatus, const QStringList& audioPaths = {},
        const QDateTime& endedAt = QDateTime::currentDateTimeUtc(),
        const std::optional<QList<MeetingTranscriptSegment>>& transcript = std::nullopt);
    // Where the recordings are now (still being written, or kept at the end): saved in
    // the manifest at once, and in the note when it is finished.
    std::expected<void, MeetingSessionError> recordAudioPaths(const QStringList& audioPaths);

    const QUuid& sessionID() const { return sessionID_; }
    const std::optional<QString>& noteIdentifier() const { return noteIdentifier_; }
    const QStringList& audioPaths() const { return audioPaths_; }
    const MeetingRecoveryStore& recovery() const { return recovery_; }

    // Tests only: runs after each read and before the matching update.
    void setBeforeUpdateForTesting(std::function<void()> hook) { beforeUpdate_ = std::move(hook); }

private:
    using BodyEdit = std::function<QString(const QString& body)>;
    // Read, edit, revision-checked update; a stale update is retried on a fresh read.
    Result<StoredNote> rewrite(const BodyEdit& edit, const NoteFrontMatterFields& fields);
    // `rewrite` with the recorder's error; `staleText`, when given, replaces the repository's
    // text for a note that kept changing under us.
    std::expected<StoredNote, MeetingSessionError> rewriteReporting(
        const BodyEdit& edit, const NoteFrontMatterFields& fields,
        const std::optional<QString>& staleText = std::nullopt);
    std::expected<void, MeetingSessionError> saveManifest(int stableSegmentCount);
    // Runs `write` again while it fails as busy, until `busyPatience_` has passed.
    template <typename Write>
    auto waitingOutBusy(Write&& write) -> std::invoke_result_t<Write>;

    NoteRepository repository_;
    MeetingRecoveryStore recovery_;
    QUuid sessionID_;
    QDateTime startedAt_;
    std::optional<QString> noteIdentifier_;
    QStringList audioPaths_;
    int stableSegmentCount_ = 0;
    std::chrono::milliseconds busyPatience_{0};
    std::optional<MeetingRecorderLock> claim_;
    std::function<void()> beforeUpdate_;
};

}  // namespace mossly::meeting
