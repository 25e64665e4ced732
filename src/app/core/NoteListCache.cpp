#include "NoteListCache.h"

#include <QCryptographicHash>
#include <QMutex>
#include <QtEndian>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

#include "AtomicFile.h"

namespace mossly::NoteListCache {

namespace {
constexpr quint32 magic = 0x4D4E4C43;  // "MNLC", also the closing mark
constexpr quint32 version = 2;

// Version 2 holds every string as its length and its UTF-16 code units in
// this machine's byte order (and a zero unit), so a load makes no string at all: the list's
// strings point into the file's bytes, which are kept for the life of the
// process (see `keepForever`). Every field is a multiple of two bytes long,
// so the strings stay aligned; numbers are read unaligned.
class Writer {
public:
    void number(quint32 value) { bytes_.append(reinterpret_cast<const char*>(&value), sizeof value); }
    void number(qint64 value) { bytes_.append(reinterpret_cast<const char*>(&value), sizeof value); }
    // Followed by a zero unit, so that strings read in place end like any other.
    void string(const QString& text) {
        number(static_cast<quint32>(text.size()));
        bytes_.append(reinterpret_cast<const char*>(text.constData()), text.size() * qsizetype(sizeof(QChar)));
        bytes_.append(2, '\0');
    }
    const QByteArray& bytes() const { return bytes_; }

private:
    QByteArray bytes_;
};

class Reader {
public:
    explicit Reader(const QByteArray& bytes) : data_(bytes.constData()), size_(bytes.size()) {}
    bool ok() const { return ok_; }
    bool atEnd() const { return at_ == size_; }
    template <typename T>
    T number() {
        if (!has(sizeof(T))) return T{};
        const T value = qFromUnaligned<T>(data_ + at_);
        at_ += sizeof(T);
        return value;
    }
    QString string() {
        const auto length = number<quint32>();
        const qsizetype bytes = (qsizetype(length) + 1) * qsizetype(sizeof(QChar));
        if (!has(bytes)) return {};
        const auto* units = reinterpret_cast<const QChar*>(data_ + at_);
        at_ += bytes;
        if (!units[length].isNull()) {
            ok_ = false;
            return {};
        }
        return QString::fromRawData(units, length);
    }

private:
    bool has(qsizetype bytes) {
        if (ok_ && bytes >= 0 && size_ - at_ >= bytes) return true;
        ok_ = false;
        return false;
    }
    const char* data_;
    qsizetype size_;
    qsizetype at_ = 0;
    bool ok_ = true;
};

// Strings made by `fromRawData` own nothing, and every copy of one points at
// the same bytes, wherever it ends up. The bytes of a loaded list are
// therefore never freed (one list per library opened in a session).
void keepForever(QByteArray bytes) {
    static QMutex mutex;
    static std::vector<QByteArray> kept;
    QMutexLocker lock(&mutex);
    kept.push_back(std::move(bytes));
}

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
    Reader in(*bytes);
    const auto fileMagic = in.number<quint32>();
    const auto fileVersion = in.number<quint32>();
    const QString directory = in.string();
    const auto count = in.number<qint64>();
    if (!in.ok() || fileMagic != magic || fileVersion != version || directory != QDir::cleanPath(notesDirectory) ||
        count < 0 || count > 50'000'000) {
        return std::nullopt;
    }
    const QString prefix = directory + u'/';
    std::vector<Note> notes;
    notes.reserve(static_cast<size_t>(count));
    for (qint64 i = 0; i < count && in.ok(); ++i) {
        Note note;
        note.url = in.string();
        note.identifier = in.string();
        const auto type = in.number<quint32>();
        const auto modified = in.number<qint64>();
        note.revision = in.string();
        note.title = in.string();
        note.excerpt = in.string();
        const auto contentType = noteContentTypeForFileName(note.identifier);
        const bool urlMatches = note.url.size() == prefix.size() + note.identifier.size() &&
                                note.url.startsWith(prefix) && note.url.endsWith(note.identifier);
        if (!in.ok() || !contentType || static_cast<quint32>(*contentType) != type || !urlMatches) {
            return std::nullopt;
        }
        note.contentType = *contentType;
        note.modifiedAt = FileTime(std::chrono::nanoseconds(modified));
        note.bodyLoaded = false;
        notes.push_back(std::move(note));
    }
    // A truncated file lacks the closing mark.
    if (in.number<quint32>() != magic || !in.ok() || !in.atEnd()) return std::nullopt;
    keepForever(std::move(*bytes));
    return notes;
}

Result<void> save(const QString& notesDirectory, const std::vector<Note>& notes) {
    Writer out;
    out.number(magic);
    out.number(version);
    out.string(QDir::cleanPath(notesDirectory));
    out.number(static_cast<qint64>(notes.size()));
    for (const Note& note : notes) {
        out.string(note.url);
        out.string(note.identifier);
        out.number(static_cast<quint32>(note.contentType));
        out.number(static_cast<qint64>(note.modifiedAt.time_since_epoch().count()));
        out.string(note.revision);
        out.string(note.title);
        out.string(note.excerpt);
    }
    out.number(magic);
    const QString path = pathFor(notesDirectory);
    QDir().mkpath(QFileInfo(path).path());
    return AtomicFile::replaceContents(path, out.bytes());
}

}  // namespace mossly::NoteListCache
