#include "AgentCommand.h"
#include "SyncthingWrites.h"

namespace mossly::agent {

int runUpdate(const QStringList& arguments, AgentIo& io) {
    auto options = CommandOptions::parse(arguments, {"expected-revision", "body", "body-file", "field", "agent"},
                                         {"field"});
    if (!options) return printUsage(io, options.error());
    const auto revision = options->value(QStringLiteral("expected-revision"));
    if (!revision || options->positional().size() != 1) {
        return printUsage(io, {QStringLiteral("Usage: mossly-agent update ID --expected-revision R "
                                              "[--body TEXT | --body-file F] [--field KEY=VALUE]… --agent NAME")});
    }
    auto write = noteWriteFrom(*options, io);
    if (!write) return printUsage(io, write.error());

    auto repository = repositoryFor(*options, io);
    if (!repository) return printError(io, repository.error());
    const QString identifier = options->positional().front();
    auto note = writeWatchingSyncthing(*repository, identifier, [&] {
        return repository->update(identifier, *revision, write->body, write->editor, std::nullopt, write->fields);
    });
    if (!note) return printError(io, note.error());
    return printJson(io, noteJson(*note));
}

}  // namespace mossly::agent
