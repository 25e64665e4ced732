#include "AgentCommand.h"

namespace mossly::agent {

int runCreate(const QStringList& arguments, AgentIo& io) {
    auto options = CommandOptions::parse(
        arguments, {"title", "body", "body-file", "type", "field", "agent"}, {"field"});
    if (!options) return printUsage(io, options.error());
    const auto title = options->value(QStringLiteral("title"));
    if (!title || !options->positional().isEmpty()) {
        return printUsage(io, {QStringLiteral("Usage: mossly-agent create --title T [--body TEXT | --body-file F] "
                                              "[--type markdown|html|sketch] [--field KEY=VALUE]… --agent NAME")});
    }
    auto write = noteWriteFrom(*options, io);
    if (!write) return printUsage(io, write.error());
    const QString typeName = options->value(QStringLiteral("type")).value_or(QStringLiteral("markdown"));
    const std::optional<NoteContentType> type = noteContentTypeFromRawValue(typeName);
    if (!type) return printError(io, Error::unsupportedContentType(typeName));

    auto repository = repositoryFor(*options, io);
    if (!repository) return printError(io, repository.error());
    auto note = repository->create(*title, write->body.value_or(QString()), write->editor, *type, write->fields);
    if (!note) return printError(io, note.error());
    return printJson(io, noteJson(*note));
}

}  // namespace mossly::agent
