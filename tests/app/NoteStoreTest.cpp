#include <gtest/gtest.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QSignalSpy>

#include "AppTestSupport.h"
#include "MeetingNoteWriter.h"
#include "NoteFileImporter.h"
#include "NoteListCache.h"
#include "NoteStore.h"
#include "TestSupport.h"

namespace mossly {
namespace {

class NoteStoreTest : public ::testing::Test {
protected:
    test::TemporaryNotesFolder folder;

    std::unique_ptr<NoteStore> openStore(bool welcome = false) {
        auto store = std::make_unique<NoteStore>(
            folder.path(), NoteStore::Options{.createsWelcomeNote = welcome, .loadsNotesSynchronously = true, .welcomeIconPng = {}});
        return store;
    }
    QString url(const QString& identifier) const { return folder.filePath(identifier); }
    QString bodyOnDisk(const QString& identifier) const {
        return NoteDocument(QString::fromUtf8(folder.read(identifier)), NoteContentType::markdown).body;
    }
};

TEST_F(NoteStoreTest, LoadsNewestFirstAndCreatesNotesAtTheFront) {
    folder.write(QStringLiteral("old.md"), "# Old\nfirst line");
    test::spin(20);
    folder.write(QStringLiteral("sub/new.md"), "# New\nsecond");
    auto store = openStore();
    ASSERT_EQ(store->notes().size(), 2u);
    EXPECT_EQ(store->notes()[0].identifier, QStringLiteral("sub/new.md"));
    EXPECT_EQ(store->notes()[0].title, QStringLiteral("New"));
    EXPECT_EQ(store->notes()[1].excerpt, QStringLiteral("first line"));

    const auto created = store->createNote(QStringLiteral("# Fresh"), NoteContentType::markdown);
    ASSERT_TRUE(created);
    EXPECT_EQ(store->notes().front().url, *created);
    EXPECT_EQ(store->selection(), created);
    EXPECT_TRUE(folder.exists(QStringLiteral("Fresh.md")));
}

TEST_F(NoteStoreTest, TypingForSecondsWritesOnceAfterTheLastKey) {
    folder.write(QStringLiteral("a.md"), "start");
    auto store = openStore();
    test::DiagnosticsRecorder recorder;
    QString text = QStringLiteral("start");
    for (int key = 0; key < 25; ++key) {  // a key every 80 ms for two seconds
        text += u'x';
        store->setBody(url("a.md"), text);
        test::spin(80);
        ASSERT_EQ(recorder.count(QStringLiteral("Note save committed")), 0) << "saved while typing";
    }
    EXPECT_EQ(folder.read(QStringLiteral("a.md")), "start");
    // The one write comes a quarter of a second after the last key, not much later.
    QElapsedTimer sinceLastKey;
    sinceLastKey.start();
    text += u'!';
    store->setBody(url("a.md"), text);
    ASSERT_TRUE(test::waitUntil([&] { return recorder.count(QStringLiteral("Note save committed")) == 1; }));
    EXPECT_GE(sinceLastKey.elapsed(), NoteStore::saveDelayMilliseconds);
    EXPECT_LT(sinceLastKey.elapsed(), NoteStore::saveDelayMilliseconds + 400);
    EXPECT_EQ(bodyOnDisk(QStringLiteral("a.md")), text);
    test::spin(400);
    EXPECT_EQ(recorder.count(QStringLiteral("Note save committed")), 1);
    // Our own write never comes back as an external change.
    EXPECT_EQ(recorder.count(QStringLiteral("External note changes reconciled")), 0);
}

TEST_F(NoteStoreTest, ExcerptsReadAsTextWithoutMarkup) {
    folder.write(QStringLiteral("a.md"), "# Trip\n![map](map.png)\n- **Pack** the _charts_ and [tide table](https://x.test) `v2`");
    folder.write(QStringLiteral("b.md"), "# Snake\nsnake_case_name stays *as* it is");
    auto store = openStore();
    EXPECT_EQ(store->note(url("a.md"))->excerpt, QStringLiteral("Pack the charts and tide table v2"));
    EXPECT_EQ(store->note(url("b.md"))->excerpt, QStringLiteral("snake_case_name stays as it is"));
}

TEST_F(NoteStoreTest, FlushWritesPendingEditsAtOnce) {
    folder.write(QStringLiteral("a.md"), "v1");
    auto store = openStore();
    store->setBody(url("a.md"), QStringLiteral("v2 typed just before quitting"));
    EXPECT_TRUE(store->hasPendingSaves());
    ASSERT_TRUE(store->flushPendingSaves());
    EXPECT_FALSE(store->hasPendingSaves());
    EXPECT_EQ(bodyOnDisk(QStringLiteral("a.md")), QStringLiteral("v2 typed just before quitting"));
}

// Another process (an agent) writes the note while the user has unsaved text.
class NoteStoreConflictTest : public NoteStoreTest {
protected:
    std::unique_ptr<NoteStore> store;
    void SetUp() override {
        folder.write(QStringLiteral("plan.md"), "shared plan");
        store = openStore();
        store->setBody(url("plan.md"), QStringLiteral("user's unsaved words"));
        QProcess agent;
        agent.start(QStringLiteral(MOSSLY_AGENT_PATH),
                    {"update", "plan.md", "--expected-revision", NoteDocument::revision(QByteArray("shared plan")),
                     "--body", "agent's words", "--agent", "codex", "--notes-dir", folder.path()});
        ASSERT_TRUE(agent.waitForFinished(10000));
        ASSERT_EQ(agent.exitCode(), 0) << agent.readAllStandardError().toStdString();
        ASSERT_TRUE(test::waitUntil([&] { return store->conflict(url("plan.md")) != nullptr; }));
    }
};

TEST_F(NoteStoreConflictTest, NeverOverwritesAndReloadTakesTheDiskVersion) {
    test::spin(400);
    EXPECT_EQ(bodyOnDisk(QStringLiteral("plan.md")), QStringLiteral("agent's words"));
    EXPECT_EQ(store->conflict(url("plan.md"))->userContent, QStringLiteral("user's unsaved words"));
    store->reloadConflict(url("plan.md"));
    EXPECT_FALSE(store->conflict(url("plan.md")));
    EXPECT_EQ(store->body(url("plan.md")), QStringLiteral("agent's words"));
    EXPECT_FALSE(store->hasPendingSaves());
    // Editing again saves normally on top of the agent's version.
    store->setBody(url("plan.md"), QStringLiteral("agent's words, and mine"));
    ASSERT_TRUE(store->flushPendingSaves());
    EXPECT_EQ(bodyOnDisk(QStringLiteral("plan.md")), QStringLiteral("agent's words, and mine"));
}

TEST_F(NoteStoreConflictTest, KeepConflictCopyPreservesBothTexts) {
    auto copy = store->keepConflictCopy(url("plan.md"));
    ASSERT_TRUE(copy) << copy.error().description().toStdString();
    const QString copyName = QFileInfo(*copy).fileName();
    EXPECT_TRUE(copyName.startsWith(QStringLiteral("plan (Conflict "))) << copyName.toStdString();
    EXPECT_TRUE(copyName.endsWith(QStringLiteral(").md")));
    EXPECT_EQ(bodyOnDisk(copyName), QStringLiteral("user's unsaved words"));
    EXPECT_EQ(bodyOnDisk(QStringLiteral("plan.md")), QStringLiteral("agent's words"));
    EXPECT_EQ(store->body(url("plan.md")), QStringLiteral("agent's words"));
    EXPECT_TRUE(store->note(*copy));
    EXPECT_FALSE(store->conflict(url("plan.md")));
}

// The same race through the MCP server an agent keeps running.
TEST_F(NoteStoreTest, AnMcpUpdateOfAnOpenEditedNoteBecomesAConflict) {
    folder.write(QStringLiteral("plan.md"), "shared plan");
    auto store = openStore();
    test::spin(200);
    store->setBody(url("plan.md"), QStringLiteral("user's unsaved words"));
    QProcess server;
    server.start(QStringLiteral(MOSSLY_AGENT_PATH), {"mcp", "--notes-dir", folder.path()});
    ASSERT_TRUE(server.waitForStarted());
    const QString revision = NoteDocument::revision(QByteArray("shared plan"));
    server.write(R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18","clientInfo":{"name":"codex"}}})"
                 "\n");
    server.write(QStringLiteral(R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"update_note",)"
                                R"("arguments":{"identifier":"plan.md","expectedRevision":"%1","body":"agent's words"}}})")
                     .arg(revision)
                     .toUtf8() +
                 "\n");
    server.closeWriteChannel();
    ASSERT_TRUE(server.waitForFinished(10000));
    EXPECT_TRUE(server.readAllStandardOutput().contains("agent:codex"));
    ASSERT_TRUE(test::waitUntil([&] { return store->conflict(url("plan.md")) != nullptr; }));
    EXPECT_EQ(store->conflict(url("plan.md"))->userContent, QStringLiteral("user's unsaved words"));
    EXPECT_EQ(bodyOnDisk(QStringLiteral("plan.md")), QStringLiteral("agent's words"));
}

TEST_F(NoteStoreTest, ExternalChangesAreReconciled) {
    folder.write(QStringLiteral("keep.md"), "keep");
    folder.write(QStringLiteral("gone.md"), "gone");
    auto store = openStore();
    test::DiagnosticsRecorder recorder;
    test::spin(200);
    folder.write(QStringLiteral("new.md"), "# Arrived");
    folder.write(QStringLiteral("keep.md"), "kept, and edited elsewhere");
    QFile::remove(folder.filePath("gone.md"));
    ASSERT_TRUE(test::waitUntil([&] { return store->note(url("new.md")) && !store->note(url("gone.md")); }));
    EXPECT_EQ(store->body(url("keep.md")), QStringLiteral("kept, and edited elsewhere"));
    EXPECT_GE(recorder.count(QStringLiteral("External note changes reconciled")), 1);
}

TEST_F(NoteStoreTest, DeletedElsewhereWithUnsavedWordsIsWrittenBack) {
    folder.write(QStringLiteral("draft.md"), "draft");
    auto store = openStore();
    test::spin(200);
    store->setBody(url("draft.md"), QStringLiteral("words not yet saved"));
    QFile::remove(folder.filePath("draft.md"));
    ASSERT_TRUE(test::waitUntil([&] { return folder.exists(QStringLiteral("draft.md")); }));
    test::spin(400);
    EXPECT_EQ(bodyOnDisk(QStringLiteral("draft.md")), QStringLiteral("words not yet saved"));
    EXPECT_TRUE(store->note(url("draft.md")));
}

TEST_F(NoteStoreTest, ActivatingAnotherFolderFollowsRelocatedNotes) {
    folder.write(QStringLiteral("a.md"), "a");
    auto store = openStore();
    store->select(url("a.md"));
    store->setBody(url("a.md"), QStringLiteral("edited before the move"));
    // What the storage coordinator does: flush, move the files, switch the library.
    ASSERT_TRUE(store->flushPendingSaves());
    QSignalSpy selectionChanges(store.get(), &NoteStore::selectionChanged);
    test::TemporaryNotesFolder moved;
    moved.write(QStringLiteral("a.md"), folder.read(QStringLiteral("a.md")));
    ASSERT_TRUE(store->activateDirectory(moved.path(), {{url("a.md"), moved.filePath("a.md")}}));
    EXPECT_EQ(store->directory(), QDir::cleanPath(moved.path()));
    EXPECT_EQ(store->selection(), moved.filePath("a.md"));
    EXPECT_EQ(store->body(moved.filePath("a.md")), QStringLiteral("edited before the move"));
    EXPECT_EQ(store->resolveNoteID(url("a.md")), moved.filePath("a.md"));
    EXPECT_EQ(selectionChanges.count(), 1) << "an editor still showing the old place would type into nothing";
}

// An editor whose text is older than its note (it never took a change) must
// not win with its next keystroke: both texts are kept, the file untouched.
TEST_F(NoteStoreTest, AnEditorChangeMadeOnOlderTextBecomesAConflict) {
    folder.write(QStringLiteral("a.md"), "the agent's newer text");
    auto store = openStore();
    store->applyEditorChange(url("a.md"), QStringLiteral("what the editor showed"),
                             QStringLiteral("what the editor showed, typed on"));
    ASSERT_TRUE(store->conflict(url("a.md")));
    EXPECT_EQ(store->conflict(url("a.md"))->disk.content, QStringLiteral("the agent's newer text"));
    EXPECT_EQ(store->conflict(url("a.md"))->userContent, QStringLiteral("what the editor showed, typed on"));
    EXPECT_FALSE(store->hasPendingSaves());
    test::spin(400);
    EXPECT_EQ(bodyOnDisk(QStringLiteral("a.md")), QStringLiteral("the agent's newer text"));
    // Typing on the current text is an ordinary edit.
    store->reloadConflict(url("a.md"));
    store->applyEditorChange(url("a.md"), QStringLiteral("the agent's newer text"), QStringLiteral("the agent's newer text!"));
    EXPECT_FALSE(store->conflict(url("a.md")));
    ASSERT_TRUE(store->flushPendingSaves());
    EXPECT_EQ(bodyOnDisk(QStringLiteral("a.md")), QStringLiteral("the agent's newer text!"));
}

TEST(Diagnostics, UserPathsAreHidden) {
    DiagnosticsCenter& center = DiagnosticsCenter::shared();
    center.addPrivatePath(QStringLiteral("/home/ann/Notes"));
    EXPECT_EQ(center.redacted(QStringLiteral("cannot read /home/ann/Notes/Plan.md")),
              QStringLiteral("cannot read <path>/Plan.md"));
    DiagnosticFields seen;
    const int token = center.addObserver([&](const QString&, const QString& name, const DiagnosticFields& fields) {
        if (name == QStringLiteral("Test event")) seen = fields;
    });
    center.event(QStringLiteral("Test event"), {{"count", 2}});
    center.removeObserver(token);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].second.toInt(), 2);
}

TEST_F(NoteStoreTest, SearchAsYouType) {
    folder.write(QStringLiteral("budget.md"), "# Budget\nnumbers for Q3");
    folder.write(QStringLiteral("other.md"), "# Other\nnothing");
    auto store = openStore();
    QElapsedTimer sinceTyping;
    sinceTyping.start();
    store->setSearchText(QStringLiteral("budget"));
    test::spin(60);
    EXPECT_FALSE(store->searchResults()) << "searched before the typing paused";
    ASSERT_TRUE(test::waitUntil([&] { return store->searchResults().has_value(); }));
    EXPECT_GE(sinceTyping.elapsed(), NoteStore::searchDelayMilliseconds);
    EXPECT_LT(sinceTyping.elapsed(), NoteStore::searchDelayMilliseconds + 400);
    ASSERT_EQ(store->filteredNotes().size(), 1u);
    EXPECT_EQ(store->filteredNotes()[0]->identifier, QStringLiteral("budget.md"));
    // Once the catalog has indexed the library, results come from it, excerpts included.
    ASSERT_TRUE(test::waitUntil([&] { return QFile::exists(folder.filePath(".mossly-search.sqlite")); }));
    test::spin(300);
    store->setSearchText(QStringLiteral("numbers"));
    ASSERT_TRUE(test::waitUntil([&] { return store->searchResult(url("budget.md")) != nullptr; }));
    EXPECT_TRUE(store->searchResult(url("budget.md"))->excerpt.contains(QStringLiteral("numbers")));
    store->setSearchText(QString());
    EXPECT_FALSE(store->searchResults());
    EXPECT_EQ(store->filteredNotes().size(), 2u);
}

TEST_F(NoteStoreTest, WelcomeNoteOnlyInAnEmptyLibrary) {
    {
        NoteStore store(folder.path(), {.createsWelcomeNote = true, .loadsNotesSynchronously = false, .welcomeIconPng = QByteArray("\x89PNG fake")});
        store.loadInitialNotes();
        ASSERT_TRUE(test::waitUntil([&] { return !store.isLoadingInitialNotes(); }));
        ASSERT_EQ(store.notes().size(), 1u);
        EXPECT_EQ(store.notes()[0].identifier, QStringLiteral("Welcome to Mossly.md"));
        EXPECT_EQ(store.selection(), store.notes()[0].url);
        ASSERT_TRUE(store.flushPendingSaves());
        const QString text = bodyOnDisk(QStringLiteral("Welcome to Mossly.md"));
        EXPECT_TRUE(text.startsWith(QStringLiteral("# Welcome to Mossly\n\n![Mossly icon](")));
        EXPECT_TRUE(folder.exists(QStringLiteral("Welcome to Mossly.assets/Mossly Icon.png")));
    }
    NoteStore again(folder.path(), {.createsWelcomeNote = true, .loadsNotesSynchronously = true, .welcomeIconPng = {}});
    EXPECT_EQ(again.notes().size(), 1u);  // not a second welcome note

    test::TemporaryNotesFolder empty;
    NoteStore without(empty.path(), {.createsWelcomeNote = false, .loadsNotesSynchronously = true, .welcomeIconPng = {}});
    EXPECT_TRUE(without.notes().empty());

    // The list cache says "empty" but notes arrived since (synced, copied in): no welcome note among them.
    test::TemporaryNotesFolder synced;
    ASSERT_TRUE(NoteListCache::save(synced.path(), {}));
    synced.write(QStringLiteral("From the other laptop.md"), "# From the other laptop");
    NoteStore::Options cached{.createsWelcomeNote = true, .loadsNotesSynchronously = false, .welcomeIconPng = {}};
    cached.usesNoteListCache = true;
    NoteStore fromCache(synced.path(), cached);
    fromCache.loadInitialNotes();
    ASSERT_TRUE(test::waitUntil([&] { return fromCache.notes().size() == 1; }));
    test::spin(300);
    EXPECT_EQ(fromCache.notes().size(), 1u);
    EXPECT_FALSE(synced.exists(QStringLiteral("Welcome to Mossly.md")));
    // An empty cache of a folder that really is empty still greets.
    test::TemporaryNotesFolder fresh;
    ASSERT_TRUE(NoteListCache::save(fresh.path(), {}));
    NoteStore greeted(fresh.path(), cached);
    greeted.loadInitialNotes();
    ASSERT_TRUE(test::waitUntil([&] { return greeted.notes().size() == 1; }));
    EXPECT_TRUE(fresh.exists(QStringLiteral("Welcome to Mossly.md")));
}

TEST_F(NoteStoreTest, ImportCopiesNotesUnderUniqueNamesAndReportsFailures) {
    test::TemporaryNotesFolder outside;
    outside.write(QStringLiteral("Plan.md"), "# Imported plan");
    outside.write(QStringLiteral("Page.HTML"), "<p>page</p>");
    outside.write(QStringLiteral("notes.txt"), "not a note");
    outside.write(QStringLiteral("latin1.md"), "caf\xe9");
    folder.write(QStringLiteral("Plan.md"), "existing");
    auto store = openStore();
    std::optional<NoteFileImportReport> report;
    QObject::connect(store.get(), &NoteStore::importFinished, [&](const NoteFileImportReport& r) { report = r; });
    store->importNoteFiles({outside.filePath("Plan.md"), outside.filePath("Page.HTML"),
                            outside.filePath("notes.txt"), outside.filePath("latin1.md")});
    ASSERT_TRUE(test::waitUntil([&] { return report.has_value(); }));
    EXPECT_EQ(report->imported, (QStringList{"Plan 2.md", "Page.html"}));
    ASSERT_EQ(report->failures.size(), 2u);
    EXPECT_EQ(report->failures[0].first, QStringLiteral("notes.txt"));
    EXPECT_EQ(folder.read(QStringLiteral("Plan.md")), "existing");
    EXPECT_EQ(folder.read(QStringLiteral("Plan 2.md")), "# Imported plan");
    EXPECT_TRUE(store->note(url("Page.html")));
}

// A large import tells the window how far it is, and quitting ends it between
// two files: what was imported is whole, the rest is left where it was.
TEST_F(NoteStoreTest, LargeImportsReportProgressAndStopBetweenFilesWhenQuitting) {
    test::TemporaryNotesFolder outside;
    QStringList paths;
    for (int i = 0; i < 150; ++i) {
        const QString name = QStringLiteral("Imported %1.md").arg(i);
        outside.write(name, QStringLiteral("# Imported %1\nbody").arg(i).toUtf8());
        paths.append(outside.filePath(name));
    }
    auto store = openStore();
    std::vector<std::pair<int, int>> reports;
    QObject::connect(store.get(), &NoteStore::importProgress, [&](int done, int total) { reports.emplace_back(done, total); });
    bool finished = false;
    QObject::connect(store.get(), &NoteStore::importFinished, [&](const NoteFileImportReport&) { finished = true; });
    store->importNoteFiles(paths);
    ASSERT_TRUE(test::waitUntil([&] { return finished; }));
    ASSERT_FALSE(reports.empty());
    EXPECT_EQ(reports.back(), std::make_pair(150, 150));
    EXPECT_TRUE(std::is_sorted(reports.begin(), reports.end()));
    EXPECT_EQ(store->notes().size(), 150u);

    std::stop_source quitting;
    quitting.request_stop();
    const NoteFileImportReport stopped =
        importNoteFiles(NoteRepository(folder.path()), {outside.filePath("Imported 0.md")}, {}, quitting.get_token());
    EXPECT_TRUE(stopped.imported.isEmpty());
    EXPECT_FALSE(folder.exists(QStringLiteral("Imported 0 2.md")));
}

}  // namespace
}  // namespace mossly

namespace mossly {
namespace {

// The meeting recorder rewrites its transcript every few seconds while the user
// types notes into the same open note: neither side loses a word, and no
// conflict banner appears for changes that do not overlap.
class MeetingNotePatchTest : public NoteStoreTest {
protected:
    std::unique_ptr<NoteStore> store = openStore();
    meeting::MeetingNoteWriter writer{QUuid::createUuid(), QDateTime::currentDateTimeUtc(), folder.path()};
    QString noteUrl;

    void SetUp() override {
        auto created = writer.create(QStringLiteral("Standup"), {meeting::MeetingCaptureSource::microphone},
                                     QStringLiteral("ggml-base.bin"), meeting::MeetingSummaryProviderKind::none);
        ASSERT_TRUE(created);
        noteUrl = created->url;
        store->patchMeetingNote(noteUrl);
        ASSERT_TRUE(store->note(noteUrl)) << "a new meeting note is listed at once";
    }
    void checkpoint(const QStringList& lines) {
        QList<meeting::MeetingTranscriptSegment> segments;
        for (int i = 0; i < lines.size(); ++i) {
            segments.append({QUuid::createUuid(), meeting::MeetingCaptureSource::microphone, double(i), i + 1.0,
                             lines[i], true});
        }
        ASSERT_TRUE(writer.checkpoint(segments, false));
    }
};

TEST_F(MeetingNotePatchTest, TheTranscriptGrowsInTheOpenNoteAroundTheUsersTyping) {
    QStringList changed;
    QObject::connect(store.get(), &NoteStore::noteContentChanged, [&](const QString& url) { changed.append(url); });
    checkpoint({QStringLiteral("first words")});
    store->patchMeetingNote(noteUrl);
    EXPECT_TRUE(store->body(noteUrl).contains(QStringLiteral("first words")));
    EXPECT_EQ(changed.count(noteUrl), 1);

    // The user types at the top, still unsaved, while the next checkpoint lands.
    const QString typed = store->body(noteUrl).replace(QStringLiteral("# Standup\n"),
                                                       QStringLiteral("# Standup\nAsk about the budget.\n"));
    store->setBody(noteUrl, typed);
    checkpoint({QStringLiteral("first words"), QStringLiteral("second words")});
    store->patchMeetingNote(noteUrl);
    EXPECT_EQ(store->conflict(noteUrl), nullptr);
    EXPECT_TRUE(store->body(noteUrl).contains(QStringLiteral("Ask about the budget.")));
    EXPECT_TRUE(store->body(noteUrl).contains(QStringLiteral("second words")));

    // The next checkpoint lands before the store hears of it: the save finds a newer file and merges too.
    checkpoint({QStringLiteral("first words"), QStringLiteral("second words"), QStringLiteral("third words")});
    ASSERT_TRUE(store->flushPendingSaves());
    const QString onDisk = QString::fromUtf8(folder.read(QFileInfo(noteUrl).fileName()));
    EXPECT_TRUE(onDisk.contains(QStringLiteral("Ask about the budget.")));
    EXPECT_TRUE(onDisk.contains(QStringLiteral("third words")));
    EXPECT_TRUE(onDisk.contains(QStringLiteral("meeting-id")));
    EXPECT_EQ(store->conflict(noteUrl), nullptr);
    EXPECT_FALSE(store->hasUnsavedChanges());
}

TEST_F(MeetingNotePatchTest, EditsInsideTheTranscriptTheRecorderRewroteBecomeAConflict) {
    checkpoint({QStringLiteral("the quick fox")});
    store->patchMeetingNote(noteUrl);
    const QString corrected = store->body(noteUrl).replace(QStringLiteral("quick fox"), QStringLiteral("quick brown fox"));
    store->setBody(noteUrl, corrected);
    checkpoint({QStringLiteral("the quick fox"), QStringLiteral("jumps")});
    store->patchMeetingNote(noteUrl);
    ASSERT_NE(store->conflict(noteUrl), nullptr);
    EXPECT_EQ(store->conflict(noteUrl)->userContent, corrected) << "the user's correction is kept for a copy";
    EXPECT_TRUE(store->conflict(noteUrl)->disk.content.contains(QStringLiteral("jumps")));
}

}  // namespace
}  // namespace mossly
