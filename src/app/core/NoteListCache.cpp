#include "NoteListCache.h"

#include <QCryptographicHash>
#include <QDataStream>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

#include "AtomicFile.h"

namespace mossly::NoteListCache {

namespace {
constexpr quint32 magic = 0x4D4E4C43;  // "MNLC"
constexpr quint32 version = 1;
}  // namespace

QString pathFor(const QString& notesDirectory) {
    const QByteArray hash =
        QCryptographicHash::hash(QDir::cleanPath(notesDirectory).toUtf8(), QCryptographicHash::Sha256).toHex().left(24);
    return QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) +
           QStringLiteral("/com.bellam.notes/note-lists/") + QString::fromLatin1(hash) + QStringLiteral(".bin");
}

std::optional<std::vector<Note>> load(const QString& notesDirectory) {
    auto bytes = AtomicFile::readAll(pathFor(notesDirectory));
    if (!bytes) return std::nullopt;
    QDataStream in(*bytes);
    in.setVersion(QDataStream::Qt_6_4);
    quint32 fileMagic = 0, fileVersion = 0;
    QString directory;
    qint64 count = 0;
    in >> fileMagic >> fileVersion >> directory >> count;
    if (fileMagic != magic || fileVersion != version || directory != QDir::cleanPath(notesDirectory) || count < 0 ||
        count > 50'000'000) {
        return std::nullopt;
    }
    const QString prefix = directory + u'/';
    std::vector<Note> notes;
    notes.reserve(static_cast<size_t>(count));
    for (qint64 i = 0; i < count && in.status() == QDataStream::Ok; ++i) {
        Note note;
        qint32 type = 0;
        qint64 modified = 0;
        in >> note.identifier >> type >> modified >> note.revision >> note.title >> note.excerpt;
        const auto contentType = noteContentTypeForFileName(note.identifier);
        if (!contentType || static_cast<int>(*contentType) != type) return std::nullopt;
        note.url = prefix + note.identifier;
        note.contentType = *contentType;
        note.modifiedAt = FileTime(std::chrono::nanoseconds(modified));
        note.bodyLoaded = false;
        notes.push_back(std::move(note));
    }
    quint32 end = 0;
    in >> end;  // a truncated file lacks the closing mark
    if (in.status() != QDataStream::Ok || end != magic) return std::nullopt;
    return notes;
}

Result<void> save(const QString& notesDirectory, const std::vector<Note>& notes) {
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    out.setVersion(QDataStream::Qt_6_4);
    out << magic << version << QDir::cleanPath(notesDirectory) << static_cast<qint64>(notes.size());
    for (const Note& note : notes) {
        out << note.identifier << static_cast<qint32>(note.contentType)
            << static_cast<qint64>(note.modifiedAt.time_since_epoch().count()) << note.revision << note.title
            << note.excerpt;
    }
    out << magic;
    const QString path = pathFor(notesDirectory);
    QDir().mkpath(QFileInfo(path).path());
    return AtomicFile::replaceContents(path, bytes);
}

}  // namespace mossly::NoteListCache
