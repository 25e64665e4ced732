#include "AgentCommand.h"
#include "NoteHistory.h"
#include "SyncthingWrites.h"

namespace mossly::agent {

int runRestore(const QStringList& arguments, AgentIo& io) {
    auto options = CommandOptions::parse(arguments, {"version", "expected-revision", "agent"});
    if (!options) return printUsage(io, options.error());
    const auto version = options->value(QStringLiteral("version"));
    const auto expected = options->value(QStringLiteral("expected-revision"));
    const auto agent = options->value(QStringLiteral("agent"));
    if (!version || !expected || !agent || agent->trimmed().isEmpty() || options->positional().size() != 1) {
        return printUsage(io, {QStringLiteral("Usage: mossly-agent restore ID --version REVISION "
                                              "--expected-revision R --agent NAME")});
    }
    auto repository = repositoryFor(*options, io);
    if (!repository) return printError(io, repository.error());
    const QString identifier = options->positional().front();
    auto restored = writeWatchingSyncthing(*repository, identifier, [&] {
        return restoreNoteVersion(*repository, identifier, *version, *expected, NoteEditor::agent(agent->trimmed()));
    });
    if (!restored) return printError(io, restored.error());
    return printJson(io, noteJson(*restored));
}

}  // namespace mossly::agent
