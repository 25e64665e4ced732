#include <unistd.h>

#include "AgentCommand.h"
#include "JsonWriter.h"
#include "NoteSearchCatalog.h"

namespace mossly::agent {

namespace {
constexpr qint64 defaultLimit = 20;
}

int runSearch(const QStringList& arguments, AgentIo& io) {
    auto options = CommandOptions::parse(arguments, {"limit"});
    if (!options) return printUsage(io, options.error());
    if (options->positional().size() != 1) {
        return printUsage(io, {QStringLiteral("Usage: mossly-agent search QUERY [--limit N]")});
    }
    qint64 limit = defaultLimit;
    if (const auto text = options->value(QStringLiteral("limit"))) {
        bool ok = false;
        limit = text->toLongLong(&ok);
        if (!ok) return printUsage(io, {QStringLiteral("--limit needs a whole number, got: ") + *text});
    }
    auto repository = repositoryFor(*options, io);
    if (!repository) return printError(io, repository.error());
    auto catalog = NoteSearchCatalog::open(catalogPathFor(*options));
    if (!catalog) return printError(io, catalog.error());
    if (auto synced = (*catalog)->synchronize(*repository); !synced) return printError(io, synced.error());
    auto response = (*catalog)->search(options->positional().front(), limit);
    if (!response) return printError(io, response.error());
    return printJson(io, NoteSearch::toJson(*response));
}

int runSync(const QStringList& arguments, AgentIo& io) {
    auto options = CommandOptions::parse(arguments, {});
    if (!options) return printUsage(io, options.error());
    if (!options->positional().isEmpty()) return printUsage(io, {QStringLiteral("sync takes no arguments")});
    auto repository = repositoryFor(*options, io);
    if (!repository) return printError(io, repository.error());
    auto catalog = NoteSearchCatalog::open(catalogPathFor(*options));
    if (!catalog) return printError(io, catalog.error());
    // On a terminal, a long first index says how far it is.
    if (::isatty(STDERR_FILENO)) {
        (*catalog)->setProgressHandler([&io](int done, int total) {
            if (total < 200) return;
            io.err << QStringLiteral("\rIndexing notes: %1 of %2").arg(done).arg(total) << (done == total ? "\n" : "");
            io.err.flush();
        });
    }
    auto indexed = (*catalog)->synchronize(*repository);
    if (!indexed) return printError(io, indexed.error());
    auto count = (*catalog)->count();
    if (!count) return printError(io, count.error());
    return printJson(io, JsonObjectWriter()
                             .add(QStringLiteral("indexed"), static_cast<qint64>(*indexed))
                             .add(QStringLiteral("count"), *count)
                             .text());
}

}  // namespace mossly::agent
