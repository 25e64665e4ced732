#pragma once

#include <QIODevice>
#include <QJsonArray>
#include <QJsonObject>
#include <QSet>
#include <QTextStream>
#include <atomic>
#include <memory>
#include <optional>
#include <thread>

#include "FolderTreeWatch.h"
#include "NoteRepository.h"
#include "NoteSearchService.h"

namespace mossly::agent {

// The Model Context Protocol server of mossly-agent: JSON-RPC 2.0 over
// standard input and output, one message per line. It offers the notes as
// tools (search, list, read, create, revision-checked update, trash) through
// the same repository, lock and revision checks as the app, and keeps its
// search catalog open and current by watching the notes folder, so a search
// costs a query, not a walk of the whole library.
class McpServer {
public:
    struct Options {
        QString catalogPath;
        std::optional<QString> agentName;  // --agent; else the client's name
    };

    McpServer(NoteRepository repository, Options options);

    // Reads messages from a file descriptor (standard input) until it ends;
    // returns the process exit code. Reads what arrives, never waiting for
    // more than one message: the client waits for each answer.
    int serve(int input, QTextStream& out);
    // One message in; the response, if the message asks for one.
    std::optional<QJsonObject> handle(const QJsonObject& message);
    // A line that is not JSON gets a parse error.
    static QJsonObject parseError();

    static const QStringList& supportedProtocolVersions();

private:
    QJsonObject initialize(const QJsonObject& params);
    QJsonObject callTool(const QJsonObject& params);
    Result<QJsonObject> searchNotes(const QJsonObject& arguments);
    Result<QJsonObject> listNotes(const QJsonObject& arguments);
    Result<QJsonObject> readNote(const QJsonObject& arguments);
    Result<QJsonObject> createNote(const QJsonObject& arguments);
    Result<QJsonObject> updateNote(const QJsonObject& arguments);
    Result<QJsonObject> trashNote(const QJsonObject& arguments);
    Result<NoteSearchService*> currentSearch();
    // Embeds notes that lack vectors on a thread of its own; searches meanwhile
    // answer with keyword results and say that meaning search is still indexing.
    void indexMeaningInBackground();
    NoteEditor editor() const;

    NoteRepository repository_;
    Options options_;
    QString clientName_;
    std::unique_ptr<NoteSearchService> search_;
    std::atomic<bool> meaningIndexing_ = false;
    std::jthread meaningIndexer_;  // declared after search_: joined before it goes
    std::unique_ptr<FolderTreeWatch> watch_;
    bool catalogStale_ = true;
    QSet<QString> cancelled_;  // request ids the client gave up on
};

}  // namespace mossly::agent
