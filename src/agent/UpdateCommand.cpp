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
    const auto before = repository->read(options->positional().front());
    auto note = repository->update(options->positional().front(), *revision, write->body, write->editor,
                                   std::nullopt, write->fields);
    if (!note) return printError(io, note.error());
    // Syncthing may rename a download over the note just after this write: never report such a write as done.
    auto kept = keepWriteReplacedBySyncthing(*repository, before ? before->document.body : QString(), *note,
                                             std::chrono::milliseconds(300));
    if (!kept) return printError(io, kept.error());
    if (*kept) {
        io.err << "Syncthing replaced the note while it was written. Your text was kept as \"" << **kept
               << "\"; read the note again before editing.\n";
        return failure;
    }
    return printJson(io, noteJson(*note));
}

}  // namespace mossly::agent
