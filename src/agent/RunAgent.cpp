#include "AgentAccess.h"
#include "AgentCommand.h"

namespace mossly::agent {

namespace {

const char* const usage = R"(mossly-agent: read, search and edit Mossly notes safely while the app runs.

Usage: mossly-agent COMMAND [ARGUMENTS] [--notes-dir DIR] [--catalog FILE]

Commands:
  list                                   every note: identifier, type, date, size
  read ID [--version REVISION]           one note with its revision, or one of its past versions
  create --title T [--body TEXT | --body-file F|-] [--type markdown|html|sketch]
         [--field KEY=VALUE]... --agent NAME
  update ID --expected-revision R [--body TEXT | --body-file F|-]
         [--field KEY=VALUE]... --agent NAME
  search QUERY [--limit N]               ranked keyword search (indexes first)
  trash ID [--agent NAME]                move a note to the Trash
  history ID                             the note's versions, newest first: who saved each, and when
  restore ID --version REVISION --expected-revision R --agent NAME
                                         write a past version back (only if the note is still at R)
  sync                                   bring the search catalog up to date
  mcp [--agent NAME]                     serve the notes to AI agents over MCP (stdio)
  access on|off|status                   let agents use the notes, or not
  register CLIENT | unregister CLIENT    add or remove the MCP server in an agent's
                                         settings: claude-desktop, claude-code, codex
  clients                                where each agent stands
  install                                link ~/.local/bin/mossly-agent to this program
  import-granola                         import and update notes from Granola (key from
                                         MOSSLY_GRANOLA_API_KEY or the keyring)

Every command that reads or writes notes needs agent access turned on (Mossly's Settings, or
"mossly-agent access on"). Output is one JSON document on stdout. Errors go to stderr; exit code 1 for a
failed operation, 2 for a usage error.
)";

}  // namespace

int runAgent(const QStringList& arguments, AgentIo& io) {
    if (arguments.isEmpty()) return printUsage(io, {QStringLiteral("Missing command")});
    const QString command = arguments.front();
    const QStringList rest = arguments.mid(1);
    if (command == u"help" || command == u"--help" || command == u"-h") {
        io.out << usage;
        io.out.flush();
        return success;
    }
    // Setting up needs no access: it is how the user grants it.
    if (command == u"access") return runAccess(rest, io);
    if (command == u"register") return runRegister(rest, io, true);
    if (command == u"unregister") return runRegister(rest, io, false);
    if (command == u"clients") return runClients(rest, io);
    if (command == u"install") return runInstall(rest, io);
    // The user's own importer, writing as "agent:granola".
    if (command == u"import-granola") return runImportGranola(rest, io);
    using Runner = int (*)(const QStringList&, AgentIo&);
    const std::pair<const char16_t*, Runner> commands[] = {
        {u"list", runList},     {u"read", runRead},   {u"create", runCreate}, {u"update", runUpdate},
        {u"search", runSearch}, {u"trash", runTrash}, {u"sync", runSync},     {u"mcp", runMcp},
        {u"history", runHistory}, {u"restore", runRestore},
    };
    for (const auto& [name, run] : commands) {
        if (command != QStringView(name)) continue;
        // The user decides whether agents may touch the notes at all. The MCP
        // server starts anyway and answers each call with the reason, which
        // the agent can show.
        if (auto allowed = AgentAccess::require(); !allowed && command != u"mcp") return printError(io, allowed.error());
        return run(rest, io);
    }
    return printUsage(io, {QStringLiteral("Unknown command: ") + command});
}

}  // namespace mossly::agent
