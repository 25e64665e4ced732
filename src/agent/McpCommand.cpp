#include <unistd.h>

#include "AgentCommand.h"
#include "McpServer.h"

namespace mossly::agent {

int runMcp(const QStringList& arguments, AgentIo& io) {
    auto options = CommandOptions::parse(arguments, {QStringLiteral("agent")});
    if (!options) return printUsage(io, options.error());
    if (!options->positional().isEmpty()) return printUsage(io, {QStringLiteral("mcp takes no arguments")});
    auto repository = repositoryFor(*options, io);
    if (!repository) return printError(io, repository.error());
    McpServer server(*repository, {catalogPathFor(*options), options->value(QStringLiteral("agent"))});
    return server.serve(STDIN_FILENO, io.out);
}

}  // namespace mossly::agent
