#include <unistd.h>

#include "AgentCommand.h"
#include "JsonWriter.h"
#include "NoteSearchService.h"

namespace mossly::agent {

namespace {
constexpr qint64 defaultLimit = 20;
// On a terminal, a long first index says how far it is.
void showProgressOnTerminal(NoteSearchCatalog& catalog, AgentIo& io) {
    if (!::isatty(STDERR_FILENO)) return;
    const auto reporter = [&io](QString what) {
        return [&io, what](int done, int total) {
            if (total < 200) return;
            io.err << QStringLiteral("\r%1: %2 of %3").arg(what).arg(done).arg(total) << (done == total ? "\n" : "");
            io.err.flush();
        };
    };
    catalog.setProgressHandler(reporter(QStringLiteral("Indexing notes")));
    catalog.setSemanticProgressHandler(reporter(QStringLiteral("Indexing meaning")));
}

}  // namespace

int runSearch(const QStringList& arguments, AgentIo& io) {
    auto options = CommandOptions::parse(arguments, {"limit", "mode"});
    if (!options) return printUsage(io, options.error());
    if (options->positional().size() != 1) {
        return printUsage(io, {QStringLiteral("Usage: mossly-agent search QUERY [--mode keyword|meaning|hybrid] [--limit N]")});
    }
    const QString modeText = options->value(QStringLiteral("mode")).value_or(QStringLiteral("hybrid"));
    const auto mode = NoteSearchModes::fromString(modeText);
    if (!mode) return printUsage(io, {QStringLiteral("--mode must be keyword, meaning or hybrid, got: ") + modeText});
    qint64 limit = defaultLimit;
    if (const auto text = options->value(QStringLiteral("limit"))) {
        bool ok = false;
        limit = text->toLongLong(&ok);
        if (!ok) return printUsage(io, {QStringLiteral("--limit needs a whole number, got: ") + *text});
    }
    auto repository = repositoryFor(*options, io);
    if (!repository) return printError(io, repository.error());
    auto listing = NoteSearchService::listInBackground(*repository);
    auto search = NoteSearchService::open(catalogPathFor(*options));
    if (!search) {
        listing.wait();
        return printError(io, search.error());
    }
    (*search)->keepSnapshotsBesideCatalog();
    if (*mode != NoteSearchMode::keyword) showProgressOnTerminal((*search)->catalog(), io);
    auto response = (*search)->searchUpToDate(*repository, std::move(listing), options->positional().front(), *mode, limit);
    if (!response) return printError(io, response.error());
    return printJson(io, NoteSearch::toJson(*response));
}

int runSync(const QStringList& arguments, AgentIo& io) {
    auto options = CommandOptions::parse(arguments, {});
    if (!options) return printUsage(io, options.error());
    if (!options->positional().isEmpty()) return printUsage(io, {QStringLiteral("sync takes no arguments")});
    auto repository = repositoryFor(*options, io);
    if (!repository) return printError(io, repository.error());
    auto search = NoteSearchService::open(catalogPathFor(*options));
    if (!search) return printError(io, search.error());
    (*search)->keepSnapshotsBesideCatalog();
    showProgressOnTerminal((*search)->catalog(), io);
    auto indexed = (*search)->synchronize(*repository);
    if (!indexed) return printError(io, indexed.error());
    auto count = (*search)->catalog().count();
    if (!count) return printError(io, count.error());
    return printJson(io, JsonObjectWriter()
                             .add(QStringLiteral("indexed"), static_cast<qint64>(*indexed))
                             .add(QStringLiteral("count"), *count)
                             .text());
}

}  // namespace mossly::agent
