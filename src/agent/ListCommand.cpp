#include "AgentCommand.h"
#include "JsonWriter.h"

namespace mossly::agent {

int runList(const QStringList& arguments, AgentIo& io) {
    auto options = CommandOptions::parse(arguments, {});
    if (!options) return printUsage(io, options.error());
    if (!options->positional().isEmpty()) return printUsage(io, {QStringLiteral("list takes no arguments")});
    auto repository = repositoryFor(*options, io);
    if (!repository) return printError(io, repository.error());
    auto listing = repository->enumerateMetadata();
    if (!listing) return printError(io, listing.error());

    QStringList notes;
    for (const NoteFileMetadata& entry : *listing) {
        notes.append(JsonObjectWriter()
                         .add(QStringLiteral("identifier"), entry.identifier)
                         .add(QStringLiteral("contentType"), rawValue(entry.contentType))
                         .add(QStringLiteral("modifiedAt"), isoTimestamp(entry.modifiedAt))
                         .add(QStringLiteral("fileSize"), entry.fileSize)
                         .text());
    }
    return printJson(io, JsonObjectWriter().addRaw(QStringLiteral("notes"), jsonArray(notes)).text());
}

}  // namespace mossly::agent
