#pragma once

#include <QJsonArray>
#include <QJsonObject>

#include "Error.h"
#include "NoteRepository.h"

namespace mossly::agent {

// The history tools of the MCP server: note_history and restore_note_version.
QJsonArray mcpHistoryToolDefinitions();

Result<QJsonObject> mcpNoteHistory(const NoteRepository& repository, const QJsonObject& arguments);
// The note as restored, for the server to answer like update_note.
Result<StoredNote> mcpRestoreNoteVersion(const NoteRepository& repository, const QJsonObject& arguments,
                                         const NoteEditor& editor);

}  // namespace mossly::agent
