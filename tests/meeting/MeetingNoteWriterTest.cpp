#include <gtest/gtest.h>

#include <QFile>

#include "MeetingNoteFormat.h"
#include "MeetingNoteWriter.h"
#include "ProcessTestSupport.h"
#include "TestSupport.h"

using namespace mossly;
using namespace mossly::meeting;
using mossly::meeting::test::ForkedChild;
using mossly::meeting::test::holdLibraryLock;
using mossly::test::TemporaryNotesFolder;

namespace {

const QDateTime started(QDate(2026, 11, 23), QTime(14, 5, 7, 250), Qt::UTC);
const QSet<MeetingCaptureSource> bothSources{MeetingCaptureSource::system, MeetingCaptureSource::microphone};

MeetingTranscriptSegment said(MeetingCaptureSource source, double start, QString text, bool stable = true) {
    return {QUuid::createUuid(), source, start, start + 1, std::move(text), stable};
}

struct MeetingNoteWriterTest : ::testing::Test {
    TemporaryNotesFolder folder;
    QUuid sessionID = QUuid::createUuid();
    MeetingNoteWriter writer{sessionID, started, folder.path()};
    NoteRepository repository{folder.path()};

    StoredNote create(MeetingSummaryProviderKind provider = MeetingSummaryProviderKind::claudeCode) {
        auto note = writer.create("Standup", bothSources, "ggml-base.bin", provider);
        if (!note) ADD_FAILURE() << note.error().description().toStdString();
        return note.value();
    }
    StoredNote current() { return repository.read(*writer.noteIdentifier()).value(); }
    std::optional<MeetingRecoveryManifest> manifest() {
        const auto all = writer.recovery().loadAll();
        if (!all || all->isEmpty()) return std::nullopt;
        return all->front();
    }
    // An agent (or the user) edits the note through the repository, as another process would.
    void agentAppendsToTitle(const QString& line) {
        const StoredNote note = current();
        QString body = note.document.body;
        body.insert(body.indexOf('\n') + 1, line + "\n");
        ASSERT_TRUE(repository.update(note.identifier, note.document.revision(), body, NoteEditor::agent("claude")));
    }
};

const QString transcriptBlock(const QString& lines) {
    return "<!-- notes:meeting-transcript:start -->\n## Transcript\n\n" + lines +
           "\n<!-- notes:meeting-transcript:end -->";
}


}  // namespace

TEST_F(MeetingNoteWriterTest, CreatesTheNoteWithItsFrontMatterBodyAndManifest) {
    const StoredNote note = create();
    EXPECT_EQ(note.identifier, "Standup.md");
    const QString id = sessionID.toString(QUuid::WithoutBraces).toUpper();
    EXPECT_EQ(note.persistedContent,
              "---\n"
              "notes-created-by: agent:meeting-recorder\n"
              "meeting-id: \"" + id + "\"\n"
              "meeting-model: \"ggml-base.bin\"\n"
              "meeting-provider: \"claudeCode\"\n"
              "meeting-sources: [\"microphone\",\"system\"]\n"
              "meeting-started-at: \"2026-11-23T14:05:07.250Z\"\n"
              "meeting-summary-status: \"pending\"\n"
              "---\n"
              "# Standup\n\n"
              "<!-- notes:meeting-transcript:start -->\n## Transcript\n\n_Recording started…_\n"
              "<!-- notes:meeting-transcript:end -->");
    const auto saved = manifest();
    ASSERT_TRUE(saved);
    EXPECT_EQ(saved->sessionID, sessionID);
    EXPECT_EQ(saved->noteIdentifier, "Standup.md");
    EXPECT_EQ(saved->startedAt, started);
    EXPECT_EQ(saved->stableSegmentCount, 0);
}

TEST_F(MeetingNoteWriterTest, AnEmptyTitleNamesTheMeetingByItsStartAndNoProviderDisablesTheSummary) {
    const QDateTime localStart(QDate(2026, 11, 23), QTime(14, 5), Qt::LocalTime);
    MeetingNoteWriter untitled(sessionID, localStart, folder.path());
    auto note = untitled.create("  ", {MeetingCaptureSource::microphone}, "ggml-base.bin",
                                MeetingSummaryProviderKind::none, {"Standup audio/microphone.caf"});
    ASSERT_TRUE(note);
    EXPECT_TRUE(note->document.body.startsWith("# Meeting 2026-11-23 14:05\n\n"));
    const auto& fields = note->document.frontMatterFields;
    EXPECT_EQ(fields.at("meeting-summary-status"), NoteFrontMatterValue("disabled"));
    EXPECT_EQ(fields.at("meeting-provider"), NoteFrontMatterValue("none"));
    EXPECT_EQ(fields.at("meeting-sources"), NoteFrontMatterValue(QStringList{"microphone"}));
    EXPECT_EQ(fields.at("meeting-recordings"), NoteFrontMatterValue(QStringList{"Standup audio/microphone.caf"}));
}

TEST_F(MeetingNoteWriterTest, ACheckpointRewritesOnlyTheTranscriptBlock) {
    create();
    agentAppendsToTitle("Agenda: budget (added by an agent)");
    QString userNotes = current().document.body + "\n\nMy own notes below the transcript.";
    ASSERT_TRUE(repository.update("Standup.md", current().document.revision(), userNotes, NoteEditor::human()));

    const QList<MeetingTranscriptSegment> segments{said(MeetingCaptureSource::microphone, 1, "Good morning."),
                                                   said(MeetingCaptureSource::system, 65, "Morning!"),
                                                   said(MeetingCaptureSource::microphone, 70, "and the", false)};
    auto note = writer.checkpoint(segments, false);
    ASSERT_TRUE(note) << note.error().description().toStdString();
    EXPECT_EQ(note->document.body, "# Standup\nAgenda: budget (added by an agent)\n\n" +
                                       transcriptBlock("[00:01] You: Good morning.\n[01:05] System: Morning!") +
                                       "\n\nMy own notes below the transcript.");
    EXPECT_EQ(note->document.lastEditedBy, NoteEditor::agent("meeting-recorder"));
    EXPECT_EQ(manifest()->stableSegmentCount, 2);
    EXPECT_LE(std::abs(manifest()->lastCheckpointAt.secsTo(QDateTime::currentDateTimeUtc())), 60);
}

TEST_F(MeetingNoteWriterTest, NoSpeechAndInterruptedCheckpointsSayso) {
    create();
    auto empty = writer.checkpoint({said(MeetingCaptureSource::system, 0, "…", false)}, false);
    ASSERT_TRUE(empty);
    EXPECT_TRUE(empty->document.body.endsWith(transcriptBlock("_No speech transcribed._")));
    EXPECT_FALSE(empty->document.frontMatterFields.contains("meeting-interrupted"));

    auto interrupted = writer.checkpoint({said(MeetingCaptureSource::microphone, 2, "Bye.")}, true);
    ASSERT_TRUE(interrupted);
    EXPECT_TRUE(interrupted->document.body.endsWith(transcriptBlock(
        "[00:02] You: Bye.\n\n> Recording was interrupted. This transcript contains the last durable checkpoint.")));
    EXPECT_EQ(interrupted->document.frontMatterFields.at("meeting-interrupted"), NoteFrontMatterValue(true));
}

TEST_F(MeetingNoteWriterTest, ANoteWithoutMarkersGetsTheBlockAtItsEnd) {
    create();
    ASSERT_TRUE(repository.update("Standup.md", current().document.revision(), QString("# Standup\n\nonly mine\n"),
                                  NoteEditor::human()));
    auto note = writer.checkpoint({said(MeetingCaptureSource::microphone, 3, "Hello.")}, false);
    ASSERT_TRUE(note);
    EXPECT_EQ(note->document.body, "# Standup\n\nonly mine\n\n" + transcriptBlock("[00:03] You: Hello."));
}

TEST_F(MeetingNoteWriterTest, AStaleCheckpointIsRetriedOnTheNewRevision) {
    create();
    bool edited = false;
    writer.setBeforeUpdateForTesting([&] {
        if (!std::exchange(edited, true)) agentAppendsToTitle("Typed while we wrote");
    });
    auto note = writer.checkpoint({said(MeetingCaptureSource::microphone, 1, "One.")}, false);
    ASSERT_TRUE(note) << note.error().description().toStdString();
    EXPECT_EQ(note->document.body, "# Standup\nTyped while we wrote\n\n" + transcriptBlock("[00:01] You: One."));
}

TEST_F(MeetingNoteWriterTest, ANoteThatKeepsChangingIsNeverOverwritten) {
    create();
    writer.checkpoint({said(MeetingCaptureSource::microphone, 1, "One.")}, false);
    int edits = 0;
    writer.setBeforeUpdateForTesting([&] { agentAppendsToTitle("edit " + QString::number(++edits)); });
    auto note = writer.checkpoint({said(MeetingCaptureSource::microphone, 1, "One."),
                                   said(MeetingCaptureSource::system, 2, "Two.")},
                                  false);
    ASSERT_FALSE(note);
    EXPECT_EQ(note.error(), MeetingSessionError::noteWriteFailed("The meeting note changed during checkpointing."));
    EXPECT_EQ(edits, MeetingNoteWriter::updateAttempts);
    EXPECT_EQ(current().document.body, "# Standup\nedit 3\nedit 2\nedit 1\n\n" + transcriptBlock("[00:01] You: One."));
    EXPECT_EQ(manifest()->stableSegmentCount, 1) << "the manifest still describes the last durable checkpoint";
}

TEST_F(MeetingNoteWriterTest, ABusyLibraryFailsTheCheckpointAndTheNextOneWritesEverything) {
    create();
    ASSERT_TRUE(writer.checkpoint({said(MeetingCaptureSource::microphone, 1, "One.")}, false));
    const QString before = current().persistedContent;
    const QList<MeetingTranscriptSegment> segments{said(MeetingCaptureSource::microphone, 1, "One."),
                                                   said(MeetingCaptureSource::system, 2, "Two.")};
    {
        ForkedChild otherWriter([&] { return holdLibraryLock(folder.path()); });
        ASSERT_TRUE(otherWriter.ready());
        auto note = writer.checkpoint(segments, false);
        ASSERT_FALSE(note);
        EXPECT_EQ(note.error(), MeetingSessionError::noteWriteFailed("The notes library is busy. Try again."));
        EXPECT_EQ(current().persistedContent, before);
        EXPECT_EQ(manifest()->stableSegmentCount, 1);
    }
    auto note = writer.checkpoint(segments, false);
    ASSERT_TRUE(note);
    EXPECT_TRUE(note->document.body.endsWith(transcriptBlock("[00:01] You: One.\n[00:02] System: Two.")));
    EXPECT_EQ(manifest()->stableSegmentCount, 2);
}

TEST_F(MeetingNoteWriterTest, ADeletedNoteFailsCheckpointsAndFinishingStillClearsTheManifest) {
    create();
    ASSERT_TRUE(QFile::remove(folder.filePath("Standup.md")));
    auto note = writer.checkpoint({said(MeetingCaptureSource::microphone, 1, "One.")}, false);
    ASSERT_FALSE(note);
    EXPECT_EQ(note.error(), MeetingSessionError::noteWriteFailed("No note exists at Standup.md"));
    EXPECT_FALSE(folder.exists("Standup.md")) << "a deleted note is not brought back";
    ASSERT_TRUE(manifest());

    auto finished = writer.finish(MeetingSummaryStatus::disabled);
    ASSERT_TRUE(finished);
    EXPECT_EQ(*finished, std::nullopt);
    EXPECT_FALSE(manifest());
}

TEST_F(MeetingNoteWriterTest, WithoutANoteNothingIsWritten) {
    auto note = writer.checkpoint({}, false);
    ASSERT_FALSE(note);
    EXPECT_EQ(note.error(), MeetingSessionError::noteWriteFailed("The meeting note was not created."));

    folder.write("Not a folder", "");
    MeetingNoteWriter nowhere(sessionID, started, folder.filePath("Not a folder"));
    auto created = nowhere.create("Standup", bothSources, "ggml-base.bin", MeetingSummaryProviderKind::none);
    ASSERT_FALSE(created);
    EXPECT_EQ(created.error().code(), MeetingSessionError::Code::noteWriteFailed);
    EXPECT_FALSE(nowhere.noteIdentifier());
}

TEST_F(MeetingNoteWriterTest, FinishingWritesTheEndAndStatusThenRemovesTheManifest) {
    create();
    ASSERT_TRUE(writer.checkpoint({said(MeetingCaptureSource::microphone, 1, "One.")}, false));
    const QDateTime ended = started.addSecs(600);
    auto finished = writer.finish(MeetingSummaryStatus::pending, {"Standup audio/system.caf"}, ended);
    ASSERT_TRUE(finished);
    ASSERT_TRUE(*finished);
    const auto& fields = (*finished)->document.frontMatterFields;
    EXPECT_EQ(fields.at("meeting-ended-at"), NoteFrontMatterValue("2026-11-23T14:15:07.250Z"));
    EXPECT_EQ(fields.at("meeting-summary-status"), NoteFrontMatterValue("pending"));
    EXPECT_EQ(fields.at("meeting-recordings"), NoteFrontMatterValue(QStringList{"Standup audio/system.caf"}));
    EXPECT_FALSE(manifest());
    EXPECT_TRUE(writer.recovery().recoverInterruptedMeetings().isEmpty());
}

TEST_F(MeetingNoteWriterTest, TheSummaryBlockIsAddedOnceAndReplacedAfterwards) {
    create();
    ASSERT_TRUE(writer.checkpoint({said(MeetingCaptureSource::microphone, 1, "One.")}, false));
    ASSERT_TRUE(writer.insertSummary({"Standup", "Short.", {}, {"Ana: notes"}, {}}));
    auto note = writer.insertSummary({"Standup", "Shorter.", {"Ship"}, {}, {}});
    ASSERT_TRUE(note);
    EXPECT_EQ(note->document.body, "# Standup\n\n" + transcriptBlock("[00:01] You: One.") +
                                       "\n\n<!-- notes:meeting-summary:start -->\n## Summary\n\nShorter.\n\n"
                                       "## Decisions\n\n- Ship\n\n## Action items\n\n_None recorded._\n\n"
                                       "## Open questions\n\n_None recorded._\n<!-- notes:meeting-summary:end -->");
    EXPECT_EQ(note->document.frontMatterFields.at("meeting-summary-status"), NoteFrontMatterValue("complete"));

    auto failed = writer.setSummaryStatus(MeetingSummaryStatus::failed);
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->document.frontMatterFields.at("meeting-summary-status"), NoteFrontMatterValue("failed"));
    EXPECT_EQ(failed->document.body, note->document.body);
}

// The recorder's rewrite and the user's unsaved text meet in the app: they merge only when
// neither touched what the other changed.
TEST(MeetingNoteMerge, TakesTheRecordersBlocksAroundTheUsersWordsAndRefusesOverlaps) {
    using MeetingNoteFormat::mergingRecorderBlocks;
    const QString start = MeetingNoteFormat::transcriptStartMarker + u'\n';
    const QString end = MeetingNoteFormat::transcriptEndMarker + u'\n';
    const QString base = "# Standup\n\nAgenda\n\n" + start + "**You:** hello\n" + end;
    const QString theirs = "# Standup\n\nAgenda\n\n" + start + "**You:** hello\n**System:** hi there\n" + end;
    const QString mine = "# Standup\n\nAgenda: budget, hiring\n\n" + start + "**You:** hello\n" + end + "\nAfter.\n";

    EXPECT_EQ(mergingRecorderBlocks(base, mine, theirs),
              "# Standup\n\nAgenda: budget, hiring\n\n" + start + "**You:** hello\n**System:** hi there\n" + end +
                  "\nAfter.\n");
    // Nothing new from the recorder: the user's text as it is.
    EXPECT_EQ(mergingRecorderBlocks(base, mine, base), mine);

    // The user corrected a word inside the transcript the recorder just rewrote.
    const QString correctedInside = "# Standup\n\nAgenda\n\n" + start + "**You:** hello all\n" + end;
    EXPECT_EQ(mergingRecorderBlocks(base, correctedInside, theirs), std::nullopt);
    // The user deleted the markers.
    EXPECT_EQ(mergingRecorderBlocks(base, "# Standup\n\nAgenda\n", theirs), std::nullopt);
    // Somebody else changed text outside the blocks as well.
    const QString theirsOutside = "# Standup\n\nAgenda (moved)\n\n" + start + "**You:** hello\n**System:** hi\n" + end;
    EXPECT_EQ(mergingRecorderBlocks(base, mine, theirsOutside), std::nullopt);

    // A summary block appended at the end reaches the user's text the same way.
    const QString summary = MeetingNoteFormat::summaryStartMarker + "\n## Summary\nShipped.\n" +
                            MeetingNoteFormat::summaryEndMarker;
    const QString withSummary = MeetingNoteFormat::replacingBlock(base, MeetingNoteFormat::summaryStartMarker,
                                                                  MeetingNoteFormat::summaryEndMarker, summary);
    const auto merged = mergingRecorderBlocks(base, mine, withSummary);
    ASSERT_TRUE(merged);
    EXPECT_TRUE(merged->startsWith("# Standup\n\nAgenda: budget, hiring\n")) << merged->toStdString();
    EXPECT_TRUE(merged->endsWith("After.\n\n" + summary)) << merged->toStdString();
}
