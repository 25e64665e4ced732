#pragma once

#include <QDateTime>
#include <QString>
#include <optional>

#include "NoteEditor.h"

// What the recorder writes into a meeting note: the block markers, the
// front-matter keys and the editor name. Everything outside the two blocks
// belongs to the user and is never rewritten.
namespace mossly::meeting::MeetingNoteFormat {

inline const QString transcriptStartMarker = QStringLiteral("<!-- notes:meeting-transcript:start -->");
inline const QString transcriptEndMarker = QStringLiteral("<!-- notes:meeting-transcript:end -->");
inline const QString summaryStartMarker = QStringLiteral("<!-- notes:meeting-summary:start -->");
inline const QString summaryEndMarker = QStringLiteral("<!-- notes:meeting-summary:end -->");

inline const QString idKey = QStringLiteral("meeting-id");
inline const QString startedAtKey = QStringLiteral("meeting-started-at");
inline const QString sourcesKey = QStringLiteral("meeting-sources");
inline const QString modelKey = QStringLiteral("meeting-model");
inline const QString providerKey = QStringLiteral("meeting-provider");
inline const QString summaryStatusKey = QStringLiteral("meeting-summary-status");
inline const QString recordingsKey = QStringLiteral("meeting-recordings");
inline const QString endedAtKey = QStringLiteral("meeting-ended-at");
inline const QString interruptedKey = QStringLiteral("meeting-interrupted");

// Stored in the note as "agent:meeting-recorder".
inline NoteEditor editor() { return NoteEditor::agent(QStringLiteral("meeting-recorder")); }

// Dates in front matter and manifests: ISO 8601 in UTC with milliseconds, so they read back exactly.
inline QString dateText(const QDateTime& date) { return date.toUTC().toString(Qt::ISODateWithMs); }
inline std::optional<QDateTime> dateFromText(const QString& text) {
    const QDateTime date = QDateTime::fromString(text, Qt::ISODateWithMs);
    if (!date.isValid()) return std::nullopt;
    return date.toUTC();
}

// Where the block `start`…`end` sits in `text`: the start marker's index and the index just after
// the first end marker that follows it; absent when either is missing.
std::optional<std::pair<qsizetype, qsizetype>> blockRange(const QString& text, const QString& start,
                                                          const QString& end);

// `text` with its block `start`…`end` replaced by `block`; without such a block, `block` is
// appended after a blank line, so nothing anyone wrote is replaced.
QString replacingBlock(const QString& text, const QString& start, const QString& end, const QString& block);

// A three-way merge for a note the recorder rewrote while the user had unsaved text in it.
// `base` is the body both sides started from, `mine` the user's body, `theirs` the body on
// disk. When the other side changed nothing but the recorder's blocks, and the user changed
// nothing inside the blocks that changed, the result is the user's body with those blocks
// taken from disk. Otherwise the edits overlap and the caller must treat it as a conflict.
std::optional<QString> mergingRecorderBlocks(const QString& base, const QString& mine, const QString& theirs);

}  // namespace mossly::meeting::MeetingNoteFormat
