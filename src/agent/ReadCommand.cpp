#include "AgentCommand.h"

namespace mossly::agent {

int runRead(const QStringList& arguments, AgentIo& io) {
    auto options = CommandOptions::parse(arguments, {});
    if (!options) return printUsage(io, options.error());
    if (options->positional().size() != 1) return printUsage(io, {QStringLiteral("Usage: mossly-agent read ID")});
    auto repository = repositoryFor(*options, io);
    if (!repository) return printError(io, repository.error());
    auto note = repository->read(options->positional().front());
    if (!note) return printError(io, note.error());
    return printJson(io, noteJson(*note));
}

}  // namespace mossly::agent
