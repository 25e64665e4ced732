#include "AgentCommand.h"
#include "NoteHistory.h"
#include "JsonWriter.h"
#include "SyncConflictCopies.h"

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
    QString json = noteJson(*note);
    // Another machine's version of a note: say which, so the agent edits the note, not the copy.
    if (const auto copy = syncConflictCopyOf(note->identifier); copy && repository->read(copy->original)) {
        json.chop(1);
        json += u',' + JsonObjectWriter()
                           .add(QStringLiteral("conflictOf"), copy->original)
                           .add(QStringLiteral("syncEngine"), copy->engine)
                           .text()
                           .mid(1);
    }
    return printJson(io, json);
}

}  // namespace mossly::agent
