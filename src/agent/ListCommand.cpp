#include <QSet>

#include "AgentCommand.h"
#include "JsonWriter.h"
#include "SyncConflictCopies.h"

namespace mossly::agent {

int runList(const QStringList& arguments, AgentIo& io) {
    auto options = CommandOptions::parse(arguments, {});
    if (!options) return printUsage(io, options.error());
    if (!options->positional().isEmpty()) return printUsage(io, {QStringLiteral("list takes no arguments")});
    auto repository = repositoryFor(*options, io);
    if (!repository) return printError(io, repository.error());
    auto listing = repository->enumerateMetadata();
    if (!listing) return printError(io, listing.error());

    QSet<QString> identifiers;
    for (const NoteFileMetadata& entry : *listing) identifiers.insert(entry.identifier);
    QStringList notes;
    for (const NoteFileMetadata& entry : *listing) {
        JsonObjectWriter note;
        note.add(QStringLiteral("identifier"), entry.identifier)
            .add(QStringLiteral("contentType"), rawValue(entry.contentType))
            .add(QStringLiteral("modifiedAt"), isoTimestamp(entry.modifiedAt))
            .add(QStringLiteral("fileSize"), entry.fileSize);
        // A sync engine's conflict copy is another machine's version of a note, not a note of its own.
        if (const auto copy = syncConflictCopyOf(entry.identifier); copy && identifiers.contains(copy->original)) {
            note.add(QStringLiteral("conflictOf"), copy->original).add(QStringLiteral("syncEngine"), copy->engine);
        }
        notes.append(note.text());
    }
    return printJson(io, JsonObjectWriter().addRaw(QStringLiteral("notes"), jsonArray(notes)).text());
}

}  // namespace mossly::agent
