#include "NoteHistory.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <cstdio>
#include <map>

#include "NoteContentType.h"
#include "NoteRepository.h"

namespace mossly {

namespace {

std::mutex& handlerMutex() {
    static std::mutex mutex;
    return mutex;
}

std::function<void(const QString&)>& noticeHandler() {
    static std::function<void(const QString&)> handler;
    return handler;
}

void tell(const QString& notice) {
    std::function<void(const QString&)> handler;
    {
        std::lock_guard lock(handlerMutex());
        handler = noticeHandler();
    }
    if (handler) {
        handler(notice);
    } else {
        std::fprintf(stderr, "%s\n", notice.toLocal8Bit().constData());
    }
}

NoteEditor versionEditor(const NoteDocument& document) { return document.lastEditedBy.value_or(document.createdBy); }

}  // namespace

NoteHistory::NoteHistory(QString storePath, Options options) : path_(std::move(storePath)), options_(std::move(options)) {}

NoteHistory::~NoteHistory() = default;

QString NoteHistory::defaultPath(const QString& directory) {
    const QString data = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    const QString folder = QDir::cleanPath(QFileInfo(directory).absoluteFilePath());
    // A short name that stays the same for the folder, whatever characters its path holds.
    const QByteArray digest = QCryptographicHash::hash(folder.toUtf8(), QCryptographicHash::Sha256).toHex().left(16);
    return data + QStringLiteral("/com.bellam.notes/History/") + QString::fromLatin1(digest) + QStringLiteral(".sqlite");
}

std::shared_ptr<NoteHistory> NoteHistory::forDirectory(const QString& directory) {
    // Kept for the life of the process: the store stays open between saves, and a
    // failure the user was told about is not told again by the next repository.
    static std::mutex mutex;
    static std::map<QString, std::shared_ptr<NoteHistory>> histories;
    const QString path = defaultPath(directory);
    std::lock_guard lock(mutex);
    auto& history = histories[path];
    if (!history) history = std::make_shared<NoteHistory>(path, Options{});
    return history;
}

void NoteHistory::setNoticeHandler(std::function<void(const QString&)> handler) {
    std::lock_guard lock(handlerMutex());
    noticeHandler() = std::move(handler);
}

qint64 NoteHistory::now() const {
    return options_.clock ? options_.clock() : QDateTime::currentMSecsSinceEpoch();
}

Result<NoteHistoryStore*> NoteHistory::store() {
    if (!store_) {
        auto opened = NoteHistoryStore::open(path_, options_.busyTimeoutMs);
        if (!opened) return fail(opened.error());
        store_ = std::move(*opened);
    }
    return store_.get();
}

// A file SQLite cannot read is moved aside (kept for whoever wants to look at
// it) and a new one is started; any other failure is retried on the next write.
void NoteHistory::setAside() {
    store_.reset();
    const QString stamp = QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMdd-HHmmss"));
    const QString aside = path_ + QStringLiteral(".damaged-") + stamp;
    QFile::rename(path_, aside);
    QFile::remove(path_ + QStringLiteral("-wal"));
    QFile::remove(path_ + QStringLiteral("-shm"));
    tell(damagedNotice);
}

void NoteHistory::failed(const Error& error, bool damaged) {
    if (damaged) {
        setAside();
        return;
    }
    store_.reset();  // opened afresh next time: the file may have been replaced meanwhile
    if (!std::exchange(told_, true)) tell(failedNoticePrefix + error.description());
}

void NoteHistory::recordReplaced(const StoredNote& replaced, const NoteEditor& writer, NoteWriteKind kind) {
    const NoteVersionRecord version{replaced.identifier,   replaced.persistedContent.toUtf8(),
                                    replaced.document.revision(), versionEditor(replaced.document),
                                    replaced.modifiedAt,   writer,
                                    kind};
    std::lock_guard lock(mutex_);
    // A damaged file is set aside once and the version recorded in the new one.
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (options_.writeFault) {
            if (auto fault = options_.writeFault()) return failed(*fault, false);
        }
        auto opened = store();
        if (!opened) {
            // Only a file that is there and unreadable is damage; a missing folder or a lock is not.
            const bool damaged = QFileInfo(path_).isFile() && (opened.error().subject().contains(u"not a database") ||
                                                               opened.error().subject().contains(u"malformed"));
            failed(opened.error(), damaged);
            if (damaged) continue;
            return;
        }
        auto recorded = (*opened)->record(version, now());
        if (recorded) {
            told_ = false;
            return;
        }
        const bool damaged = (*opened)->lastFailureWasDamage();
        failed(recorded.error(), damaged);
        if (!damaged) return;
    }
}

void NoteHistory::noteRenamed(const QString& from, const QString& to) {
    std::lock_guard lock(mutex_);
    auto opened = store();
    if (!opened) return failed(opened.error(), false);
    if (auto renamed = (*opened)->rename(from, to); !renamed) failed(renamed.error(), (*opened)->lastFailureWasDamage());
}

Result<std::vector<NoteVersionInfo>> NoteHistory::versions(const QString& identifier) {
    std::lock_guard lock(mutex_);
    auto opened = store();
    if (!opened) return fail(opened.error());
    return (*opened)->versions(identifier);
}

Result<QByteArray> NoteHistory::text(const QString& identifier, const QString& revision) {
    std::lock_guard lock(mutex_);
    auto opened = store();
    if (!opened) return fail(opened.error());
    return (*opened)->text(identifier, revision);
}

Result<NoteHistoryRetention> NoteHistory::retention() {
    std::lock_guard lock(mutex_);
    auto opened = store();
    if (!opened) return fail(opened.error());
    return (*opened)->retention();
}

Result<void> NoteHistory::setRetention(const NoteHistoryRetention& retention) {
    std::lock_guard lock(mutex_);
    auto opened = store();
    if (!opened) return fail(opened.error());
    if (auto set = (*opened)->setRetention(retention); !set) return set;
    return (*opened)->applyRetention(now());
}

Result<qint64> NoteHistory::storedBytes() {
    std::lock_guard lock(mutex_);
    auto opened = store();
    if (!opened) return fail(opened.error());
    return (*opened)->storedBytes();
}

Result<std::vector<NoteVersionInfo>> noteTimeline(const NoteRepository& repository, const QString& identifier) {
    std::vector<NoteVersionInfo> timeline;
    auto current = repository.read(identifier);
    if (current) {
        timeline.push_back({identifier, current->document.revision(), versionEditor(current->document),
                            current->modifiedAt, static_cast<qint64>(current->persistedContent.toUtf8().size()),
                            std::nullopt});
    } else if (current.error().code() != Error::Code::notFound) {
        return fail(current.error());
    }
    auto history = repository.history();
    if (!history) return timeline;
    auto kept = history->versions(identifier);
    if (!kept) return fail(kept.error());
    for (NoteVersionInfo& version : *kept) {
        if (!timeline.empty() && timeline.back().revision == version.revision) continue;
        timeline.push_back(std::move(version));
    }
    if (timeline.empty()) return fail(Error::notFound(identifier));
    return timeline;
}

Result<QString> noteVersionText(const NoteRepository& repository, const QString& identifier, const QString& revision) {
    auto current = repository.read(identifier);
    if (current && current->document.revision() == revision) return current->persistedContent;
    if (!current && current.error().code() != Error::Code::notFound) return fail(current.error());
    auto history = repository.history();
    if (!history) return fail(Error::versionNotFound(identifier, revision));
    auto bytes = history->text(identifier, revision);
    if (!bytes) return fail(bytes.error());
    return QString::fromUtf8(*bytes);
}

Result<StoredNote> readNoteVersion(const NoteRepository& repository, const QString& identifier, const QString& revision) {
    auto current = repository.read(identifier);
    if (current && current->document.revision() == revision) return current;
    auto type = noteContentTypeForFileName(identifier);
    if (!type) return fail(Error::invalidIdentifier(identifier));
    auto text = noteVersionText(repository, identifier, revision);
    if (!text) return fail(text.error());
    FileTime savedAt{};
    if (auto history = repository.history()) {
        if (auto versions = history->versions(identifier)) {
            for (const NoteVersionInfo& version : *versions) {
                if (version.revision == revision) {
                    savedAt = version.savedAt;
                    break;
                }
            }
        }
    }
    auto directory = repository.directoryURL();
    return StoredNote{identifier, directory ? *directory + u'/' + identifier : identifier, *text,
                      NoteDocument(*text, *type), *type, savedAt};
}

Result<StoredNote> restoreNoteVersion(const NoteRepository& repository, const QString& identifier,
                                      const QString& revision, const QString& expectedRevision,
                                      const NoteEditor& editor) {
    auto type = noteContentTypeForFileName(identifier);
    if (!type) return fail(Error::invalidIdentifier(identifier));
    auto text = noteVersionText(repository, identifier, revision);
    if (!text) return fail(text.error());
    // The old version's body and front matter, written by the one who restores it.
    const QString restored = NoteDocument(*text, *type).serialized(std::nullopt, editor);
    return repository.restore(identifier, expectedRevision, restored, editor);
}

}  // namespace mossly
