#include "SyncthingWrites.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <thread>

#include "AtomicFile.h"
#include "SyncConflictCopies.h"
#include "NoteHistoryDiff.h"

namespace mossly {

bool keepsAddedWords(const QString& baseBody, const QString& saved, const QString& incoming) {
    for (const NoteTextChange& run : wordDiff(baseBody, saved)) {
        const QString words = run.text.trimmed();
        if (run.kind == NoteTextChange::Kind::inserted && !words.isEmpty() && !incoming.contains(words)) return false;
    }
    return true;
}

bool syncthingKeptText(const QString& notePath, const QString& text) {
    const QFileInfo note(notePath);
    const QDir folder = note.dir();
    const QStringList copies =
        folder.entryList({note.completeBaseName() + QStringLiteral(".sync-conflict-*")}, QDir::Files | QDir::Hidden);
    for (const QString& name : copies) {
        auto bytes = AtomicFile::readAll(folder.filePath(name), false);
        if (bytes && QString::fromUtf8(*bytes) == text) return true;
    }
    return false;
}

bool isSyncthingFolder(const QString& directory) {
    return QFileInfo::exists(QDir(directory).filePath(QStringLiteral(".stfolder")));
}

Result<StoredNote> writeWatchingSyncthing(const NoteRepository& repository, const QString& identifier,
                                         const std::function<Result<StoredNote>()>& write,
                                         std::chrono::milliseconds settle) {
    auto directory = repository.directoryURL();
    if (!directory || !isSyncthingFolder(*directory)) return write();
    // Read before the write: a successful write was checked against this revision, so this is what it replaced.
    const auto before = repository.read(identifier);
    auto written = write();
    if (!written) return written;
    auto kept = keepWriteReplacedBySyncthing(repository, before ? before->document.body : QString(), *written, settle);
    if (!kept) return fail(kept.error());
    if (*kept) return fail(Error::writeReplaced(**kept));
    return written;
}

Result<std::optional<QString>> keepWriteReplacedBySyncthing(const NoteRepository& repository, const QString& beforeBody,
                                                            const StoredNote& written,
                                                            std::chrono::milliseconds settle) {
    auto directory = repository.directoryURL();
    if (!directory || !isSyncthingFolder(*directory)) return std::nullopt;
    std::this_thread::sleep_for(settle);
    auto now = repository.read(written.identifier);
    if (now && now->document.revision() == written.document.revision()) return std::nullopt;
    if (now && keepsAddedWords(beforeBody, written.document.body, now->document.body)) return std::nullopt;
    if (syncthingKeptText(written.url, written.persistedContent)) return std::nullopt;
    auto kept = createConflictCopy(written.identifier, [&](const QString& name) {
        return repository.createAt(name, written.persistedContent);
    });
    if (!kept) return fail(kept.error());
    return std::optional<QString>(kept->identifier);
}

}  // namespace mossly
