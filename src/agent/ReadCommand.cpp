#include "AgentCommand.h"
#include "NoteHistory.h"

namespace mossly::agent {

int runRead(const QStringList& arguments, AgentIo& io) {
    auto options = CommandOptions::parse(arguments, {"version"});
    if (!options) return printUsage(io, options.error());
    if (options->positional().size() != 1) {
        return printUsage(io, {QStringLiteral("Usage: mossly-agent read ID [--version REVISION]")});
    }
    auto repository = repositoryFor(*options, io);
    if (!repository) return printError(io, repository.error());
    const QString identifier = options->positional().front();
    const auto version = options->value(QStringLiteral("version"));
    auto note = version ? readNoteVersion(*repository, identifier, *version) : repository->read(identifier);
    if (!note) return printError(io, note.error());
    return printJson(io, noteJson(*note));
}

}  // namespace mossly::agent
