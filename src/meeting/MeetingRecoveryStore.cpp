#include "MeetingRecoveryStore.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <cerrno>
#include <unistd.h>

#include "AtomicFile.h"
#include "MeetingNoteFormat.h"
#include "NoteRepository.h"

namespace mossly::meeting {

namespace {

std::unexpected<MeetingSessionError> writeFailure(const Error& error) {
    return std::unexpected(MeetingSessionError::noteWriteFailed(error.description()));
}

enum class Marking { marked, finished, noteGone, retryLater };

// Another writer may slip in between our read and our update; a few fresh reads settle that.
constexpr int markingAttempts = 3;

// The recorder wrote the meeting's end: its transcript is complete, whatever became of the manifest.
bool wasFinished(const StoredNote& note, const QUuid& sessionID) {
    const auto& fields = note.document.frontMatterFields;
    const auto id = fields.find(MeetingNoteFormat::idKey);
    return fields.contains(MeetingNoteFormat::endedAtKey) && id != fields.end() &&
           id->second == NoteFrontMatterValue(sessionID.toString(QUuid::WithoutBraces).toUpper());
}

// `url` receives the marked note's absolute path.
Marking markInterrupted(const NoteRepository& repository, const MeetingRecoveryManifest& manifest, QString& url) {
    const QString& identifier = manifest.noteIdentifier;
    for (int attempt = 0; attempt < markingAttempts; ++attempt) {
        auto note = repository.read(identifier);
        if (!note) {
            const Error::Code code = note.error().code();
            const bool gone = code == Error::Code::notFound || code == Error::Code::notRegularFile ||
                              code == Error::Code::invalidIdentifier || code == Error::Code::invalidEncoding;
            return gone ? Marking::noteGone : Marking::retryLater;
        }
        if (wasFinished(*note, manifest.sessionID)) return Marking::finished;
        QString body = note->document.body;
        if (!body.contains(MeetingRecoveryStore::interruptedNotice)) {
            body += QStringLiteral("\n\n") + MeetingRecoveryStore::interruptedNotice + u'\n';
        }
        NoteFrontMatterFields fields{{MeetingNoteFormat::interruptedKey, true}};
        // Where the recordings being written were: the note keeps them.
        if (!manifest.audioPaths.isEmpty()) fields.insert_or_assign(MeetingNoteFormat::recordingsKey, manifest.audioPaths);
        auto updated = repository.update(identifier, note->document.revision(), body, MeetingNoteFormat::editor(),
                                         std::nullopt, fields);
        if (updated) {
            url = updated->url;
            return Marking::marked;
        }
        if (updated.error().code() != Error::Code::stale) return Marking::retryLater;
    }
    return Marking::retryLater;
}

}  // namespace

QJsonObject MeetingRecoveryManifest::toJson() const {
    return QJsonObject{
        {QStringLiteral("sessionID"), sessionID.toString(QUuid::WithoutBraces).toUpper()},
        {QStringLiteral("noteIdentifier"), noteIdentifier},
        {QStringLiteral("startedAt"), MeetingNoteFormat::dateText(startedAt)},
        {QStringLiteral("lastCheckpointAt"), MeetingNoteFormat::dateText(lastCheckpointAt)},
        {QStringLiteral("stableSegmentCount"), stableSegmentCount},
        {QStringLiteral("audioPaths"), QJsonArray::fromStringList(audioPaths)},
    };
}

std::optional<MeetingRecoveryManifest> MeetingRecoveryManifest::fromJson(const QJsonObject& object) {
    const auto sessionID = QUuid::fromString(object.value(QStringLiteral("sessionID")).toString());
    const auto noteIdentifier = object.value(QStringLiteral("noteIdentifier"));
    const auto startedAt = MeetingNoteFormat::dateFromText(object.value(QStringLiteral("startedAt")).toString());
    const auto lastCheckpointAt =
        MeetingNoteFormat::dateFromText(object.value(QStringLiteral("lastCheckpointAt")).toString());
    const auto count = object.value(QStringLiteral("stableSegmentCount"));
    const auto audioPaths = textListFromJson(object.value(QStringLiteral("audioPaths")));
    const bool wholeCount = count.isDouble() && count.toDouble() == count.toInt() && count.toInt() >= 0;
    if (sessionID.isNull() || !noteIdentifier.isString() || noteIdentifier.toString().isEmpty() || !startedAt ||
        !lastCheckpointAt || !wholeCount || !audioPaths) {
        return std::nullopt;
    }
    return MeetingRecoveryManifest{sessionID, noteIdentifier.toString(), *startedAt, *lastCheckpointAt,
                                   count.toInt(), *audioPaths};
}

QString MeetingRecoveryStore::folderPath() const { return notesDirectory_ + u'/' + folderName; }

QString MeetingRecoveryStore::manifestPath(const QUuid& sessionID) const {
    return folderPath() + u'/' + sessionID.toString(QUuid::WithoutBraces).toUpper() + QStringLiteral(".json");
}

QString MeetingRecoveryStore::recorderLockPath(const QUuid& sessionID) const {
    return folderPath() + u'/' + sessionID.toString(QUuid::WithoutBraces).toUpper() + QStringLiteral(".lock");
}

std::expected<MeetingRecorderLock, MeetingSessionError> MeetingRecoveryStore::claim(const QUuid& sessionID) const {
    if (!QDir().mkpath(folderPath())) return writeFailure(Error::system(EACCES, folderPath()));
    return MeetingRecorderLock::acquire(recorderLockPath(sessionID));
}

std::expected<void, MeetingSessionError> MeetingRecoveryStore::save(const MeetingRecoveryManifest& manifest) const {
    if (!QDir().mkpath(folderPath())) return writeFailure(Error::system(EACCES, folderPath()));
    const QByteArray bytes = QJsonDocument(manifest.toJson()).toJson(QJsonDocument::Indented);
    if (auto written = AtomicFile::replaceContents(manifestPath(manifest.sessionID), bytes); !written) {
        return writeFailure(written.error());
    }
    return {};
}

std::expected<void, MeetingSessionError> MeetingRecoveryStore::remove(const QUuid& sessionID) const {
    const QByteArray path = QFile::encodeName(manifestPath(sessionID));
    if (::unlink(path.constData()) != 0 && errno != ENOENT && errno != ENOTDIR) {
        return writeFailure(Error::system(errno, manifestPath(sessionID)));
    }
    return {};
}

std::expected<QList<MeetingRecoveryManifest>, MeetingSessionError> MeetingRecoveryStore::loadAll() const {
    const QFileInfo folder(folderPath());
    if (!folder.exists()) return QList<MeetingRecoveryManifest>{};
    if (!folder.isDir() || !folder.isReadable()) return writeFailure(Error::system(EACCES, folderPath()));
    QList<MeetingRecoveryManifest> manifests;
    const QStringList names = QDir(folderPath()).entryList({QStringLiteral("*.json")}, QDir::Files, QDir::Name);
    for (const QString& name : names) {
        auto bytes = AtomicFile::readAll(folderPath() + u'/' + name);
        if (!bytes) continue;
        const QJsonDocument document = QJsonDocument::fromJson(*bytes);
        if (auto manifest = MeetingRecoveryManifest::fromJson(document.object())) manifests.append(*manifest);
    }
    return manifests;
}

QStringList MeetingRecoveryStore::recoverInterruptedMeetings() const {
    auto manifests = loadAll();
    if (!manifests) return {};
    const NoteRepository repository(notesDirectory_);
    QStringList marked;
    for (const MeetingRecoveryManifest& manifest : *manifests) {
        if (MeetingRecorderLock::isHeld(recorderLockPath(manifest.sessionID))) continue;  // being recorded now
        // Its recorder may have finished it since the manifests were read.
        if (!QFileInfo::exists(manifestPath(manifest.sessionID))) continue;
        QString url;
        const Marking marking = markInterrupted(repository, manifest, url);
        if (marking == Marking::retryLater) continue;
        if (marking == Marking::marked) marked.append(url);
        if (remove(manifest.sessionID)) ::unlink(QFile::encodeName(recorderLockPath(manifest.sessionID)).constData());
    }
    return marked;
}

}  // namespace mossly::meeting
