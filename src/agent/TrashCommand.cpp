#include "AgentCommand.h"
#include "JsonWriter.h"

namespace mossly::agent {

int runTrash(const QStringList& arguments, AgentIo& io) {
    auto options = CommandOptions::parse(arguments, {"agent"});
    if (!options) return printUsage(io, options.error());
    if (options->positional().size() != 1) {
        return printUsage(io, {QStringLiteral("Usage: mossly-agent trash ID [--agent NAME]")});
    }
    // Who trashed the note is kept with its last version in the history.
    const QString agent = options->value(QStringLiteral("agent")).value_or(QStringLiteral("mossly-agent"));
    const NoteEditor trashedBy = NoteEditor::agent(agent);
    auto repository = repositoryFor(*options, io);
    if (!repository) return printError(io, repository.error());
    const QString identifier = options->positional().front();
    if (auto trashed = repository->moveToTrash(identifier, trashedBy); !trashed) return printError(io, trashed.error());
    return printJson(io, JsonObjectWriter()
                             .add(QStringLiteral("identifier"), identifier)
                             .add(QStringLiteral("trashed"), true)
                             .text());
}

}  // namespace mossly::agent
