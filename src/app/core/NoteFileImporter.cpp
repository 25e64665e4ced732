#include "NoteFileImporter.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QStringDecoder>

#include "AtomicFile.h"

namespace mossly {

namespace {

constexpr int progressIntervalMs = 100;

Result<StoredNote> importOne(const NoteRepository& repository, const QString& path) {
    const QFileInfo file(path);
    const std::optional<NoteContentType> type = noteContentTypeFromPathExtension(file.suffix().toLower());
    if (!type) return fail(Error::unsupportedImportFile(file.fileName()));
    auto bytes = AtomicFile::readAll(path);
    if (!bytes) return fail(bytes.error());
    QStringDecoder decoder(QStringDecoder::Utf8,
                           QStringDecoder::Flag::Stateless | QStringDecoder::Flag::ConvertInitialBom);
    const QString text = decoder(*bytes);
    if (decoder.hasError()) return fail(Error::invalidEncoding(file.fileName()));
    return repository.createFromText(file.completeBaseName(), text, *type);
}

}  // namespace

NoteFileImportReport importNoteFiles(const NoteRepository& repository, const QStringList& paths,
                                     const ImportProgress& progress, std::stop_token stop) {
    NoteFileImportReport report;
    const int total = static_cast<int>(paths.size());
    QElapsedTimer sinceReport;
    sinceReport.start();
    for (int done = 0; done < total; ++done) {
        if (stop.stop_requested()) break;
        const QString& path = paths[done];
        auto imported = importOne(repository, path);
        if (imported) {
            report.imported.append(imported->identifier);
        } else {
            report.failures.emplace_back(QFileInfo(path).fileName(), imported.error().description());
        }
        // A few reports a second are enough for a bar and cost the import nothing.
        if (progress && (sinceReport.elapsed() >= progressIntervalMs || done + 1 == total)) {
            progress(done + 1, total);
            sinceReport.restart();
        }
    }
    return report;
}

}  // namespace mossly
