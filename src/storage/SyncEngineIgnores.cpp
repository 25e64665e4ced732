#include "SyncEngineIgnores.h"

#include <QDir>
#include <QFileInfo>

#include "AtomicFile.h"

namespace mossly {

namespace {

const QString markerName = QStringLiteral(".stfolder");
const QString ignoreFileName = QStringLiteral(".stignore");
const QString heading = QStringLiteral("// Mossly: files that belong to this machine only");

}  // namespace

QStringList machineLocalNotesFolderEntries() {
    return {QStringLiteral(".mossly-search.sqlite"), QStringLiteral(".mossly-search.sqlite-wal"),
            QStringLiteral(".mossly-search.sqlite-shm"), QStringLiteral(".mossly-search.sqlite-journal"),
            QStringLiteral(".notes-agent.lock"), QStringLiteral(".meeting-recovery"),
            // Crash-safe writes stage their bytes here before the rename.
            QStringLiteral(".mossly-write-*")};
}

Result<bool> ensureSyncthingIgnores(const QString& notesDirectory) {
    const QDir directory(notesDirectory);
    if (!QFileInfo::exists(directory.filePath(markerName))) return false;
    const QString path = directory.filePath(ignoreFileName);
    QByteArray existing;
    std::optional<mode_t> mode;
    if (QFileInfo::exists(path)) {
        struct stat info {};
        auto bytes = AtomicFile::readAll(path, true, &info);
        if (!bytes) return fail(bytes.error());
        existing = *bytes;
        mode = info.st_mode & 07777;
    }
    QStringList present;
    for (const QByteArray& line : existing.split('\n')) present.append(QString::fromUtf8(line).trimmed());

    // Anchored to the folder's top ("/"), and "(?d)" lets Syncthing remove
    // them when they stand in the way of deleting a folder.
    QStringList missing;
    for (const QString& entry : machineLocalNotesFolderEntries()) {
        const QString line = QStringLiteral("(?d)/") + entry;
        if (!present.contains(line)) missing.append(line);
    }
    if (missing.isEmpty()) return false;

    QByteArray text = existing;
    if (!text.isEmpty() && !text.endsWith('\n')) text.append('\n');
    if (!present.contains(heading)) text.append(heading.toUtf8() + '\n');
    text.append(missing.join(u'\n').toUtf8() + '\n');
    auto written = AtomicFile::replaceContents(path, text, mode);
    if (!written) return fail(written.error());
    return true;
}

}  // namespace mossly
