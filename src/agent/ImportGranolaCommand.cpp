#include "AgentCommand.h"
#include "GranolaKeyStore.h"
#include "GranolaSync.h"
#include "JsonWriter.h"

namespace mossly::agent {

namespace {

QString reportJson(const GranolaImportReport& report) {
    const auto strings = [](const QStringList& values) {
        QStringList json;
        for (const QString& value : values) json.append(JsonObjectWriter().add(QStringLiteral("v"), value).text().mid(5).chopped(1));
        return jsonArray(json);
    };
    QStringList failed;
    for (const auto& [title, reason] : report.failed) {
        failed.append(JsonObjectWriter().add(QStringLiteral("title"), title).add(QStringLiteral("reason"), reason).text());
    }
    return JsonObjectWriter()
        .addRaw(QStringLiteral("imported"), strings(report.imported))
        .addRaw(QStringLiteral("updated"), strings(report.updated))
        .addRaw(QStringLiteral("conflictCopies"), strings(report.conflictCopies))
        .addRaw(QStringLiteral("skipped"), strings(report.skipped))
        .addRaw(QStringLiteral("failed"), jsonArray(failed))
        .add(QStringLiteral("stoppedBecause"), report.stoppedBecause)
        .text();
}

}  // namespace

// "mossly-agent import-granola": one Granola sync run, for scripts. The key
// comes from MOSSLY_GRANOLA_API_KEY or the keyring, where Mossly saved it.
int runImportGranola(const QStringList& arguments, AgentIo& io) {
    auto options = CommandOptions::parse(arguments, {});
    if (!options) return printUsage(io, options.error());
    if (!options->positional().isEmpty()) return printUsage(io, {QStringLiteral("import-granola takes no arguments")});
    std::optional<QString> key;
    if (const QString fromEnvironment = qEnvironmentVariable(granolaKeyVariable); !fromEnvironment.isEmpty()) {
        key = fromEnvironment;
    } else if (const auto keyring = SecretServiceKeyStore::reachable()) {
        key = SecretServiceKeyStore().key();
    } else if (keyring.error().code() == Error::Code::libraryUnavailable) {
        return printError(io, keyring.error());
    }
    if (!key) {
        return printError(io, Error::invalidArgument(QStringLiteral("No Granola API key: set %1, or save the key in "
                                                                    "Mossly (File \u25B8 Import from Granola…).")
                                                         .arg(QString::fromLatin1(granolaKeyVariable))));
    }
    auto repository = repositoryFor(*options, io);
    if (!repository) return printError(io, repository.error());
    auto directory = repository->directoryURL();
    if (!directory) return printError(io, directory.error());
    GranolaClient::Options clientOptions;
    clientOptions.apiKey = *key;
    if (const QString url = qEnvironmentVariable("MOSSLY_GRANOLA_API_URL"); !url.isEmpty()) clientOptions.baseUrl = url;
    GranolaClient client(clientOptions, GranolaClient::realTimeLimiter());
    const GranolaImportReport report = GranolaSync(client, *repository, *directory).run();
    printJson(io, reportJson(report));
    if (report.stoppedBecause) {
        io.err << *report.stoppedBecause << '\n';
        io.err.flush();
        return failure;
    }
    return success;
}

}  // namespace mossly::agent
