#include "NoteFileImporter.h"

#include <QFileInfo>
#include <QStringDecoder>

#include "AtomicFile.h"

namespace mossly {

namespace {

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

NoteFileImportReport importNoteFiles(const NoteRepository& repository, const QStringList& paths) {
    NoteFileImportReport report;
    for (const QString& path : paths) {
        auto imported = importOne(repository, path);
        if (imported) {
            report.imported.append(imported->identifier);
        } else {
            report.failures.emplace_back(QFileInfo(path).fileName(), imported.error().description());
        }
    }
    return report;
}

}  // namespace mossly
