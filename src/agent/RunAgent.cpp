#include <QRegularExpression>

#include "AgentAccess.h"
#include "AgentCommand.h"

namespace mossly::agent {

namespace {

using Access = AgentSubcommand::Access;

const QString commonOptions = QStringLiteral("[--notes-dir DIR] [--catalog FILE]");

const char* const overview = R"(mossly-agent: read, search and edit Mossly notes safely while the app runs.

Usage: mossly-agent COMMAND [ARGUMENTS] [--notes-dir DIR] [--catalog FILE]
       mossly-agent COMMAND --help

Commands:
)";

const char* const closing = R"(
Every command that reads or writes notes needs agent access turned on (Mossly's Settings, or
"mossly-agent access on"). Output is one JSON document on stdout. Errors go to stderr; exit code 1 for a
failed operation, 2 for a usage error.
)";

std::vector<AgentSubcommand> buildTable() {
    const QStringList clients{QStringLiteral("claude-desktop"), QStringLiteral("claude-code"),
                              QStringLiteral("codex")};
    return {
        {.name = QStringLiteral("list"),
         .summary = QStringLiteral("every note: identifier, type, date, size"),
         .access = Access::required,
         .run = runList},
        {.name = QStringLiteral("read"),
         .synopsis = QStringLiteral("ID [--version REVISION]"),
         .summary = QStringLiteral("one note with its body, front matter and revision, or one of its past versions"),
         .details = QStringLiteral("ID is the note's path relative to the notes folder, such as "
                                   "\"Projects/Plan.md\"."),
         .access = Access::required,
         .run = runRead},
        {.name = QStringLiteral("create"),
         .synopsis = QStringLiteral("--title T [--body TEXT | --body-file F|-] [--type markdown|html|sketch] "
                                    "[--field KEY=VALUE]... --agent NAME"),
         .summary = QStringLiteral("a new note named after its title (never overwrites)"),
         .details =
             QStringLiteral("--body-file - reads the body from standard input. Field values follow the "
                            "front-matter grammar: 3 is an integer, true and false booleans, 1.5 a "
                            "number, [\"a\",\"b\"] a list, anything else text."),
         .access = Access::required,
         .run = runCreate},
        {.name = QStringLiteral("update"),
         .synopsis = QStringLiteral("ID --expected-revision R [--body TEXT | --body-file F|-] "
                                    "[--field KEY=VALUE]... --agent NAME"),
         .summary = QStringLiteral("new body and/or fields, only if the note still has revision R"),
         .details = QStringLiteral("A note that changed after it was read is refused with \"The note changed "
                                   "after it was read. Fetch it again before editing.\" and nothing is "
                                   "written."),
         .access = Access::required,
         .run = runUpdate},
        {.name = QStringLiteral("search"),
         .synopsis = QStringLiteral("QUERY [--mode M] [--limit N]"),
         .summary = QStringLiteral("ranked search by words and meaning (indexes first)"),
         .details = QStringLiteral("M is hybrid (words and meaning, the default), keyword, or meaning (English "
                                   "only). N is 0 to 500, 20 by default. Each result carries openURL, a mossly:// "
                                   "link that opens the note in Mossly."),
         .access = Access::required,
         .run = runSearch},
        {.name = QStringLiteral("trash"),
         .synopsis = QStringLiteral("ID [--agent NAME]"),
         .summary = QStringLiteral("move a note to the Trash"),
         .access = Access::required,
         .run = runTrash},
        {.name = QStringLiteral("history"),
         .synopsis = QStringLiteral("ID"),
         .summary = QStringLiteral("the note's versions, newest first: who saved each, and when"),
         .access = Access::required,
         .run = runHistory},
        {.name = QStringLiteral("restore"),
         .synopsis = QStringLiteral("ID --version REVISION --expected-revision R --agent NAME"),
         .summary = QStringLiteral("write a past version back (only if the note is still at R)"),
         .details = QStringLiteral("REVISION comes from \"mossly-agent history ID\". The restore is itself "
                                   "recorded in the history."),
         .access = Access::required,
         .run = runRestore},
        {.name = QStringLiteral("sync"),
         .summary = QStringLiteral("bring the search catalog up to date"),
         .access = Access::required,
         .run = runSync},
        {.name = QStringLiteral("mcp"),
         .synopsis = QStringLiteral("[--agent NAME]"),
         .summary = QStringLiteral("serve the notes to AI agents over MCP (stdio)"),
         .details = QStringLiteral("Runs until standard input ends. While agent access is off, every tool "
                                   "call is answered with the reason."),
         .access = Access::answeredPerCall,
         .run = runMcp},
        {.name = QStringLiteral("access"),
         .synopsis = QStringLiteral("on|off|status"),
         .summary = QStringLiteral("let agents use the notes, or not"),
         .firstArguments = {QStringLiteral("on"), QStringLiteral("off"), QStringLiteral("status")},
         .access = Access::none,
         .run = runAccess},
        {.name = QStringLiteral("register"),
         .synopsis = QStringLiteral("CLIENT"),
         .summary = QStringLiteral("add the MCP server to an agent's settings"),
         .details = QStringLiteral("CLIENT is claude-desktop, claude-code or codex. Only Mossly's own entry "
                                   "changes; the previous file is kept as FILE.mossly-backup."),
         .firstArguments = clients,
         .access = Access::none,
         .run = [](const QStringList& arguments, AgentIo& io) { return runRegister(arguments, io, true); }},
        {.name = QStringLiteral("unregister"),
         .synopsis = QStringLiteral("CLIENT"),
         .summary = QStringLiteral("remove the MCP server from an agent's settings"),
         .details = QStringLiteral("CLIENT is claude-desktop, claude-code or codex."),
         .firstArguments = clients,
         .access = Access::none,
         .run = [](const QStringList& arguments, AgentIo& io) { return runRegister(arguments, io, false); }},
        {.name = QStringLiteral("clients"),
         .summary = QStringLiteral("where each agent stands"),
         .access = Access::none,
         .run = runClients},
        {.name = QStringLiteral("install"),
         .summary = QStringLiteral("link ~/.local/bin/mossly-agent to this program"),
         .access = Access::none,
         .run = runInstall},
        // The user's own importer, writing as "agent:granola": the user's action, not an agent's.
        {.name = QStringLiteral("import-granola"),
         .summary = QStringLiteral("import and update notes from Granola"),
         .details = QStringLiteral("The API key comes from MOSSLY_GRANOLA_API_KEY, else from the keyring. "
                                   "Exit code 1 when the run stopped early."),
         .access = Access::none,
         .run = runImportGranola},
        {.name = QStringLiteral("completion"),
         .synopsis = QStringLiteral("bash|zsh"),
         .summary = QStringLiteral("print the shell completion script"),
         .details = QStringLiteral("For example: source <(mossly-agent completion bash)"),
         .firstArguments = {QStringLiteral("bash"), QStringLiteral("zsh")},
         .access = Access::none,
         .run = runCompletion},
    };
}

// Wraps text at 100 columns, each line indented.
QString wrapped(const QString& text, const QString& indent) {
    QString result;
    QString line = indent;
    for (const QString& word : text.split(u' ', Qt::SkipEmptyParts)) {
        if (line.size() > indent.size() && line.size() + 1 + word.size() > 100) {
            result += line + u'\n';
            line = indent;
        }
        if (line.size() > indent.size()) line += u' ';
        line += word;
    }
    return result + line + u'\n';
}

bool asksForHelp(const QStringList& arguments) {
    for (const QString& argument : arguments) {
        if (argument == u"--") return false;
        if (argument == u"--help" || argument == u"-h") return true;
    }
    return false;
}

int printText(AgentIo& io, const QString& text) {
    io.out << text;
    io.out.flush();
    return success;
}

}  // namespace

const std::vector<AgentSubcommand>& agentSubcommands() {
    static const std::vector<AgentSubcommand> table = buildTable();
    return table;
}

QString subcommandUsage(const AgentSubcommand& command) {
    QString usage = QStringLiteral("Usage: mossly-agent ") + command.name;
    if (!command.synopsis.isEmpty()) usage += u' ' + command.synopsis;
    usage += u' ' + commonOptions + QStringLiteral("\n\n");
    QString summary = command.summary;
    summary[0] = summary[0].toUpper();
    usage += wrapped(summary + u'.', {});
    if (!command.details.isEmpty()) usage += u'\n' + wrapped(command.details, {});
    if (command.access == Access::required) {
        usage += QStringLiteral("\nNeeds agent access turned on (\"mossly-agent access on\").\n");
    } else {
        usage += u'\n';
    }
    usage += QStringLiteral("Exit codes: 0 success, 1 the operation failed, 2 usage error.\n");
    return usage;
}

QString agentUsage() {
    QString usage = QString::fromUtf8(overview);
    for (const AgentSubcommand& command : agentSubcommands()) {
        const QString call =
            command.synopsis.isEmpty() ? command.name : command.name + u' ' + command.synopsis;
        usage += QStringLiteral("  ") + call + u'\n';
        usage += QStringLiteral("        ") + command.summary + u'\n';
    }
    return usage + QString::fromUtf8(closing);
}

QStringList subcommandOptions(const AgentSubcommand& command) {
    static const QRegularExpression option(QStringLiteral("--[a-z][a-z-]*"));
    QStringList options;
    for (const auto& match : option.globalMatch(command.synopsis + u' ' + commonOptions)) {
        if (!options.contains(match.captured())) options.append(match.captured());
    }
    return options;
}

int runAgent(const QStringList& arguments, AgentIo& io) {
    if (arguments.isEmpty()) return printUsage(io, {QStringLiteral("Missing command")});
    const QString name = arguments.front();
    const QStringList rest = arguments.mid(1);
    const auto& table = agentSubcommands();
    const auto find = [&table](const QString& wanted) {
        return std::find_if(table.begin(), table.end(),
                            [&](const AgentSubcommand& c) { return c.name == wanted; });
    };
    if (name == u"help" || name == u"--help" || name == u"-h") {
        if (rest.isEmpty() || rest.front().startsWith(u'-')) return printText(io, agentUsage());
        const auto command = find(rest.front());
        if (command == table.end())
            return printUsage(io, {QStringLiteral("Unknown command: ") + rest.front()});
        return printText(io, subcommandUsage(*command));
    }
    const auto command = find(name);
    if (command == table.end()) return printUsage(io, {QStringLiteral("Unknown command: ") + name});
    if (asksForHelp(rest)) return printText(io, subcommandUsage(*command));
    // The user decides whether agents may touch the notes at all.
    if (command->access == Access::required) {
        if (auto allowed = AgentAccess::require(); !allowed) return printError(io, allowed.error());
    }
    return command->run(rest, io);
}

}  // namespace mossly::agent
