#include <gtest/gtest.h>

#include <QDir>
#include <QJsonDocument>

#include "MeetingNoteWriter.h"
#include "MeetingRecoveryStore.h"
#include "NoteRepository.h"
#include "ProcessTestSupport.h"
#include "TestSupport.h"

using namespace mossly;
using namespace mossly::meeting;
using mossly::meeting::test::ForkedChild;
using mossly::meeting::test::holdLibraryLock;
using mossly::test::TemporaryNotesFolder;

namespace {

MeetingRecoveryManifest manifestFor(const QString& noteIdentifier, int count = 2) {
    const QDateTime started(QDate(2026, 11, 23), QTime(9, 30, 0, 125), Qt::UTC);
    return {QUuid::createUuid(), noteIdentifier, started, started.addSecs(90), count, {"Recordings/a.caf"}};
}

QString createMeetingNote(const TemporaryNotesFolder& folder, const QString& title) {
    auto note = NoteRepository(folder.path())
                    .create(title, "# " + title + "\n\ntranscript so far", NoteEditor::agent("meeting-recorder"));
    return note ? note->identifier : QString();
}

const QString notice = "> Recording was interrupted. This note contains the last durable transcript checkpoint.";

}  // namespace

TEST(MeetingRecoveryStore, SavesOneManifestPerSessionWithExactlyItsKeys) {
    TemporaryNotesFolder folder;
    MeetingRecoveryStore store(folder.path());
    auto manifest = manifestFor("Standup.md");
    ASSERT_TRUE(store.save(manifest));
    const QString name = ".meeting-recovery/" + manifest.sessionID.toString(QUuid::WithoutBraces).toUpper() + ".json";
    ASSERT_TRUE(folder.exists(name));
    const QJsonObject json = QJsonDocument::fromJson(folder.read(name)).object();
    EXPECT_EQ(json.keys(), (QStringList{"audioPaths", "lastCheckpointAt", "noteIdentifier", "sessionID",
                                        "stableSegmentCount", "startedAt"}));
    EXPECT_EQ(json.value("startedAt").toString(), "2026-11-23T09:30:00.125Z");

    manifest.stableSegmentCount = 7;
    manifest.lastCheckpointAt = manifest.lastCheckpointAt.addSecs(30);
    ASSERT_TRUE(store.save(manifest));
    EXPECT_EQ(store.loadAll(), QList<MeetingRecoveryManifest>{manifest});

    ASSERT_TRUE(store.remove(manifest.sessionID));
    EXPECT_FALSE(folder.exists(name));
    EXPECT_TRUE(store.remove(manifest.sessionID)) << "a missing manifest is not an error";
}

TEST(MeetingRecoveryStore, AMissingOrEmptyFolderHasNothingToRecover) {
    TemporaryNotesFolder folder;
    MeetingRecoveryStore store(folder.path());
    EXPECT_EQ(store.loadAll(), QList<MeetingRecoveryManifest>{});
    EXPECT_TRUE(store.recoverInterruptedMeetings().isEmpty());
    QDir(folder.path()).mkdir(".meeting-recovery");
    EXPECT_EQ(store.loadAll(), QList<MeetingRecoveryManifest>{});
    EXPECT_TRUE(store.recoverInterruptedMeetings().isEmpty());
}

TEST(MeetingRecoveryStore, SkipsFilesThatAreNotManifestsAndLeavesThem) {
    TemporaryNotesFolder folder;
    MeetingRecoveryStore store(folder.path());
    const auto good = manifestFor("Standup.md");
    ASSERT_TRUE(store.save(good));
    auto incomplete = manifestFor("Other.md").toJson();
    incomplete.remove("stableSegmentCount");
    folder.write(".meeting-recovery/incomplete.json", QJsonDocument(incomplete).toJson());
    folder.write(".meeting-recovery/garbage.json", "{not json");
    folder.write(".meeting-recovery/notes.txt", QJsonDocument(manifestFor("Third.md").toJson()).toJson());
    EXPECT_EQ(store.loadAll(), QList<MeetingRecoveryManifest>{good});
    EXPECT_TRUE(folder.exists(".meeting-recovery/garbage.json"));
}

TEST(MeetingRecoveryStore, ASaveThatCannotCreateTheFolderFails) {
    TemporaryNotesFolder folder;
    folder.write(".meeting-recovery", "a file where the folder should be");
    auto saved = MeetingRecoveryStore(folder.path()).save(manifestFor("Standup.md"));
    ASSERT_FALSE(saved);
    EXPECT_EQ(saved.error().code(), MeetingSessionError::Code::noteWriteFailed);
    EXPECT_FALSE(saved.error().description().isEmpty());
}

TEST(MeetingRecoveryStore, MarksTheNoteInterruptedOnceAndRemovesTheManifest) {
    TemporaryNotesFolder folder;
    MeetingRecoveryStore store(folder.path());
    const QString identifier = createMeetingNote(folder, "Standup");
    ASSERT_FALSE(identifier.isEmpty());
    const auto manifest = manifestFor(identifier);
    ASSERT_TRUE(store.save(manifest));

    EXPECT_EQ(store.recoverInterruptedMeetings(), QStringList{folder.filePath(identifier)});
    EXPECT_EQ(store.loadAll(), QList<MeetingRecoveryManifest>{});
    auto note = NoteRepository(folder.path()).read(identifier);
    ASSERT_TRUE(note);
    EXPECT_EQ(note->document.body, "# Standup\n\ntranscript so far\n\n" + notice + "\n");
    EXPECT_EQ(note->document.frontMatterFields.at("meeting-interrupted"), NoteFrontMatterValue(true));
    EXPECT_EQ(note->document.lastEditedBy, NoteEditor::agent("meeting-recorder"));

    ASSERT_TRUE(store.save(manifest));  // the same meeting left behind again
    EXPECT_EQ(store.recoverInterruptedMeetings(), QStringList{folder.filePath(identifier)});
    EXPECT_EQ(NoteRepository(folder.path()).read(identifier)->document.body.count(notice), 1);
}

TEST(MeetingRecoveryStore, DropsManifestsOfDeletedNotesAndKeepsThoseItCannotWriteYet) {
    TemporaryNotesFolder folder;
    MeetingRecoveryStore store(folder.path());
    const auto orphan = manifestFor("Deleted meeting.md");
    ASSERT_TRUE(store.save(orphan));
    const QString identifier = createMeetingNote(folder, "Standup");
    const auto waiting = manifestFor(identifier);
    ASSERT_TRUE(store.save(waiting));

    {
        ForkedChild otherWriter([&] { return holdLibraryLock(folder.path()); });
        ASSERT_TRUE(otherWriter.ready());
        EXPECT_TRUE(store.recoverInterruptedMeetings().isEmpty());
        // The busy note waits for the next launch.
        EXPECT_EQ(store.loadAll(), QList<MeetingRecoveryManifest>{waiting});
    }
    EXPECT_EQ(store.recoverInterruptedMeetings(), QStringList{folder.filePath(identifier)});
    EXPECT_EQ(store.loadAll(), QList<MeetingRecoveryManifest>{});
}

// The note was finished (its transcript complete, its end written) but the manifest could not be
// removed: that meeting was not interrupted and its note must not say so.
TEST(MeetingRecoveryStore, AFinishedMeetingWhoseManifestStayedIsNotMarked) {
    TemporaryNotesFolder folder;
    MeetingRecoveryStore store(folder.path());
    const QUuid sessionID = QUuid::createUuid();
    {
        MeetingNoteWriter writer(sessionID, QDateTime::currentDateTimeUtc(), folder.path());
        ASSERT_TRUE(writer.create("Done", {MeetingCaptureSource::microphone}, "ggml-base.bin",
                                  MeetingSummaryProviderKind::none));
        ASSERT_TRUE(writer.checkpoint({{QUuid::createUuid(), MeetingCaptureSource::microphone, 1, 2, "All said.", true}},
                                      false));
        const auto left = store.loadAll().value();
        ASSERT_TRUE(writer.finish(MeetingSummaryStatus::disabled));
        ASSERT_TRUE(store.save(left.front()));  // as if removing it had failed
    }
    EXPECT_TRUE(store.recoverInterruptedMeetings().isEmpty());
    EXPECT_EQ(store.loadAll(), QList<MeetingRecoveryManifest>{});
    const auto note = NoteRepository(folder.path()).read("Done.md");
    ASSERT_TRUE(note);
    EXPECT_FALSE(note->document.frontMatterFields.contains("meeting-interrupted"));
    EXPECT_FALSE(note->document.body.contains(notice));
}
