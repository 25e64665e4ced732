#include "AgentCommand.h"
#include "JsonWriter.h"

namespace mossly::agent {

int runTrash(const QStringList& arguments, AgentIo& io) {
    auto options = CommandOptions::parse(arguments, {});
    if (!options) return printUsage(io, options.error());
    if (options->positional().size() != 1) return printUsage(io, {QStringLiteral("Usage: mossly-agent trash ID")});
    auto repository = repositoryFor(*options, io);
    if (!repository) return printError(io, repository.error());
    const QString identifier = options->positional().front();
    if (auto trashed = repository->moveToTrash(identifier); !trashed) return printError(io, trashed.error());
    return printJson(io, JsonObjectWriter()
                             .add(QStringLiteral("identifier"), identifier)
                             .add(QStringLiteral("trashed"), true)
                             .text());
}

}  // namespace mossly::agent
