#include "AgentCommand.h"
#include "JsonWriter.h"
#include "NoteHistory.h"

namespace mossly::agent {

QString historyJson(const QString& identifier, const std::vector<NoteVersionInfo>& versions) {
    QStringList entries;
    for (const NoteVersionInfo& version : versions) {
        entries.append(JsonObjectWriter()
                           .add(QStringLiteral("revision"), version.revision)
                           .add(QStringLiteral("editedBy"), version.editedBy.storedValue())
                           .add(QStringLiteral("savedAt"), isoTimestamp(version.savedAt))
                           .add(QStringLiteral("size"), version.size)
                           .text());
    }
    return JsonObjectWriter()
        .add(QStringLiteral("identifier"), identifier)
        .addRaw(QStringLiteral("versions"), jsonArray(entries))
        .text();
}

int runHistory(const QStringList& arguments, AgentIo& io) {
    auto options = CommandOptions::parse(arguments, {});
    if (!options) return printUsage(io, options.error());
    if (options->positional().size() != 1) return printUsage(io, {QStringLiteral("Usage: mossly-agent history ID")});
    auto repository = repositoryFor(*options, io);
    if (!repository) return printError(io, repository.error());
    const QString identifier = options->positional().front();
    auto versions = noteTimeline(*repository, identifier);
    if (!versions) return printError(io, versions.error());
    return printJson(io, historyJson(identifier, *versions));
}

}  // namespace mossly::agent
