#pragma once

#include <QIODevice>
#include <QString>
#include <QStringList>
#include <QTextStream>
#include <functional>
#include <optional>
#include <vector>

#include "Error.h"
#include "NoteHistoryStore.h"
#include "NoteRepository.h"

namespace mossly::agent {

// The streams a command talks through; tests pass buffers.
struct AgentIo {
    QTextStream& out;
    QTextStream& err;
    QIODevice& in;
};

enum ExitCode : int { success = 0, failure = 1, usageError = 2 };

// Raised by option parsing: printed on stderr with exit code 2.
struct UsageError {
    QString message;
};

// Options every subcommand understands, parsed from its arguments.
class CommandOptions {
public:
    // `valueOptions` take a value ("--limit 5" or "--limit=5"); `repeatable` may appear many times.
    static std::expected<CommandOptions, UsageError> parse(const QStringList& arguments,
                                                           const QStringList& valueOptions,
                                                           const QStringList& repeatable = {});

    std::optional<QString> value(const QString& name) const;
    QStringList values(const QString& name) const;
    const QStringList& positional() const { return positional_; }

private:
    QList<std::pair<QString, QString>> values_;
    QStringList positional_;
};

// The repository for --notes-dir, or the folder from the notes-location configuration.
Result<NoteRepository> repositoryFor(const CommandOptions& options, AgentIo& io);
// The catalog file for --catalog, or the default one in the caches folder.
QString catalogPathFor(const CommandOptions& options);
// The note body from --body, --body-file FILE or --body-file - (stdin); none when neither is given.
std::expected<std::optional<QString>, UsageError> bodyFrom(const CommandOptions& options, AgentIo& io);
// --field KEY=VALUE pairs, typed with the front-matter value grammar.
std::expected<NoteFrontMatterFields, UsageError> fieldsFrom(const CommandOptions& options);
// What every write takes: --agent NAME (required), --field KEY=VALUE…, and the body.
struct NoteWrite {
    NoteEditor editor;
    NoteFrontMatterFields fields;
    std::optional<QString> body;
};
std::expected<NoteWrite, UsageError> noteWriteFrom(const CommandOptions& options, AgentIo& io);

// A note as agents see it: identifier, title, type, revision, editors, date, body, front matter.
QString noteJson(const StoredNote& note);

// A note's versions, newest first: {"identifier", "versions": [{"revision", "editedBy", "savedAt", "size"}…]}.
QString historyJson(const QString& identifier, const std::vector<NoteVersionInfo>& versions);

// Writes one JSON document (and a newline) to stdout; returns `success`.
int printJson(AgentIo& io, const QString& json);
// Writes the error's exact description to stderr; returns `failure`.
int printError(AgentIo& io, const Error& error);
int printUsage(AgentIo& io, const UsageError& error);

int runList(const QStringList& arguments, AgentIo& io);
int runRead(const QStringList& arguments, AgentIo& io);
int runCreate(const QStringList& arguments, AgentIo& io);
int runUpdate(const QStringList& arguments, AgentIo& io);
int runSearch(const QStringList& arguments, AgentIo& io);
int runTrash(const QStringList& arguments, AgentIo& io);
int runHistory(const QStringList& arguments, AgentIo& io);
int runRestore(const QStringList& arguments, AgentIo& io);
int runSync(const QStringList& arguments, AgentIo& io);
int runMcp(const QStringList& arguments, AgentIo& io);
int runAccess(const QStringList& arguments, AgentIo& io);
int runRegister(const QStringList& arguments, AgentIo& io, bool add);
int runClients(const QStringList& arguments, AgentIo& io);
int runInstall(const QStringList& arguments, AgentIo& io);
int runImportGranola(const QStringList& arguments, AgentIo& io);
int runCompletion(const QStringList& arguments, AgentIo& io);

// One subcommand as its --help, the manual and shell completion describe it.
struct AgentSubcommand {
    enum class Access {
        none,             // setting up: it is how the user grants access
        required,         // refused while agent access is off
        answeredPerCall,  // starts anyway and answers each call with the reason
    };
    QString name;
    QString synopsis{};                // what follows the name; every "--option" in it takes a value
    QString summary{};                 // one line
    QString details{};                 // a paragraph for --help, may be empty
    QStringList firstArguments{};      // the words the first argument may be (completion), if fixed
    Access access = Access::required;  // a new command touches notes only with the user's consent
    std::function<int(const QStringList&, AgentIo&)> run;
};
// Every subcommand, in the order --help lists them.
const std::vector<AgentSubcommand>& agentSubcommands();
// "Usage: mossly-agent NAME SYNOPSIS…" with the summary and details.
QString subcommandUsage(const AgentSubcommand& command);
// The program's whole usage: every subcommand's synopsis and summary.
QString agentUsage();
// The options a subcommand takes ("--title"…, and the ones every subcommand takes).
QStringList subcommandOptions(const AgentSubcommand& command);

// Dispatches "mossly-agent <subcommand> …" (arguments exclude the program name).
int runAgent(const QStringList& arguments, AgentIo& io);

}  // namespace mossly::agent
