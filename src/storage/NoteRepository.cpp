#include "NoteRepository.h"
#include "NoteTitle.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStringDecoder>
#include <QTextBoundaryFinder>
#include <algorithm>
#include <cerrno>
#include <sys/stat.h>

#include "AtomicFile.h"
#include "NoteFileLock.h"
#include "NoteHistory.h"
#include "NoteFolderScan.h"
#include "SketchDocumentCodec.h"

namespace mossly {

namespace {

constexpr qsizetype maximumBaseNameCharacters = 160;
// ext4 and most Linux file systems allow 255 bytes per name; leave room for " 10000.markdown".
constexpr qsizetype maximumBaseNameBytes = 240;

QByteArray encoded(const QString& path) { return QFile::encodeName(path); }

// Decodes strictly, keeping a leading byte-order mark so the text re-encodes to the same bytes.
std::optional<QString> decodeUtf8(const QByteArray& bytes) {
    QStringDecoder decoder(QStringDecoder::Utf8,
                           QStringDecoder::Flag::Stateless | QStringDecoder::Flag::ConvertInitialBom);
    QString text = decoder(bytes);
    if (decoder.hasError()) return std::nullopt;
    return text;
}

QString trimmedToBytes(QString text, qsizetype maximumBytes) {
    while (text.toUtf8().size() > maximumBytes) {
        QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
        finder.toEnd();
        text.truncate(std::max<qsizetype>(finder.toPreviousBoundary(), 0));
    }
    return text;
}

// The note as just written by us: the text we wrote and the file's new date.
Result<StoredNote> writtenNote(const QString& identifier, const QString& path, const QString& text,
                               const QByteArray& bytes, NoteContentType contentType) {
    struct stat info {};
    if (::lstat(encoded(path).constData(), &info) != 0) return fail(Error::system(errno, identifier));
    return StoredNote{identifier, path, text, NoteDocument(text, bytes, contentType), contentType,
                      fileTime(info.st_mtim)};
}

std::vector<NoteFileMetadata> sortedByIdentifier(std::vector<NoteFileMetadata> notes) {
    std::stable_sort(notes.begin(), notes.end(),
                     [](const auto& a, const auto& b) { return a.identifier < b.identifier; });
    return notes;
}

}  // namespace

NoteRepository::NoteRepository(QString directory) : fixedDirectory_(std::move(directory)) {}

NoteRepository::NoteRepository(NotesLocationConfigurationStore store, NotesDirectoryResolver resolver)
    : store_(std::move(store)), resolver_(std::move(resolver)) {}

Result<QString> NoteRepository::directoryURL() const {
    if (fixedDirectory_) return QDir::cleanPath(*fixedDirectory_);
    auto configuration = store_->load();
    if (!configuration) return fail(configuration.error());
    auto resolution = resolver_->resolveWithFallback(*configuration);
    if (!resolution) return fail(resolution.error());
    return resolution->directory;
}

Result<std::vector<NoteFileMetadata>> NoteRepository::enumerateMetadata(ListingOrder order) const {
    auto directory = directoryURL();
    if (!directory) return fail(directory.error());
    auto notes = scanNoteFiles(*directory);
    if (!notes || order == ListingOrder::asFound) return notes;
    return sortedByIdentifier(std::move(*notes));
}

Result<std::vector<StoredNote>> NoteRepository::enumerate(const QStringList& matchingAnyRawTerms) const {
    QStringList terms;
    for (const QString& term : matchingAnyRawTerms) {
        if (!term.isEmpty()) terms.append(term);
    }
    // The folder is resolved once: it may come from the configuration file.
    auto directory = directoryURL();
    if (!directory) return fail(directory.error());
    auto listing = scanNoteFiles(*directory);
    if (!listing) return fail(listing.error());
    std::vector<StoredNote> matches;
    for (const NoteFileMetadata& entry : sortedByIdentifier(std::move(*listing))) {
        auto note = readAt(*directory, entry.identifier);
        if (!note) {
            // A note removed or replaced mid-scan, or one that is not text, simply does not match.
            const Error::Code code = note.error().code();
            if (code == Error::Code::notFound || code == Error::Code::notRegularFile ||
                code == Error::Code::invalidEncoding) {
                continue;
            }
            return fail(note.error());
        }
        const bool matched = std::any_of(terms.begin(), terms.end(), [&](const QString& term) {
            return note->persistedContent.contains(term, Qt::CaseInsensitive);
        });
        if (matched) matches.push_back(std::move(*note));
    }
    return matches;
}

Result<StoredNote> NoteRepository::read(const QString& identifier) const {
    auto directory = directoryURL();
    if (!directory) return fail(directory.error());
    return readAt(*directory, identifier);
}

Result<StoredNote> NoteRepository::readAt(const QString& directory, const QString& identifier) const {
    auto path = pathPolicy_.url(identifier, directory);
    if (!path) return fail(path.error());
    struct stat info {};
    if (::lstat(encoded(*path).constData(), &info) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) return fail(Error::notFound(identifier));
        return fail(Error::system(errno, identifier));
    }
    if (!S_ISREG(info.st_mode)) return fail(Error::notRegularFile(identifier));

    auto bytes = AtomicFile::readAll(*path, /*followSymlinks=*/false, &info);
    if (!bytes) {
        const int error = bytes.error().systemErrno();
        if (error == ENOENT) return fail(Error::notFound(identifier));
        if (error == ELOOP) return fail(Error::notRegularFile(identifier));  // replaced by a link
        return fail(Error::system(error, identifier));
    }
    std::optional<QString> text = decodeUtf8(*bytes);
    if (!text) return fail(Error::invalidEncoding(identifier));
    const NoteContentType type = *noteContentTypeForFileName(identifier);
    return StoredNote{identifier, *path, *text, NoteDocument(*text, *bytes, type), type, fileTime(info.st_mtim)};
}

Result<void> NoteRepository::validateEditor(const NoteEditor& editor) {
    if (editor.isAgent() && !NoteEditor::isValidAgentName(editor.agentName())) {
        return fail(Error::invalidEditorName(editor.agentName()));
    }
    return {};
}

Result<StoredNote> NoteRepository::create(const QString& title, const QString& body, const NoteEditor& createdBy,
                                          NoteContentType contentType,
                                          const NoteFrontMatterFields& frontMatterFields) const {
    if (auto name = validateEditor(createdBy); !name) return fail(name.error());
    if (auto keys = validateFrontMatterKeys(frontMatterFields); !keys) return fail(keys.error());
    // A new sketch is a drawing from its first write: tldraw opens no empty file.
    const bool blankSketch = contentType == NoteContentType::sketch && body.trimmed().isEmpty();
    const NoteDocument document(blankSketch ? SketchDocumentCodec::emptyDocument() : body, createdBy, contentType,
                                frontMatterFields);
    return createFromText(title, document.serialized(), contentType);
}

Result<StoredNote> NoteRepository::createFromText(const QString& title, const QString& text,
                                                  NoteContentType contentType) const {
    auto directory = directoryURL();
    if (!directory) return fail(directory.error());
    if (!QDir().mkpath(*directory)) return fail(Error::system(EACCES, *directory));
    const QByteArray bytes = text.toUtf8();
    const QString baseName = safeBaseName(title);
    const QString extension = u'.' + preferredExtension(contentType);

    return NoteFileLock::withExclusiveLock(*directory, [&]() -> Result<StoredNote> {
        auto staged = AtomicFile::stage(*directory + u'/' + baseName + extension, bytes);
        if (!staged) return fail(staged.error());
        for (int n = 1; n <= maximumNameAttempts; ++n) {
            const QString identifier =
                (n == 1 ? baseName : baseName + u' ' + QString::number(n)) + extension;
            const QString path = *directory + u'/' + identifier;
            auto created = staged->commitIfAbsent(path);
            if (!created) return fail(created.error());
            if (!*created) continue;
            return writtenNote(identifier, path, text, bytes, contentType);
        }
        return fail(Error::alreadyExists(baseName + extension));
    });
}

Result<StoredNote> NoteRepository::createAt(const QString& identifier, const QString& text) const {
    auto directory = directoryURL();
    if (!directory) return fail(directory.error());
    auto path = pathPolicy_.url(identifier, *directory);
    if (!path) return fail(path.error());
    const NoteContentType contentType = *noteContentTypeForFileName(identifier);
    const QByteArray bytes = text.toUtf8();
    if (!QDir().mkpath(QFileInfo(*path).path())) return fail(Error::system(EACCES, identifier));
    return NoteFileLock::withExclusiveLock(*directory, [&]() -> Result<StoredNote> {
        auto staged = AtomicFile::stage(*path, bytes);
        if (!staged) return fail(staged.error());
        auto created = staged->commitIfAbsent(*path);
        if (!created) return fail(created.error());
        if (!*created) return fail(Error::alreadyExists(identifier));
        return writtenNote(identifier, *path, text, bytes, contentType);
    });
}

Result<StoredNote> NoteRepository::update(const QString& identifier, const QString& expectedRevision,
                                          const std::optional<QString>& body, const NoteEditor& editedBy,
                                          std::optional<NoteContentType> contentType,
                                          const NoteFrontMatterFields& frontMatterUpdates) const {
    if (auto keys = validateFrontMatterKeys(frontMatterUpdates); !keys) return fail(keys.error());
    return replaceChecked(identifier, expectedRevision, editedBy, NoteWriteKind::edit, contentType,
                          [&](const StoredNote& current) {
                              return current.document.serialized(body, editedBy, frontMatterUpdates);
                          });
}

Result<StoredNote> NoteRepository::restore(const QString& identifier, const QString& expectedRevision,
                                           const QString& text, const NoteEditor& editedBy) const {
    return replaceChecked(identifier, expectedRevision, editedBy, NoteWriteKind::restore, std::nullopt,
                          [&](const StoredNote&) { return text; });
}

void NoteRepository::setHistory(std::shared_ptr<NoteHistory> history) { history_ = std::move(history); }

std::shared_ptr<NoteHistory> NoteRepository::history() const {
    auto directory = directoryURL();
    if (!directory) return nullptr;
    return historyOf(*directory);
}

std::shared_ptr<NoteHistory> NoteRepository::historyOf(const QString& directory) const {
    if (history_) return *history_;
    return NoteHistory::forDirectory(directory);
}

Result<StoredNote> NoteRepository::replaceChecked(const QString& identifier, const QString& expectedRevision,
                                                  const NoteEditor& editedBy, NoteWriteKind kind,
                                                  std::optional<NoteContentType> contentType,
                                                  const std::function<QString(const StoredNote&)>& newText) const {
    auto directory = directoryURL();
    if (!directory) return fail(directory.error());
    auto path = pathPolicy_.url(identifier, *directory);
    if (!path) return fail(path.error());
    if (auto name = validateEditor(editedBy); !name) return fail(name.error());

    return NoteFileLock::withExclusiveLock(*directory, [&]() -> Result<StoredNote> {
        auto current = readAt(*directory, identifier);
        if (!current) return fail(current.error());
        if (contentType && *contentType != current->contentType) {
            return fail(Error::contentTypeMismatch(identifier, rawValue(*contentType), rawValue(current->contentType)));
        }
        if (current->document.revision() != expectedRevision) {
            return fail(Error::stale(expectedRevision, current->document.revision()));
        }
        const QString text = newText(*current);
        // A byte order mark the file started with stays: the edit is to the text, not to the encoding.
        static const QByteArray byteOrderMark("\xEF\xBB\xBF");
        QFile file(*path);
        const bool hadMark = file.open(QIODevice::ReadOnly) && file.read(3) == byteOrderMark;
        file.close();
        const QByteArray bytes = (hadMark && !text.startsWith(QChar(0xFEFF)) ? byteOrderMark : QByteArray()) +
                                 text.toUtf8();
        struct stat info {};
        if (::lstat(encoded(*path).constData(), &info) != 0) return fail(Error::system(errno, identifier));
        auto staged = AtomicFile::stage(*path, bytes, info.st_mode & 07777);
        if (!staged) return fail(staged.error());
        // Recorded before the file is replaced: a crash in between leaves a
        // kept version that equals the file, never a write without its history.
        if (auto history = historyOf(*directory)) history->recordReplaced(*current, editedBy, kind);
        if (auto committed = staged->commitReplacing(); !committed) return fail(committed.error());
        return writtenNote(identifier, *path, text, bytes, current->contentType);
    });
}

Result<StoredNote> NoteRepository::rename(const QString& identifier, const QString& expectedRevision,
                                          const QString& newBaseName, const NoteEditor& editedBy) const {
    auto directory = directoryURL();
    if (!directory) return fail(directory.error());
    auto path = pathPolicy_.url(identifier, *directory);
    if (!path) return fail(path.error());
    if (auto name = validateEditor(editedBy); !name) return fail(name.error());

    const qsizetype slash = identifier.lastIndexOf(u'/');
    const QString fileName = identifier.mid(slash + 1);
    const QString extension = fileName.mid(fileName.lastIndexOf(u'.'));
    const QString newIdentifier = identifier.left(slash + 1) + newBaseName + extension;
    // A base name is one name: a "/" would move the note into another folder.
    // Surrounding spaces are refused rather than trimmed: they would silently differ from what was asked.
    if (newBaseName.isEmpty() || newBaseName.contains(u'/') || newBaseName.trimmed() != newBaseName ||
        newBaseName.toUtf8().size() + extension.toUtf8().size() > 255) {
        return fail(Error::invalidIdentifier(newIdentifier));
    }
    auto newPath = pathPolicy_.url(newIdentifier, *directory);
    if (!newPath) return fail(newPath.error());

    return NoteFileLock::withExclusiveLock(*directory, [&]() -> Result<StoredNote> {
        auto current = readAt(*directory, identifier);
        if (!current) return fail(current.error());
        if (current->document.revision() != expectedRevision) {
            return fail(Error::stale(expectedRevision, current->document.revision()));
        }
        if (newIdentifier == identifier) return current;
        auto history = historyOf(*directory);
        if (history) history->recordReplaced(*current, editedBy, NoteWriteKind::rename);
        auto renamed = renameIfAbsent(*path, *newPath);
        if (!renamed) return fail(renamed.error());
        if (!*renamed) return fail(Error::alreadyExists(newIdentifier));
        if (history) history->noteRenamed(identifier, newIdentifier);
        return readAt(*directory, newIdentifier);
    });
}

Result<void> NoteRepository::moveToTrash(const QString& identifier, const NoteEditor& trashedBy) const {
    auto directory = directoryURL();
    if (!directory) return fail(directory.error());
    auto path = pathPolicy_.url(identifier, *directory);
    if (!path) return fail(path.error());
    return NoteFileLock::withExclusiveLock(*directory, [&]() -> Result<void> {
        struct stat info {};
        if (::lstat(encoded(*path).constData(), &info) != 0) {
            if (errno == ENOENT || errno == ENOTDIR) return fail(Error::notFound(identifier));
            return fail(Error::system(errno, identifier));
        }
        if (!S_ISREG(info.st_mode)) return fail(Error::notRegularFile(identifier));
        // Its history stays (under its identifier) until retention drops it.
        if (auto history = historyOf(*directory)) {
            if (auto current = readAt(*directory, identifier)) history->recordReplaced(*current, trashedBy, NoteWriteKind::trash);
        }
        // The freedesktop.org Trash: the user can restore the note from the file manager.
        if (!QFile::moveToTrash(*path)) return fail(Error::trashFailed(identifier));
        return {};
    });
}

QString NoteRepository::safeBaseName(const QString& title) {
    static const QRegularExpression headingMarker(QStringLiteral("^#{1,6}\\s*"));
    QString text = title;
    text.replace(headingMarker, QString());

    // Separators and control characters (Cc and Cf: identifiers may contain
    // neither) become "-".
    QString joined;
    joined.reserve(text.size());
    for (const char32_t codePoint : text.toUcs4()) {
        const QChar::Category category = QChar::category(codePoint);
        if (codePoint == U'/' || codePoint == U'\\' || codePoint == U':' || category == QChar::Other_Control ||
            category == QChar::Other_Format) {
            joined += u'-';
        } else {
            joined += QString::fromUcs4(&codePoint, 1);
        }
    }

    text = joined.trimmed();
    qsizetype start = 0;
    qsizetype end = text.size();
    while (start < end && text[start] == u'.') ++start;
    while (end > start && text[end - 1] == u'.') --end;
    text = text.mid(start, end - start);
    if (text.isEmpty()) text = QStringLiteral("Untitled");
    return trimmedToBytes(leadingGraphemes(text, maximumBaseNameCharacters), maximumBaseNameBytes);
}

Result<void> NoteRepository::validateFrontMatterKeys(const NoteFrontMatterFields& fields) {
    // Anchored to the whole text: "$" alone would also accept a trailing newline.
    static const QRegularExpression keyPattern(
        QRegularExpression::anchoredPattern(QStringLiteral("[A-Za-z0-9][A-Za-z0-9_-]*")));
    for (const auto& entry : fields) {
        const QString& key = entry.first;
        if (!keyPattern.match(key).hasMatch() || key == NoteDocument::createdByKey ||
            key == NoteDocument::lastEditedByKey) {
            return fail(Error::invalidFrontMatterKey(key));
        }
    }
    return {};
}

}  // namespace mossly
