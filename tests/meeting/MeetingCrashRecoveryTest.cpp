#include <gtest/gtest.h>

#include "MeetingNoteWriter.h"
#include "ProcessTestSupport.h"
#include "TestSupport.h"

using namespace mossly;
using namespace mossly::meeting;

// A recorder process killed between checkpoints: the next launch finds its
// manifest, marks the note interrupted and keeps every segment written up to
// the last checkpoint.
TEST(MeetingCrashRecovery, AKilledRecorderLeavesAnInterruptedNoteWithItsLastCheckpoint) {
    mossly::test::TemporaryNotesFolder folder;
    const QUuid sessionID = QUuid::createUuid();
    const QDateTime started = QDateTime::currentDateTimeUtc();

    mossly::meeting::test::ForkedChild recorder([&] {
        MeetingNoteWriter writer(sessionID, started, folder.path());
        if (!writer.create("Crash test", {MeetingCaptureSource::microphone}, "ggml-base.bin",
                           MeetingSummaryProviderKind::claudeCode)) {
            return false;
        }
        const QList<MeetingTranscriptSegment> segments{
            {QUuid::createUuid(), MeetingCaptureSource::microphone, 1, 2, "First words.", true},
            {QUuid::createUuid(), MeetingCaptureSource::system, 3, 4, "A reply.", true},
            {QUuid::createUuid(), MeetingCaptureSource::microphone, 5, 6, "Not yet final", false},
        };
        return writer.checkpoint(segments, false).has_value();
    });
    ASSERT_TRUE(recorder.ready());
    recorder.kill();

    MeetingRecoveryStore store(folder.path());
    auto left = store.loadAll();
    ASSERT_TRUE(left);
    ASSERT_EQ(left->size(), 1);
    EXPECT_EQ(left->front().sessionID, sessionID);
    EXPECT_EQ(left->front().stableSegmentCount, 2);

    EXPECT_EQ(store.recoverInterruptedMeetings(), QStringList{folder.filePath("Crash test.md")});
    auto note = NoteRepository(folder.path()).read("Crash test.md");
    ASSERT_TRUE(note);
    EXPECT_EQ(note->document.body,
              "# Crash test\n\n<!-- notes:meeting-transcript:start -->\n## Transcript\n\n"
              "[00:01] You: First words.\n[00:03] System: A reply.\n<!-- notes:meeting-transcript:end -->\n\n"
              "> Recording was interrupted. This note contains the last durable transcript checkpoint.\n");
    EXPECT_EQ(note->document.frontMatterFields.at("meeting-interrupted"), NoteFrontMatterValue(true));
    EXPECT_EQ(note->document.frontMatterFields.at("meeting-summary-status"), NoteFrontMatterValue("pending"));
    EXPECT_EQ(store.loadAll(), QList<MeetingRecoveryManifest>{});
}

// Another process (a second Mossly, mossly-record) is recording right now: its
// meeting is not interrupted, and recovery leaves its note and manifest alone
// until that recorder is gone.
TEST(MeetingCrashRecovery, AMeetingAnotherProcessIsRecordingIsLeftAlone) {
    mossly::test::TemporaryNotesFolder folder;
    mossly::meeting::test::ForkedChild recorder([&] {
        auto* writer = new MeetingNoteWriter(QUuid::createUuid(), QDateTime::currentDateTimeUtc(), folder.path());
        return writer->create("Live", {MeetingCaptureSource::microphone}, "ggml-base.bin",
                              MeetingSummaryProviderKind::none)
            .has_value();  // the writer lives on in the child, as a recorder's does
    });
    ASSERT_TRUE(recorder.ready());
    MeetingRecoveryStore store(folder.path());
    EXPECT_TRUE(store.recoverInterruptedMeetings().isEmpty());
    EXPECT_EQ(store.loadAll().value_or(QList<MeetingRecoveryManifest>{}).size(), 1);
    EXPECT_FALSE(NoteRepository(folder.path()).read("Live.md")->document.frontMatterFields.contains("meeting-interrupted"));

    recorder.kill();
    EXPECT_EQ(store.recoverInterruptedMeetings(), QStringList{folder.filePath("Live.md")});
    EXPECT_EQ(store.loadAll(), QList<MeetingRecoveryManifest>{});
}
