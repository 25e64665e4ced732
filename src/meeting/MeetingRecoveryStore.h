#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>
#include <QUuid>
#include <expected>
#include <optional>

#include "MeetingRecorderLock.h"
#include "MeetingTypes.h"

namespace mossly::meeting {

// What survives a meeting that never stopped cleanly: which note it writes
// and how far its durable transcript goes.
struct MeetingRecoveryManifest {
    QUuid sessionID;
    QString noteIdentifier;
    QDateTime startedAt;
    QDateTime lastCheckpointAt;
    int stableSegmentCount = 0;
    QStringList audioPaths;  // note-relative paths of retained recordings

    // Exactly the keys "sessionID", "noteIdentifier", "startedAt", "lastCheckpointAt",
    // "stableSegmentCount", "audioPaths".
    QJsonObject toJson() const;
    // Absent when a key is missing or has the wrong type.
    static std::optional<MeetingRecoveryManifest> fromJson(const QJsonObject& object);

    bool operator==(const MeetingRecoveryManifest&) const = default;
};

// One manifest per recording meeting in ".meeting-recovery/<session UUID>.json"
// inside the notes folder. Writes are atomic, so a crash leaves the previous
// manifest or the new one. Stateless: safe from any thread; the recorder calls
// it from its meeting worker, and at launch before any recording starts.
class MeetingRecoveryStore {
public:
    static inline const QString folderName = QStringLiteral(".meeting-recovery");
    static inline const QString interruptedNotice =
        QStringLiteral("> Recording was interrupted. This note contains the last durable transcript checkpoint.");

    explicit MeetingRecoveryStore(QString notesDirectory) : notesDirectory_(std::move(notesDirectory)) {}

    const QString& notesDirectory() const { return notesDirectory_; }
    QString folderPath() const;
    QString manifestPath(const QUuid& sessionID) const;
    QString recorderLockPath(const QUuid& sessionID) const;

    // The recorder's claim on its meeting, taken before its first manifest is saved.
    std::expected<MeetingRecorderLock, MeetingSessionError> claim(const QUuid& sessionID) const;
    // Creates the folder when missing; replaces an earlier manifest of the same session.
    std::expected<void, MeetingSessionError> save(const MeetingRecoveryManifest& manifest) const;
    // A manifest that is already gone is not an error.
    std::expected<void, MeetingSessionError> remove(const QUuid& sessionID) const;
    // Every manifest of the folder, ordered by file name; none when the folder is missing.
    // Files that do not decode are skipped and left in place (a newer version may have written them).
    std::expected<QList<MeetingRecoveryManifest>, MeetingSessionError> loadAll() const;

    // Marks the note of every manifest whose recorder is gone as interrupted and
    // removes the manifest; returns the absolute paths of the notes marked. A
    // meeting still being recorded (its recorder holds its claim) is left alone,
    // and so is a note its recorder finished ("meeting-ended-at" written) though
    // the manifest stayed. Never fails: a manifest whose note is gone is removed,
    // one whose note cannot be written now (the library is busy, a disk error)
    // stays for the next launch.
    QStringList recoverInterruptedMeetings() const;

private:
    QString notesDirectory_;
};

}  // namespace mossly::meeting
