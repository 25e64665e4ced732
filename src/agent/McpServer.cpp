#include "McpServer.h"

#include <QJsonDocument>
#include <cerrno>
#include <cmath>
#include <unistd.h>

#include "AgentAccess.h"
#include "AgentCommand.h"
#include "McpHistoryTools.h"
#include "McpToolSchemas.h"
#include "SyncConflictCopies.h"
#include "SyncthingWrites.h"

namespace mossly::agent {

namespace {

constexpr int parseErrorCode = -32700;
constexpr int invalidRequestCode = -32600;
constexpr int methodNotFoundCode = -32601;
constexpr int invalidParamsCode = -32602;
constexpr qint64 defaultSearchLimit = 20;
constexpr qint64 defaultListLimit = 200;

QJsonObject response(const QJsonValue& id, const QJsonObject& result) {
    return {{"jsonrpc", "2.0"}, {"id", id}, {"result", result}};
}

QJsonObject errorResponse(const QJsonValue& id, int code, const QString& message) {
    return {{"jsonrpc", "2.0"}, {"id", id}, {"error", QJsonObject{{"code", code}, {"message", message}}}};
}

// A tool's answer: structured content, and the same as text for clients that read only text.
QJsonObject toolResult(const QJsonObject& structured) {
    const QString text = QString::fromUtf8(QJsonDocument(structured).toJson(QJsonDocument::Compact));
    return {{"content", QJsonArray{QJsonObject{{"type", "text"}, {"text", text}}}}, {"structuredContent", structured}};
}

// A failed operation is a tool result the agent reads (isError), not a protocol error.
QJsonObject toolError(const QString& message) {
    return {{"content", QJsonArray{QJsonObject{{"type", "text"}, {"text", message}}}}, {"isError", true}};
}

QJsonObject noteObject(const StoredNote& note) { return QJsonDocument::fromJson(noteJson(note).toUtf8()).object(); }

// Front-matter fields from JSON: numbers, booleans, strings and lists of strings.
std::expected<NoteFrontMatterFields, QString> fieldsFrom(const QJsonValue& value) {
    NoteFrontMatterFields fields;
    if (value.isUndefined() || value.isNull()) return fields;
    if (!value.isObject()) return std::unexpected(QStringLiteral("fields must be an object"));
    const QJsonObject object = value.toObject();
    for (auto it = object.begin(); it != object.end(); ++it) {
        const QJsonValue field = it.value();
        if (field.isBool()) {
            fields.emplace(it.key(), field.toBool());
        } else if (field.isDouble()) {
            const double number = field.toDouble();
            if (std::trunc(number) == number && std::abs(number) < 9.0e15) {
                fields.emplace(it.key(), static_cast<qint64>(number));
            } else {
                fields.emplace(it.key(), number);
            }
        } else if (field.isString()) {
            fields.emplace(it.key(), field.toString());
        } else if (field.isArray()) {
            QStringList items;
            for (const QJsonValue& item : field.toArray()) {
                if (!item.isString()) return std::unexpected(QStringLiteral("list fields hold strings: ") + it.key());
                items.append(item.toString());
            }
            fields.emplace(it.key(), items);
        } else {
            return std::unexpected(QStringLiteral("unsupported value for field ") + it.key());
        }
    }
    return fields;
}

std::optional<QString> stringArgument(const QJsonObject& arguments, const char* name) {
    const QJsonValue value = arguments.value(QLatin1StringView(name));
    return value.isString() ? std::optional(value.toString()) : std::nullopt;
}

}  // namespace

McpServer::McpServer(NoteRepository repository, Options options)
    : repository_(std::move(repository)), options_(std::move(options)) {}

const QStringList& McpServer::supportedProtocolVersions() {
    static const QStringList versions{QStringLiteral("2025-11-25"), QStringLiteral("2025-06-18"),
                                      QStringLiteral("2025-03-26"), QStringLiteral("2024-11-05")};
    return versions;
}

QJsonObject McpServer::parseError() { return errorResponse(QJsonValue::Null, parseErrorCode, QStringLiteral("Parse error")); }

int McpServer::serve(int input, QTextStream& out) {
    QByteArray pending;
    char buffer[64 * 1024];
    while (true) {
        const ssize_t got = ::read(input, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;  // the client closed the connection
        pending.append(buffer, got);
        for (qsizetype newline = pending.indexOf('\n'); newline >= 0; newline = pending.indexOf('\n')) {
            const QByteArray line = pending.left(newline).trimmed();
            pending.remove(0, newline + 1);
            if (line.isEmpty()) continue;
            QJsonParseError parseFailure;
            const QJsonDocument document = QJsonDocument::fromJson(line, &parseFailure);
            std::optional<QJsonObject> reply;
            if (parseFailure.error != QJsonParseError::NoError) {
                reply = parseError();
            } else if (!document.isObject()) {
                reply = errorResponse(QJsonValue::Null, invalidRequestCode, QStringLiteral("Invalid Request"));
            } else {
                reply = handle(document.object());
            }
            if (reply) {
                out << QJsonDocument(*reply).toJson(QJsonDocument::Compact) << '\n';
                out.flush();
            }
        }
    }
    return success;
}

std::optional<QJsonObject> McpServer::handle(const QJsonObject& message) {
    const QJsonValue id = message.value(u"id");
    const bool isNotification = !message.contains(u"id");
    const QString method = message.value(u"method").toString();
    const QJsonObject params = message.value(u"params").toObject();
    if (message.value(u"jsonrpc").toString() != u"2.0" || method.isEmpty()) {
        // Responses from the client (to requests we never send) need no answer.
        if (isNotification || message.contains(u"result") || message.contains(u"error")) return std::nullopt;
        return errorResponse(id, invalidRequestCode, QStringLiteral("Invalid Request"));
    }
    if (method == u"notifications/cancelled") {
        cancelled_.insert(params.value(u"requestId").toVariant().toString());
        return std::nullopt;
    }
    if (isNotification) return std::nullopt;  // "notifications/initialized" and the like
    if (cancelled_.remove(id.toVariant().toString())) return std::nullopt;

    if (method == u"initialize") return response(id, initialize(params));
    if (method == u"ping") return response(id, {});
    if (method == u"tools/list") return response(id, {{"tools", mcpToolDefinitions()}});
    if (method == u"tools/call") {
        if (!params.value(u"name").isString()) {
            return errorResponse(id, invalidParamsCode, QStringLiteral("tools/call needs a tool name"));
        }
        if (!mcpToolNames().contains(params.value(u"name").toString())) {
            return errorResponse(id, invalidParamsCode, QStringLiteral("Unknown tool: ") + params.value(u"name").toString());
        }
        return response(id, callTool(params));
    }
    return errorResponse(id, methodNotFoundCode, QStringLiteral("Method not found: ") + method);
}

QJsonObject McpServer::initialize(const QJsonObject& params) {
    clientName_ = params.value(u"clientInfo").toObject().value(u"name").toString();
    const QString requested = params.value(u"protocolVersion").toString();
    const QString version =
        supportedProtocolVersions().contains(requested) ? requested : supportedProtocolVersions().front();
    return {{"protocolVersion", version},
            {"capabilities", QJsonObject{{"tools", QJsonObject{{"listChanged", false}}}}},
            {"serverInfo", QJsonObject{{"name", "mossly"}, {"title", "Mossly notes"}, {"version", "0.1.0"}}},
            {"instructions", mcpInstructions()}};
}

NoteEditor McpServer::editor() const {
    if (options_.agentName) return NoteEditor::agent(*options_.agentName);
    return NoteEditor::agent(clientName_.trimmed().isEmpty() ? QStringLiteral("mcp") : clientName_.trimmed());
}

QJsonObject McpServer::callTool(const QJsonObject& params) {
    // Access is checked on every call: the user may turn it off while the agent runs.
    if (auto allowed = AgentAccess::require(); !allowed) return toolError(allowed.error().description());
    const QString name = params.value(u"name").toString();
    const QJsonObject arguments = params.value(u"arguments").toObject();
    Result<QJsonObject> result = fail(Error::notFound(name));
    if (name == u"search_notes") result = searchNotes(arguments);
    if (name == u"list_notes") result = listNotes(arguments);
    if (name == u"read_note") result = readNote(arguments);
    if (name == u"create_note") result = createNote(arguments);
    if (name == u"update_note") result = updateNote(arguments);
    if (name == u"trash_note") result = trashNote(arguments);
    if (name == u"note_history") result = mcpNoteHistory(repository_, arguments);
    if (name == u"restore_note_version") {
        auto restored = mcpRestoreNoteVersion(repository_, arguments, editor());
        result = restored ? Result<QJsonObject>(noteObject(*restored)) : fail(restored.error());
        catalogStale_ = catalogStale_ || restored.has_value();
    }
    if (!result) return toolError(result.error().description());
    return toolResult(*result);
}

// The catalog and the vectors in memory stay for the life of the server and
// are brought up to date only when the folder changed since the last search.
Result<NoteSearchService*> McpServer::currentSearch() {
    if (!search_) {
        auto opened = NoteSearchService::open(options_.catalogPath);
        if (!opened) return fail(opened.error());
        search_ = std::move(*opened);
    }
    if (!watch_) {
        auto directory = repository_.directoryURL();
        if (directory) watch_ = std::make_unique<FolderTreeWatch>(*directory);
    }
    if (watch_ && watch_->takeChanges()) {
        watch_->watchNewFolders();
        catalogStale_ = true;
    }
    if (catalogStale_ || !watch_ || !watch_->isValid()) {
        if (auto synced = search_->synchronizeKeywords(repository_); !synced) return fail(synced.error());
        catalogStale_ = false;
    } else if (!meaningIndexing_) {
        // Another process may have embedded notes.
        if (auto refreshed = search_->refreshVectors(false); !refreshed) return fail(refreshed.error());
    }
    if (search_->meaningBehind()) indexMeaningInBackground();
    return search_.get();
}

void McpServer::indexMeaningInBackground() {
    if (meaningIndexing_.exchange(true)) return;
    if (meaningIndexer_.joinable()) meaningIndexer_.join();
    auto directory = repository_.directoryURL();
    if (!directory) {
        meaningIndexing_ = false;
        return;
    }
    meaningIndexer_ = std::jthread([this, folder = *directory](std::stop_token stop) {
        // A repository of its own: this thread only reads notes.
        const NoteRepository reader(folder);
        if (auto done = search_->synchronizeMeaning(reader, stop); !done && done.error().code() != Error::Code::cancelled) {
            QTextStream(stderr) << "mossly-agent: meaning search indexing failed: " << done.error().description() << "\n";
        }
        meaningIndexing_ = false;
    });
}

Result<QJsonObject> McpServer::searchNotes(const QJsonObject& arguments) {
    const auto query = stringArgument(arguments, "query");
    if (!query) return fail(Error::invalidArgument(QStringLiteral("search_notes needs a query")));
    const qint64 limit = arguments.value(u"limit").toInteger(defaultSearchLimit);
    const QString modeText = stringArgument(arguments, "mode").value_or(QStringLiteral("hybrid"));
    const auto mode = NoteSearchModes::fromString(modeText);
    if (!mode) {
        return fail(Error::invalidArgument(QStringLiteral("mode must be keyword, meaning or hybrid, got: ") + modeText));
    }
    auto search = currentSearch();
    if (!search) return fail(search.error());
    auto found = (*search)->search(*query, *mode, limit);
    if (!found) return fail(found.error());
    QJsonArray results;
    for (const NoteSearchResult& result : found->results) {
        QJsonObject entry{{"identifier", result.identifier}, {"title", result.title}, {"excerpt", result.excerpt},
                          {"score", result.score}, {"keywordScore", result.keywordScore},
                          {"revision", result.revision}, {"createdBy", result.createdBy},
                          {"semanticAvailable", result.semanticAvailable}};
        entry.insert(u"meaningScore", result.meaningScore ? QJsonValue(*result.meaningScore) : QJsonValue());
        entry.insert(u"lastEditedBy", result.lastEditedBy ? QJsonValue(*result.lastEditedBy) : QJsonValue());
        results.append(entry);
    }
    QJsonObject response{{"results", results}, {"semanticAvailable", found->semanticAvailable}};
    if (found->warning) response.insert(u"warning", *found->warning);
    return response;
}

Result<QJsonObject> McpServer::listNotes(const QJsonObject& arguments) {
    const QString folder = stringArgument(arguments, "folder").value_or(QString());
    const qint64 limit = std::clamp<qint64>(arguments.value(u"limit").toInteger(defaultListLimit), 1, 1000);
    bool cursorOk = true;
    const QString cursorText = stringArgument(arguments, "cursor").value_or(QStringLiteral("0"));
    const qint64 start = cursorText.toLongLong(&cursorOk);
    if (!cursorOk || start < 0) return fail(Error::invalidArgument(QStringLiteral("Invalid cursor: ") + cursorText));
    auto listing = repository_.enumerateMetadata();
    if (!listing) return fail(listing.error());
    const QString prefix = folder.isEmpty() || folder.endsWith(u'/') ? folder : folder + u'/';
    QSet<QString> identifiers;
    for (const NoteFileMetadata& entry : *listing) identifiers.insert(entry.identifier);
    QJsonArray notes;
    qint64 index = 0;
    std::optional<qint64> next;
    for (const NoteFileMetadata& entry : *listing) {
        if (!entry.identifier.startsWith(prefix)) continue;
        if (index++ < start) continue;
        if (notes.size() == limit) {
            next = index - 1;
            break;
        }
        QJsonObject note{{"identifier", entry.identifier}, {"contentType", rawValue(entry.contentType)},
                         {"modifiedAt", isoTimestamp(entry.modifiedAt)}, {"fileSize", entry.fileSize}};
        // Another machine's version of a note, kept by a sync engine: the agent should edit the note.
        if (const auto copy = syncConflictCopyOf(entry.identifier); copy && identifiers.contains(copy->original)) {
            note.insert(u"conflictOf", copy->original);
            note.insert(u"syncEngine", copy->engine);
        }
        notes.append(note);
    }
    QJsonObject result{{"notes", notes}};
    if (next) result.insert(u"nextCursor", QString::number(*next));
    return result;
}

Result<QJsonObject> McpServer::readNote(const QJsonObject& arguments) {
    const auto identifier = stringArgument(arguments, "identifier");
    if (!identifier) return fail(Error::invalidArgument(QStringLiteral("read_note needs an identifier")));
    auto note = repository_.read(*identifier);
    if (!note) return fail(note.error());
    QJsonObject object = noteObject(*note);
    if (const auto copy = syncConflictCopyOf(note->identifier); copy && repository_.read(copy->original)) {
        object.insert(u"conflictOf", copy->original);
        object.insert(u"syncEngine", copy->engine);
    }
    return object;
}

Result<QJsonObject> McpServer::createNote(const QJsonObject& arguments) {
    const auto title = stringArgument(arguments, "title");
    if (!title || title->trimmed().isEmpty()) {
        return fail(Error::invalidArgument(QStringLiteral("create_note needs a title")));
    }
    const QString type = stringArgument(arguments, "type").value_or(QStringLiteral("markdown"));
    const auto contentType = noteContentTypeFromRawValue(type);
    if (!contentType) return fail(Error::unsupportedContentType(type));
    auto fields = fieldsFrom(arguments.value(u"fields"));
    if (!fields) return fail(Error::invalidArgument(fields.error()));
    auto created = repository_.create(*title, stringArgument(arguments, "body").value_or(QString()), editor(),
                                      *contentType, *fields);
    if (!created) return fail(created.error());
    catalogStale_ = true;
    return noteObject(*created);
}

Result<QJsonObject> McpServer::updateNote(const QJsonObject& arguments) {
    const auto identifier = stringArgument(arguments, "identifier");
    const auto expected = stringArgument(arguments, "expectedRevision");
    if (!identifier || !expected) {
        return fail(Error::invalidArgument(QStringLiteral("update_note needs an identifier and expectedRevision")));
    }
    auto fields = fieldsFrom(arguments.value(u"fields"));
    if (!fields) return fail(Error::invalidArgument(fields.error()));
    const auto body = stringArgument(arguments, "body");
    if (!body && fields->empty()) {
        return fail(Error::invalidArgument(QStringLiteral("update_note needs a body or fields to change")));
    }
    auto updated = writeWatchingSyncthing(repository_, *identifier, [&] {
        return repository_.update(*identifier, *expected, body, editor(), std::nullopt, *fields);
    });
    if (!updated) return fail(updated.error());
    catalogStale_ = true;
    return noteObject(*updated);
}

Result<QJsonObject> McpServer::trashNote(const QJsonObject& arguments) {
    const auto identifier = stringArgument(arguments, "identifier");
    if (!identifier) return fail(Error::invalidArgument(QStringLiteral("trash_note needs an identifier")));
    if (auto trashed = repository_.moveToTrash(*identifier, editor()); !trashed) return fail(trashed.error());
    catalogStale_ = true;
    return QJsonObject{{"identifier", *identifier}, {"trashed", true}};
}

}  // namespace mossly::agent
