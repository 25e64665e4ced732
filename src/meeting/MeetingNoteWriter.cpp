#include "MeetingNoteWriter.h"

#include "MeetingNoteFormat.h"
#include "MeetingSummaryService.h"

#include <QDeadlineTimer>
#include <QThread>

namespace mossly::meeting {

namespace {

namespace Format = MeetingNoteFormat;

std::unexpected<MeetingSessionError> writeFailure(const QString& text) {
    return std::unexpected(MeetingSessionError::noteWriteFailed(text));
}

// A note whose markers the user deleted gets the transcript at its end rather than over anything they wrote.
QString withTranscript(const QString& body, const QString& block) {
    return Format::replacingBlock(body, Format::transcriptStartMarker, Format::transcriptEndMarker, block);
}

qsizetype stableCount(const QList<MeetingTranscriptSegment>& segments) {
    return std::ranges::count_if(segments, [](const auto& segment) { return segment.isStable; });
}

const QString checkpointStale = QStringLiteral("The meeting note changed during checkpointing.");
const QString notCreated = QStringLiteral("The meeting note was not created.");
QString keepBody(const QString& body) { return body; }

}  // namespace

QString rawValue(MeetingSummaryStatus status) {
    switch (status) {
    case MeetingSummaryStatus::pending: return QStringLiteral("pending");
    case MeetingSummaryStatus::disabled: return QStringLiteral("disabled");
    case MeetingSummaryStatus::complete: return QStringLiteral("complete");
    case MeetingSummaryStatus::failed: return QStringLiteral("failed");
    }
    return {};
}

MeetingNoteWriter::MeetingNoteWriter(QUuid sessionID, QDateTime startedAt, const QString& notesDirectory)
    : repository_(notesDirectory),
      recovery_(notesDirectory),
      sessionID_(sessionID),
      startedAt_(std::move(startedAt)) {}

QString MeetingNoteWriter::defaultTitle(const QDateTime& startedAt) {
    return QStringLiteral("Meeting ") + startedAt.toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH:mm"));
}

QString MeetingNoteWriter::initialBody(const QString& title) {
    return QStringLiteral("# ") + title + QStringLiteral("\n\n") + Format::transcriptStartMarker +
           QStringLiteral(u"\n## Transcript\n\n_Recording started…_\n") + Format::transcriptEndMarker;
}

QString MeetingNoteWriter::renderTranscript(const QList<MeetingTranscriptSegment>& segments, bool interrupted) {
    QString lines = MeetingSummaryService::transcript(segments);
    if (lines.isEmpty()) lines = QStringLiteral("_No speech transcribed._");
    return Format::transcriptStartMarker + QStringLiteral("\n## Transcript\n\n") + lines +
           (interrupted ? QStringLiteral("\n\n") + interruptedNotice : QString()) + u'\n' +
           Format::transcriptEndMarker;
}

std::expected<StoredNote, MeetingSessionError> MeetingNoteWriter::create(const QString& title,
                                                                         const QSet<MeetingCaptureSource>& sources,
                                                                         const QString& model,
                                                                         MeetingSummaryProviderKind provider,
                                                                         const QStringList& audioPaths) {
    const QString noteTitle = title.trimmed().isEmpty() ? defaultTitle(startedAt_) : title.trimmed();
    QStringList sourceNames;
    for (auto source : {MeetingCaptureSource::microphone, MeetingCaptureSource::system}) {
        if (sources.contains(source)) sourceNames.append(rawValue(source));
    }
    const auto status =
        provider == MeetingSummaryProviderKind::none ? MeetingSummaryStatus::disabled : MeetingSummaryStatus::pending;
    NoteFrontMatterFields fields{
        {Format::idKey, sessionID_.toString(QUuid::WithoutBraces).toUpper()},
        {Format::startedAtKey, Format::dateText(startedAt_)},
        {Format::sourcesKey, sourceNames},
        {Format::modelKey, model},
        {Format::providerKey, rawValue(provider)},
        {Format::summaryStatusKey, rawValue(status)},
    };
    if (!audioPaths.isEmpty()) fields.insert_or_assign(Format::recordingsKey, audioPaths);

    // Claimed before the first manifest exists, so recovery never takes this meeting for an interrupted one.
    if (auto claimed = recovery_.claim(sessionID_)) claim_.emplace(std::move(*claimed));
    auto note = waitingOutBusy([&] {
        return repository_.create(noteTitle, initialBody(noteTitle), Format::editor(), NoteContentType::markdown,
                                  fields);
    });
    if (!note) return writeFailure(note.error().description());
    noteIdentifier_ = note->identifier;
    audioPaths_ = audioPaths;
    if (auto saved = saveManifest(0); !saved) return std::unexpected(saved.error());
    return std::move(*note);
}

std::expected<StoredNote, MeetingSessionError> MeetingNoteWriter::checkpoint(
    const QList<MeetingTranscriptSegment>& segments, bool interrupted) {
    const QString block = renderTranscript(segments, interrupted);
    NoteFrontMatterFields fields;
    if (interrupted) fields.insert_or_assign(Format::interruptedKey, true);
    auto note =
        rewriteReporting([&](const QString& body) { return withTranscript(body, block); }, fields, checkpointStale);
    if (!note) return note;
    if (auto saved = saveManifest(static_cast<int>(stableCount(segments))); !saved) {
        return std::unexpected(saved.error());
    }
    return note;
}

std::expected<StoredNote, MeetingSessionError> MeetingNoteWriter::insertSummary(const MeetingSummary& summary) {
    const QString block = MeetingSummaryService::render(summary);
    const NoteFrontMatterFields fields{{Format::summaryStatusKey, rawValue(MeetingSummaryStatus::complete)}};
    return rewriteReporting(
        [&](const QString& body) { return MeetingSummaryService::replacingGeneratedSummary(body, block); }, fields);
}

std::expected<StoredNote, MeetingSessionError> MeetingNoteWriter::setSummaryStatus(MeetingSummaryStatus status) {
    const NoteFrontMatterFields fields{{Format::summaryStatusKey, rawValue(status)}};
    return rewriteReporting(keepBody, fields);
}

std::expected<void, MeetingSessionError> MeetingNoteWriter::recordAudioPaths(const QStringList& audioPaths) {
    audioPaths_ = audioPaths;
    if (!noteIdentifier_) return {};
    return saveManifest(stableSegmentCount_);
}

std::expected<std::optional<StoredNote>, MeetingSessionError> MeetingNoteWriter::finish(
    MeetingSummaryStatus summaryStatus, const QStringList& audioPaths, const QDateTime& endedAt,
    const std::optional<QList<MeetingTranscriptSegment>>& transcript) {
    std::optional<StoredNote> finished;
    if (noteIdentifier_) {
        if (!audioPaths.isEmpty()) audioPaths_ = audioPaths;
        NoteFrontMatterFields fields{
            {Format::endedAtKey, Format::dateText(endedAt)},
            {Format::summaryStatusKey, rawValue(summaryStatus)},
        };
        if (!audioPaths_.isEmpty()) fields.insert_or_assign(Format::recordingsKey, audioPaths_);
        // The whole transcript and the meeting's end in one write: a note never holds one without the other.
        const QString block = transcript ? renderTranscript(*transcript, false) : QString();
        auto note = rewrite([&](const QString& body) { return transcript ? withTranscript(body, block) : body; },
                            fields);
        if (note) {
            finished = std::move(*note);
        } else if (note.error().code() != Error::Code::notFound || (transcript && !transcript->isEmpty())) {
            // The manifest stays, so the meeting can still be recovered; words with no note to go
            // to stay with the caller (the user may bring the note back from the Trash).
            return writeFailure(note.error().description());
        }
    }
    // The note says the meeting ended, so recovery leaves it alone even if the manifest cannot go.
    auto removed = recovery_.remove(sessionID_);
    if (claim_) {
        claim_->releaseAndRemove();
        claim_.reset();
    }
    if (!removed) return std::unexpected(removed.error());
    return finished;
}

template <typename Write>
auto MeetingNoteWriter::waitingOutBusy(Write&& write) -> std::invoke_result_t<Write> {
    const QDeadlineTimer deadline(busyPatience_);
    while (true) {
        auto written = write();
        if (written || written.error().code() != Error::Code::busy || deadline.hasExpired()) return written;
        QThread::msleep(50);  // another writer is finishing; the alternative is losing words
    }
}

Result<StoredNote> MeetingNoteWriter::rewrite(const BodyEdit& edit, const NoteFrontMatterFields& fields) {
    std::optional<Error> lastStale;
    for (int attempt = 0; attempt < updateAttempts; ++attempt) {
        auto updated = waitingOutBusy([&]() -> Result<StoredNote> {
            auto note = repository_.read(*noteIdentifier_);
            if (!note) return note;
            const QString body = edit(note->document.body);
            if (beforeUpdate_) beforeUpdate_();
            return repository_.update(*noteIdentifier_, note->document.revision(), body, Format::editor(),
                                      std::nullopt, fields);
        });
        if (updated || updated.error().code() != Error::Code::stale) return updated;
        lastStale = updated.error();
    }
    return fail(*lastStale);
}

std::expected<StoredNote, MeetingSessionError> MeetingNoteWriter::rewriteReporting(
    const BodyEdit& edit, const NoteFrontMatterFields& fields, const std::optional<QString>& staleText) {
    if (!noteIdentifier_) return writeFailure(notCreated);
    auto note = rewrite(edit, fields);
    if (!note) {
        const bool stale = staleText && note.error().code() == Error::Code::stale;
        return writeFailure(stale ? *staleText : note.error().description());
    }
    return std::move(*note);
}

std::expected<void, MeetingSessionError> MeetingNoteWriter::saveManifest(int stableSegmentCount) {
    stableSegmentCount_ = stableSegmentCount;
    return recovery_.save(MeetingRecoveryManifest{sessionID_, *noteIdentifier_, startedAt_,
                                                  QDateTime::currentDateTimeUtc(), stableSegmentCount, audioPaths_});
}

}  // namespace mossly::meeting
