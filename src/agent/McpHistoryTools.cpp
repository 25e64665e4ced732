#include "McpHistoryTools.h"

#include <QJsonDocument>

#include "AgentCommand.h"
#include "NoteHistory.h"
#include "SyncthingWrites.h"

namespace mossly::agent {

namespace {

constexpr char toolsJson[] = R"json([
{
  "name": "note_history",
  "title": "Show a note's history",
  "description": "Lists a note's versions, newest first (the first is the current text): each with its revision, who saved it (\"human\" for the user, \"agent:NAME\" for an agent) and when. Use it to see what changed a note, and to pick a version for restore_note_version.",
  "inputSchema": {"type": "object", "properties": {
      "identifier": {"type": "string", "description": "The note's identifier, e.g. \"Projects/Plan.md\"."}},
    "required": ["identifier"], "additionalProperties": false},
  "outputSchema": {"type": "object", "properties": {
      "identifier": {"type": "string"},
      "versions": {"type": "array", "items": {"type": "object", "properties": {
          "revision": {"type": "string"}, "editedBy": {"type": "string"}, "savedAt": {"type": "string"},
          "size": {"type": "integer"}},
        "required": ["revision", "editedBy", "savedAt", "size"]}}},
    "required": ["identifier", "versions"]},
  "annotations": {"readOnlyHint": true}
},
{
  "name": "restore_note_version",
  "title": "Restore a version of a note",
  "description": "Writes an earlier version (a revision from note_history) back as the note's text, only if the note still has expectedRevision. If someone changed it since, nothing is written and the error says so. The text it replaces stays in the history. Only when the user asked for it.",
  "inputSchema": {"type": "object", "properties": {
      "identifier": {"type": "string"},
      "version": {"type": "string", "description": "The revision of the version to bring back, from note_history."},
      "expectedRevision": {"type": "string", "description": "The note's current revision, as you last read it."}},
    "required": ["identifier", "version", "expectedRevision"], "additionalProperties": false},
  "annotations": {"destructiveHint": true, "idempotentHint": false}
}
])json";

std::optional<QString> stringArgument(const QJsonObject& arguments, const char* name) {
    const QJsonValue value = arguments.value(QLatin1StringView(name));
    return value.isString() ? std::optional(value.toString()) : std::nullopt;
}

}  // namespace

QJsonArray mcpHistoryToolDefinitions() { return QJsonDocument::fromJson(toolsJson).array(); }

Result<QJsonObject> mcpNoteHistory(const NoteRepository& repository, const QJsonObject& arguments) {
    const auto identifier = stringArgument(arguments, "identifier");
    if (!identifier) return fail(Error::invalidArgument(QStringLiteral("note_history needs an identifier")));
    auto versions = noteTimeline(repository, *identifier);
    if (!versions) return fail(versions.error());
    return QJsonDocument::fromJson(historyJson(*identifier, *versions).toUtf8()).object();
}

Result<StoredNote> mcpRestoreNoteVersion(const NoteRepository& repository, const QJsonObject& arguments,
                                         const NoteEditor& editor) {
    const auto identifier = stringArgument(arguments, "identifier");
    const auto version = stringArgument(arguments, "version");
    const auto expected = stringArgument(arguments, "expectedRevision");
    if (!identifier || !version || !expected) {
        return fail(Error::invalidArgument(
            QStringLiteral("restore_note_version needs an identifier, a version and expectedRevision")));
    }
    return writeWatchingSyncthing(repository, *identifier, [&] {
        return restoreNoteVersion(repository, *identifier, *version, *expected, editor);
    });
}

}  // namespace mossly::agent
