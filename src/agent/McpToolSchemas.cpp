#include "McpToolSchemas.h"
#include "McpHistoryTools.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace mossly::agent {

namespace {

// The tools as JSON text: easier to read and review than nested QJsonObjects.
constexpr char toolsJson[] = R"json([
{
  "name": "search_notes",
  "title": "Search notes",
  "description": "Ranked search over the user's notes (titles and text, accents and case ignored). mode hybrid (default) finds notes by their words and by what they mean (English), keyword by words only, meaning by meaning only. Returns identifiers, titles, excerpts and each note's current revision. Read a note with read_note before changing it.",
  "inputSchema": {"type": "object", "properties": {
      "query": {"type": "string", "description": "Words to look for, or what the note is about."},
      "mode": {"type": "string", "enum": ["keyword", "meaning", "hybrid"], "description": "How to match (default hybrid)."},
      "limit": {"type": "integer", "minimum": 0, "maximum": 500, "description": "At most this many results (default 20)."}},
    "required": ["query"], "additionalProperties": false},
  "outputSchema": {"type": "object", "properties": {
      "results": {"type": "array", "items": {"type": "object", "properties": {
          "identifier": {"type": "string"}, "title": {"type": "string"}, "excerpt": {"type": "string"},
          "score": {"type": "number"}, "keywordScore": {"type": "number"}, "meaningScore": {"type": ["number", "null"]},
          "revision": {"type": "string"}, "createdBy": {"type": "string"},
          "lastEditedBy": {"type": ["string", "null"]}, "semanticAvailable": {"type": "boolean"}},
        "required": ["identifier", "title", "excerpt", "score", "keywordScore", "revision", "createdBy", "semanticAvailable"]}},
      "semanticAvailable": {"type": "boolean"},
      "warning": {"type": "string", "description": "Why keyword results were returned for a meaning or hybrid search."}},
    "required": ["results", "semanticAvailable"]},
  "annotations": {"readOnlyHint": true}
},
{
  "name": "list_notes",
  "title": "List notes",
  "description": "Lists note files by identifier (their path in the notes folder), optionally only below a folder. Pass nextCursor back as cursor for the next page.",
  "inputSchema": {"type": "object", "properties": {
      "folder": {"type": "string", "description": "Only notes below this folder, e.g. \"Projects\"."},
      "cursor": {"type": "string", "description": "nextCursor from the previous page."},
      "limit": {"type": "integer", "minimum": 1, "maximum": 1000, "description": "Page size (default 200)."}},
    "additionalProperties": false},
  "outputSchema": {"type": "object", "properties": {
      "notes": {"type": "array", "items": {"type": "object", "properties": {
          "identifier": {"type": "string"}, "contentType": {"type": "string", "enum": ["markdown", "html", "sketch"]},
          "modifiedAt": {"type": "string"}, "fileSize": {"type": "integer"},
          "conflictOf": {"type": "string", "description": "Set on a sync engine's conflict copy: the note it is another machine's version of."},
          "syncEngine": {"type": "string"}},
        "required": ["identifier", "contentType", "modifiedAt", "fileSize"]}},
      "nextCursor": {"type": "string"}},
    "required": ["notes"]},
  "annotations": {"readOnlyHint": true}
},
{
  "name": "read_note",
  "title": "Read a note",
  "description": "Reads one note: its body, front matter, editors and revision. Keep the revision: update_note needs it to prove you saw the latest text.",
  "inputSchema": {"type": "object", "properties": {
      "identifier": {"type": "string", "description": "The note's identifier, e.g. \"Projects/Plan.md\"."}},
    "required": ["identifier"], "additionalProperties": false},
  "outputSchema": {"$ref": "#/$defs/note", "$defs": {}},
  "annotations": {"readOnlyHint": true}
},
{
  "name": "create_note",
  "title": "Create a note",
  "description": "Creates a new note named after its title (a free name is chosen when it is taken; nothing is overwritten). Returns the note with its identifier and revision.",
  "inputSchema": {"type": "object", "properties": {
      "title": {"type": "string"},
      "body": {"type": "string", "description": "Markdown for markdown notes, HTML for html notes, tldraw JSON for sketches."},
      "type": {"type": "string", "enum": ["markdown", "html", "sketch"], "description": "Default markdown."},
      "fields": {"type": "object", "description": "Front-matter fields, e.g. {\"status\": \"draft\"}: strings, numbers, booleans or lists of strings."}},
    "required": ["title"], "additionalProperties": false},
  "annotations": {"destructiveHint": false}
},
{
  "name": "update_note",
  "title": "Update a note",
  "description": "Replaces a note's body and/or sets front-matter fields, only if the note still has expectedRevision (from read_note or search_notes). If someone changed it since, nothing is written and the error says so: read the note again, merge your change into the new text, and update with the new revision. Never overwrites anyone's words.",
  "inputSchema": {"type": "object", "properties": {
      "identifier": {"type": "string"},
      "expectedRevision": {"type": "string", "description": "The revision you read."},
      "body": {"type": "string", "description": "The whole new body."},
      "fields": {"type": "object", "description": "Front-matter fields to set."}},
    "required": ["identifier", "expectedRevision"], "additionalProperties": false},
  "annotations": {"destructiveHint": true, "idempotentHint": false}
},
{
  "name": "trash_note",
  "title": "Move a note to the Trash",
  "description": "Moves a note to the user's Trash, from where the user can restore it. Only when the user asked for it.",
  "inputSchema": {"type": "object", "properties": {"identifier": {"type": "string"}},
    "required": ["identifier"], "additionalProperties": false},
  "outputSchema": {"type": "object", "properties": {"identifier": {"type": "string"}, "trashed": {"type": "boolean"}},
    "required": ["identifier", "trashed"]},
  "annotations": {"destructiveHint": true}
}
])json";

// What read_note, create_note and update_note return.
constexpr char noteSchemaJson[] = R"json({"type": "object", "properties": {
  "identifier": {"type": "string"}, "title": {"type": "string"},
  "contentType": {"type": "string", "enum": ["markdown", "html", "sketch"]},
  "revision": {"type": "string"}, "createdBy": {"type": "string"}, "lastEditedBy": {"type": ["string", "null"]},
  "modifiedAt": {"type": "string"}, "body": {"type": "string"}, "frontMatter": {"type": "object"},
  "conflictOf": {"type": "string", "description": "Set when this file is a sync engine's conflict copy: the note it is another machine's version of."},
  "syncEngine": {"type": "string"}},
  "required": ["identifier", "title", "contentType", "revision", "createdBy", "modifiedAt", "body", "frontMatter"]})json";

}  // namespace

QJsonArray mcpToolDefinitions() {
    static const QJsonArray tools = [] {
        const QJsonObject note = QJsonDocument::fromJson(noteSchemaJson).object();
        QJsonArray parsed = QJsonDocument::fromJson(toolsJson).array();
        for (const QJsonValue& tool : mcpHistoryToolDefinitions()) parsed.append(tool);
        for (qsizetype i = 0; i < parsed.size(); ++i) {
            QJsonObject tool = parsed[i].toObject();
            const QString name = tool.value(u"name").toString();
            if (name == u"read_note" || name == u"create_note" || name == u"update_note" ||
                name == u"restore_note_version") {
                tool.insert(u"outputSchema", note);
            }
            parsed[i] = tool;
        }
        return parsed;
    }();
    return tools;
}

QStringList mcpToolNames() {
    QStringList names;
    for (const QJsonValue& tool : mcpToolDefinitions()) names.append(tool.toObject().value(u"name").toString());
    return names;
}

QString mcpInstructions() {
    return QStringLiteral(
        "These tools read and edit the user's Mossly notes, which the user may be editing at the same time. "
        "Find notes with search_notes or list_notes, read one with read_note, and change it with update_note "
        "passing the revision you read. If update_note reports that the note changed, read it again and apply "
        "your change to the new text: never write over the user's words.");
}

}  // namespace mossly::agent
