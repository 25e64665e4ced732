#include <gtest/gtest.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>
#include <QThreadPool>

#include "AppTestSupport.h"
#include "EditorPane.h"
#include "FaultyFileAccess.h"
#include "FaultyStoreTest.h"
#include "LaunchNotices.h"
#include "MarkdownTextView.h"
#include "MeetingNoteWriter.h"
#include "NoteListCache.h"
#include "NoteStore.h"
#include "QuitFlow.h"
#include "TestSupport.h"

namespace mossly {
namespace {

using Operation = test::FaultyFileAccess::Operation;
using namespace std::chrono_literals;

class NoteStoreFailureTest : public test::FaultyStoreTest {};

TEST_F(NoteStoreFailureTest, AFailedSaveStaysPendingIsShownAndRetriedUntilItWorks) {
    folder.write(QStringLiteral("a.md"), "before");
    auto store = openStore();
    QSignalSpy problems(store.get(), &NoteStore::problemOccurred);
    files->failNext(Operation::update, test::diskFull(url("a.md")));
    store->setBody(url("a.md"), QStringLiteral("words typed while the disk was full"));

    ASSERT_TRUE(test::waitUntil([&] { return store->saveFailure(url("a.md")) != nullptr; }));
    EXPECT_TRUE(store->hasPendingSaves());
    EXPECT_EQ(folder.read(QStringLiteral("a.md")), "before");
    ASSERT_EQ(problems.count(), 1);
    EXPECT_TRUE(problems[0][0].toString().contains(test::diskFull(url("a.md")).description()));

    // The retry comes by itself, a second later, and clears the failure.
    ASSERT_TRUE(test::waitUntil([&] { return !store->hasPendingSaves(); }, 4000));
    EXPECT_EQ(bodyOnDisk(QStringLiteral("a.md")), QStringLiteral("words typed while the disk was full"));
    EXPECT_FALSE(store->saveFailure(url("a.md")));
}

TEST_F(NoteStoreFailureTest, ABusyLibraryStaysQuietWhileRetryingThenSaves) {
    folder.write(QStringLiteral("a.md"), "before");
    auto store = openStore();
    QSignalSpy problems(store.get(), &NoteStore::problemOccurred);
    files->failNext(Operation::update, Error::busy(), 3);
    store->setBody(url("a.md"), QStringLiteral("after"));
    ASSERT_TRUE(test::waitUntil([&] { return !store->hasPendingSaves(); }, 3000));
    EXPECT_EQ(files->calls(Operation::update), 4);
    EXPECT_EQ(problems.count(), 0);
    EXPECT_EQ(bodyOnDisk(QStringLiteral("a.md")), QStringLiteral("after"));
}

TEST_F(NoteStoreFailureTest, FlushWaitsForABusyLockAndReportsWhatItCouldNotSave) {
    folder.write(QStringLiteral("a.md"), "before");
    auto store = openStore();
    // Busy for a few attempts: the flush waits it out.
    files->failNext(Operation::update, Error::busy(), 5);
    store->setBody(url("a.md"), QStringLiteral("saved after a short wait"));
    ASSERT_TRUE(store->flushPendingSaves(2s));
    EXPECT_EQ(bodyOnDisk(QStringLiteral("a.md")), QStringLiteral("saved after a short wait"));

    // Busy for good: the flush gives up after its patience and says so; the words stay pending.
    files->failAlways(Operation::update, Error::busy());
    store->setBody(url("a.md"), QStringLiteral("never saved"));
    QElapsedTimer timer;
    timer.start();
    auto flushed = store->flushPendingSaves(300ms);
    EXPECT_GE(timer.elapsed(), 300);
    ASSERT_FALSE(flushed);
    EXPECT_EQ(flushed.error().code(), Error::Code::busy);
    EXPECT_TRUE(store->hasPendingSaves());

    // Nor does the library move to another folder with the words unsaved.
    test::TemporaryNotesFolder elsewhere;
    EXPECT_FALSE(store->activateDirectory(elsewhere.path()));
    EXPECT_EQ(store->directory(), QDir::cleanPath(folder.path()));
    EXPECT_EQ(store->body(url("a.md")), QStringLiteral("never saved"));
}

TEST_F(NoteStoreFailureTest, QuittingWithAFailingSaveAsksAndNeverLosesSilently) {
    folder.write(QStringLiteral("Plan.md"), "# Plan\nold");
    auto store = openStore();
    files->failAlways(Operation::update, test::permissionDenied(url("Plan.md")));
    store->setBody(url("Plan.md"), QStringLiteral("# Plan\nwords that cannot be saved"));

    int asked = 0;
    std::vector<UnsavedQuitChoice> answers;
    QString chosenFolder;
    bool offeredKeepTrying = false;
    QuitPrompts prompts;
    prompts.askAboutUnsaved = [&](const QuitPreparation& preparation, bool mayKeepTrying) {
        offeredKeepTrying = mayKeepTrying;
        EXPECT_EQ(preparation.unsaved.size(), 1u);
        EXPECT_EQ(preparation.unsaved[0].title, QStringLiteral("Plan"));
        EXPECT_EQ(preparation.unsaved[0].reason, test::permissionDenied(url("Plan.md")).description());
        return answers.at(asked++);
    };
    prompts.chooseFolder = [&] { return chosenFolder; };
    prompts.showError = [](const QString& message) { ADD_FAILURE() << message.toStdString(); };

    // "Keep Trying": the app stays, the words stay pending.
    answers = {UnsavedQuitChoice::keepTrying};
    EXPECT_FALSE(finishWorkBeforeQuit(*store, prompts, true, 100ms));
    EXPECT_EQ(asked, 1);
    EXPECT_TRUE(offeredKeepTrying);
    EXPECT_TRUE(store->hasPendingSaves());

    // "Save Elsewhere…", cancelled once, then a folder: the note's whole text lands there, twice without clobbering.
    test::TemporaryNotesFolder rescue;
    rescue.write(QStringLiteral("Plan.md"), "someone else's file");
    asked = 0;
    answers = {UnsavedQuitChoice::saveElsewhere, UnsavedQuitChoice::saveElsewhere};
    int folderRequests = 0;
    prompts.chooseFolder = [&] { return folderRequests++ == 0 ? QString() : rescue.path(); };
    EXPECT_TRUE(finishWorkBeforeQuit(*store, prompts, true, 100ms));
    EXPECT_EQ(asked, 2);
    EXPECT_EQ(rescue.read(QStringLiteral("Plan.md")), "someone else's file");
    EXPECT_TRUE(QString::fromUtf8(rescue.read(QStringLiteral("Plan 2.md")))
                    .endsWith(QStringLiteral("---\n# Plan\nwords that cannot be saved")));

    // "Quit and Lose" is the user's explicit choice, and it is logged.
    test::DiagnosticsRecorder recorder;
    asked = 0;
    answers = {UnsavedQuitChoice::quitAndLose};
    EXPECT_TRUE(finishWorkBeforeQuit(*store, prompts, false, 100ms));
    EXPECT_FALSE(offeredKeepTrying) << "too late to stay";
    EXPECT_EQ(recorder.count(QStringLiteral("Quit with unsaved notes")), 1);
}

TEST_F(NoteStoreFailureTest, AConflictOpenAtQuitIsKeptAsACopyAndToldAtTheNextLaunch) {
    folder.write(QStringLiteral("plan.md"), "shared plan");
    auto store = openStore();
    (void)LaunchNotices::take();
    store->setBody(url("plan.md"), QStringLiteral("the user's words"));
    // Someone else writes the note just before the quit-time flush.
    folder.write(QStringLiteral("plan.md"), "the agent's words");

    QuitPrompts prompts;
    prompts.askAboutUnsaved = [](const QuitPreparation&, bool) {
        ADD_FAILURE() << "nothing was left unsaved";
        return UnsavedQuitChoice::quitAndLose;
    };
    EXPECT_TRUE(finishWorkBeforeQuit(*store, prompts, true, 500ms));

    EXPECT_EQ(folder.read(QStringLiteral("plan.md")), "the agent's words");
    QStringList copies = QDir(folder.path()).entryList({QStringLiteral("plan (Conflict *).md")});
    ASSERT_EQ(copies.size(), 1);
    EXPECT_EQ(bodyOnDisk(copies[0]), QStringLiteral("the user's words"));
    const QStringList notices = LaunchNotices::take();
    ASSERT_EQ(notices.size(), 1);
    EXPECT_TRUE(notices[0].contains(copies[0])) << notices[0].toStdString();
    EXPECT_TRUE(LaunchNotices::take().isEmpty());  // told once
}

TEST_F(NoteStoreFailureTest, AFailedTrashKeepsTheNoteAndItsPendingEdit) {
    folder.write(QStringLiteral("a.md"), "before");
    auto store = openStore();
    files->failNext(Operation::moveToTrash, test::permissionDenied(url("a.md")));
    store->setBody(url("a.md"), QStringLiteral("edited, then a failed trash"));
    store->deleteNotes({url("a.md")});
    ASSERT_TRUE(store->note(url("a.md")));
    EXPECT_TRUE(store->hasPendingSaves());
    ASSERT_TRUE(test::waitUntil([&] { return !store->hasPendingSaves(); }));
    EXPECT_EQ(bodyOnDisk(QStringLiteral("a.md")), QStringLiteral("edited, then a failed trash"));
}

TEST_F(NoteStoreFailureTest, ANoteCreatedWhileTheLibraryLoadsIsKept) {
    folder.write(QStringLiteral("old.md"), "# Old");
    auto store = openStore(false);
    files->holdListings();
    store->loadInitialNotes();
    ASSERT_TRUE(test::waitUntil([&] { return files->listingsWaiting() == 1; }));
    const auto created = store->createNote({}, NoteContentType::markdown);
    ASSERT_TRUE(created);
    store->setBody(*created, QStringLiteral("# Typed during loading"));
    files->releaseListings();
    ASSERT_TRUE(test::waitUntil([&] { return !store->isLoadingInitialNotes(); }));

    ASSERT_TRUE(store->note(*created));
    EXPECT_EQ(store->body(*created), QStringLiteral("# Typed during loading"));
    EXPECT_TRUE(store->note(url("old.md")));
    EXPECT_EQ(store->notes().size(), 2u);
    EXPECT_EQ(store->selection(), created);
    ASSERT_TRUE(store->flushPendingSaves());
    EXPECT_EQ(bodyOnDisk(QFileInfo(*created).fileName()), QStringLiteral("# Typed during loading"));
}

TEST_F(NoteStoreFailureTest, AScanInFlightDoesNotDropNotesMadeMeanwhile) {
    folder.write(QStringLiteral("plan.md"), "plan");
    auto store = openStore();
    test::spin(300);  // the monitor is watching
    files->holdListings();
    folder.write(QStringLiteral("outside.md"), "# Outside");  // sets a scan going, which waits
    ASSERT_TRUE(test::waitUntil([&] { return files->listingsWaiting() == 1; }));
    const auto created = store->createNote(QStringLiteral("# Made meanwhile"), NoteContentType::markdown);
    ASSERT_TRUE(created);
    store->deleteNotes({url("plan.md")});
    files->releaseListings();

    ASSERT_TRUE(test::waitUntil([&] { return store->note(url("outside.md")) != nullptr; }));
    test::spin(500);
    EXPECT_TRUE(store->note(*created)) << "created during the scan, and dropped by it";
    EXPECT_FALSE(store->note(url("plan.md"))) << "trashed during the scan, and brought back by it";
}

TEST_F(NoteStoreFailureTest, AFolderThatVanishesForAMomentKeepsNotesFoldersAndFavourites) {
    folder.write(QStringLiteral("a.md"), "# A");
    folder.write(QStringLiteral("b.md"), "# B");
    folder.write(QStringLiteral(".folders.json"),
                 R"({"folders":[{"id":"5F0C2D8E-3A53-4C3A-9B7B-1D2F3E4A5B6C","name":"Work"}],)"
                 R"("noteAssignments":{"a.md":"5F0C2D8E-3A53-4C3A-9B7B-1D2F3E4A5B6C"},)"
                 R"("favoriteNoteNames":["b.md"],"futureSetting":{"kept":true}})");
    auto store = openStore();
    test::spin(300);

    // A sync engine moves the folder away and puts it back.
    const QString away = folder.path() + QStringLiteral(".away");
    ASSERT_TRUE(QDir().rename(folder.path(), away));
    test::spin(2500);
    EXPECT_EQ(store->notes().size(), 2u) << "a missing folder is not an empty one";
    ASSERT_TRUE(QDir().rename(away, folder.path()));
    test::spin(3000);
    EXPECT_EQ(store->notes().size(), 2u);
    EXPECT_TRUE(store->isFavorite(url("b.md")));
    EXPECT_TRUE(store->folderOf(url("a.md")));

    // A file that blinks (deleted and written again) keeps its folder.
    const QByteArray a = folder.read(QStringLiteral("a.md"));
    QFile::remove(folder.filePath("a.md"));
    ASSERT_TRUE(test::waitUntil([&] { return !store->note(url("a.md")); }));
    folder.write(QStringLiteral("a.md"), a);
    ASSERT_TRUE(test::waitUntil([&] { return store->note(url("a.md")) != nullptr; }));
    test::spin(NoteStore::missingConfirmationMilliseconds + 500);
    EXPECT_TRUE(store->folderOf(url("a.md")));

    // A note that is really gone loses its favourite once a later scan agrees; unknown keys survive the write.
    QFile::remove(folder.filePath("b.md"));
    ASSERT_TRUE(test::waitUntil([&] { return !store->note(url("b.md")); }));
    EXPECT_TRUE(folder.read(QStringLiteral(".folders.json")).contains("b.md"));
    ASSERT_TRUE(test::waitUntil([&] { return !folder.read(QStringLiteral(".folders.json")).contains("\"b.md\""); },
                                NoteStore::missingConfirmationMilliseconds + 2000));
    EXPECT_TRUE(folder.read(QStringLiteral(".folders.json")).contains("futureSetting"));
    EXPECT_TRUE(store->folderOf(url("a.md")));
}

TEST_F(NoteStoreFailureTest, FolderChangesWaitForTheUsersFoldersToBeRead) {
    folder.write(QStringLiteral(".folders.json"),
                 R"({"folders":[{"id":"5F0C2D8E-3A53-4C3A-9B7B-1D2F3E4A5B6C","name":"Work"}],"noteAssignments":{}})");
    auto store = openStore(false);
    files->holdListings();
    store->loadInitialNotes();
    EXPECT_FALSE(store->createFolder(QStringLiteral("Early"), std::nullopt));
    files->releaseListings();
    ASSERT_TRUE(test::waitUntil([&] { return !store->isLoadingInitialNotes(); }));
    EXPECT_TRUE(folder.read(QStringLiteral(".folders.json")).contains("Work"));
    EXPECT_TRUE(store->createFolder(QStringLiteral("Later"), std::nullopt));
    EXPECT_TRUE(folder.read(QStringLiteral(".folders.json")).contains("Work"));
}

TEST_F(NoteStoreFailureTest, ReloadAndConflictCopyRefreshTitleAndExcerpt) {
    folder.write(QStringLiteral("plan.md"), "# Plan\nfirst draft");
    auto store = openStore();
    for (const bool keepCopy : {false, true}) {
        store->setBody(url("plan.md"), QStringLiteral("# Plan\nmy edit"));
        folder.write(QStringLiteral("plan.md"), keepCopy ? "# Roadmap\nagent's second" : "# Agenda\nagent's first");
        (void)store->flushPendingSaves();
        ASSERT_TRUE(store->conflict(url("plan.md")));
        if (keepCopy) {
            ASSERT_TRUE(store->keepConflictCopy(url("plan.md")));
        } else {
            store->reloadConflict(url("plan.md"));
        }
        EXPECT_EQ(store->note(url("plan.md"))->title, keepCopy ? QStringLiteral("Roadmap") : QStringLiteral("Agenda"));
        EXPECT_EQ(store->note(url("plan.md"))->excerpt,
                  keepCopy ? QStringLiteral("agent's second") : QStringLiteral("agent's first"));
    }
}

TEST_F(NoteStoreFailureTest, ANoteDeletedElsewhereKeepsItsFrontMatterWhenWrittenBack) {
    folder.write(QStringLiteral("m.md"),
                 "---\nnotes-created-by: agent:codex\nmeeting-count: 3\n---\nminutes");
    auto store = openStore();
    test::spin(300);
    store->setBody(url("m.md"), QStringLiteral("minutes, and my notes"));
    QFile::remove(folder.filePath("m.md"));
    ASSERT_TRUE(test::waitUntil([&] { return folder.exists(QStringLiteral("m.md")); }));
    test::spin(300);
    const NoteDocument written(QString::fromUtf8(folder.read(QStringLiteral("m.md"))), NoteContentType::markdown);
    EXPECT_EQ(written.body, QStringLiteral("minutes, and my notes"));
    EXPECT_EQ(written.createdBy, NoteEditor::agent(QStringLiteral("codex")));
    EXPECT_EQ(written.frontMatterFields.size(), 1u);
}

TEST_F(NoteStoreFailureTest, SearchBeforeTheFirstIndexIgnoresAccentsBothWays) {
    folder.write(QStringLiteral("cafe.md"), "# Lunch\nat the Café on the corner");
    folder.write(QStringLiteral("naive.md"), "# Naive plan");
    auto store = openStore();
    const auto fromDisk = [&](const Note& n) { return bodyOnDisk(n.identifier); };
    for (const char* query : {"cafe", "café", "CAFÉ"}) {
        const auto results = searchNotesInMemory(store->notes(), QString::fromUtf8(query), fromDisk);
        ASSERT_EQ(results.size(), 1u) << query;
        EXPECT_EQ(results[0].identifier, QStringLiteral("cafe.md"));
    }
    EXPECT_EQ(searchNotesInMemory(store->notes(), QStringLiteral("naïve"), fromDisk).size(), 1u);
}

TEST_F(NoteStoreFailureTest, IndexingReportsProgressAndQuittingInterruptsIt) {
    for (int i = 0; i < 600; ++i) folder.write(QStringLiteral("n%1.md").arg(i), "# Note\nriver stone " + QByteArray(2000, 'x'));
    {
        auto store = openStore();
        QSignalSpy progress(store.get(), &NoteStore::indexProgress);
        QSignalSpy meaning(store.get(), &NoteStore::meaningIndexProgress);
        ASSERT_TRUE(test::waitUntil([&] { return !progress.isEmpty() && progress.last()[0].toInt() == 600; }, 20000));
        EXPECT_EQ(progress.last()[1].toInt(), 600);
        EXPECT_GE(progress.count(), 3) << "progress came only at the end";
        // Then the notes are indexed for meaning, also with progress, and meaning search is ready.
        ASSERT_TRUE(test::waitUntil([&] { return store->meaningSearchReady(); }, 30000));
        ASSERT_FALSE(meaning.isEmpty());
        EXPECT_EQ(meaning.last()[0].toInt(), 600);
        EXPECT_GE(meaning.count(), 3);
    }
    // A new catalog half built when the user quits: quitting stops it at once, and nothing is left broken.
    QFile::remove(folder.filePath(".mossly-search.sqlite"));
    {
        auto store = openStore();
        QSignalSpy progress(store.get(), &NoteStore::indexProgress);
        ASSERT_TRUE(test::waitUntil([&] { return !progress.isEmpty(); }, 10000));
        QElapsedTimer timer;
        timer.start();
        (void)store->prepareForQuit();
        store.reset();
        EXPECT_TRUE(QThreadPool::globalInstance()->waitForDone(5000));
        EXPECT_LT(timer.elapsed(), 3000);
    }
    auto again = openStore();
    again->setSearchText(QStringLiteral("river"));
    ASSERT_TRUE(test::waitUntil([&] { return again->searchResults().has_value(); }, 20000));
}

TEST_F(NoteStoreFailureTest, TheListCacheShowsTheLibraryAtOnceAndIsCorrectedFromTheFolder) {
    folder.write(QStringLiteral("keep.md"), "# Keep\nsame");
    folder.write(QStringLiteral("edit.md"), "# Before\nold text");
    folder.write(QStringLiteral("gone.md"), "# Gone");
    NoteStore::Options options{.createsWelcomeNote = false, .loadsNotesSynchronously = false, .welcomeIconPng = {}};
    options.usesNoteListCache = true;
    {
        NoteStore first(folder.path(), options);
        first.loadInitialNotes();
        ASSERT_TRUE(test::waitUntil([&] { return !first.isLoadingInitialNotes() && !first.isReadingNoteDetails(); }));
        (void)first.prepareForQuit();  // writes the cache it has not written yet
    }
    ASSERT_TRUE(QFile::exists(NoteListCache::pathFor(folder.path())));

    // While Mossly is closed: an edit, a new note, a deletion, a file gone bad.
    test::spin(20);
    folder.write(QStringLiteral("edit.md"), "# After\nnew text");
    folder.write(QStringLiteral("new.md"), "# New");
    QFile::remove(folder.filePath("gone.md"));
    folder.write(QStringLiteral("keep.md"), "\xff\xfe not text any more");

    NoteStore second(folder.path(), options);
    test::DiagnosticsRecorder recorder;
    second.loadInitialNotes();
    ASSERT_TRUE(test::waitUntil([&] { return !second.isLoadingInitialNotes(); }));
    ASSERT_TRUE(test::waitUntil([&] { return second.note(url("new.md")) != nullptr && !second.note(url("gone.md")); }));
    EXPECT_EQ(second.note(url("edit.md"))->title, QStringLiteral("After"));
    EXPECT_EQ(second.body(url("edit.md")), QStringLiteral("# After\nnew text"));
    ASSERT_EQ(second.unreadableNotes().size(), 1u);
    EXPECT_EQ(second.unreadableNotes()[0].identifier, QStringLiteral("keep.md"));

    // A damaged cache only costs the slow path.
    QFile damaged(NoteListCache::pathFor(folder.path()));
    ASSERT_TRUE(damaged.open(QIODevice::WriteOnly | QIODevice::Truncate));
    damaged.write("MNLC and then nonsense");
    damaged.close();
    EXPECT_FALSE(NoteListCache::load(folder.path()));
    NoteStore third(folder.path(), options);
    third.loadInitialNotes();
    ASSERT_TRUE(test::waitUntil([&] { return !third.isLoadingInitialNotes() && !third.isReadingNoteDetails(); }));
    EXPECT_EQ(third.notes().size(), 2u);
}

// Moving to another folder while the first one's details are still being read:
// that read is dropped, and the new folder's list is cached and watched as usual.
TEST_F(NoteStoreFailureTest, AFolderChangedWhileDetailsAreReadIsWatchedAndCached) {
    folder.write(QStringLiteral("old.md"), "# Old");
    test::TemporaryNotesFolder elsewhere;
    elsewhere.write(QStringLiteral("new.md"), "# New");
    NoteStore::Options options{.createsWelcomeNote = false, .loadsNotesSynchronously = false, .welcomeIconPng = {}};
    options.usesNoteListCache = true;
    std::shared_ptr<test::FaultyFileAccess> first;
    options.fileAccess = [&](const QString& directory) {
        files = std::make_shared<test::FaultyFileAccess>(directory);
        if (!first) first = files;
        return files;
    };
    auto store = std::make_unique<NoteStore>(folder.path(), options);
    first->holdListings();
    store->loadInitialNotes();
    ASSERT_TRUE(test::waitUntil([&] { return first->listingsWaiting() == 1; }));
    first->releaseOneListing();
    ASSERT_TRUE(test::waitUntil([&] { return !store->isLoadingInitialNotes() && first->listingsWaiting() == 1; }));

    ASSERT_TRUE(store->activateDirectory(elsewhere.path()));
    first->releaseListings();
    test::spin(200);
    EXPECT_FALSE(store->isReadingNoteDetails());
    ASSERT_EQ(store->notes().size(), 1u);
    elsewhere.write(QStringLiteral("later.md"), "# Later");
    ASSERT_TRUE(test::waitUntil([&] { return store->notes().size() == 2; })) << "the new folder is not watched";
    (void)store->prepareForQuit();
    EXPECT_TRUE(QFile::exists(NoteListCache::pathFor(elsewhere.path())));
}

// Without a list cache the list comes from the folder listing at once, and
// the notes' details follow. Nothing done in between is lost, and a list of
// file-name titles is never cached.
TEST_F(NoteStoreFailureTest, AFirstStartShowsTheListingThenFillsItInWithoutLosingWhatWasDoneMeanwhile) {
    folder.write(QStringLiteral("Older title.md"), "# Older title\nfirst line of the older note");
    test::spin(20);
    folder.write(QStringLiteral("Plans.md"), "# Plans for the week\nmonday: write");
    NoteStore::Options options{.createsWelcomeNote = false, .loadsNotesSynchronously = false, .welcomeIconPng = {}};
    options.usesNoteListCache = true;
    options.fileAccess = [this](const QString& directory) {
        files = std::make_shared<test::FaultyFileAccess>(directory);
        return files;
    };
    auto store = std::make_unique<NoteStore>(folder.path(), options);
    files->holdListings();
    store->loadInitialNotes();
    ASSERT_TRUE(test::waitUntil([&] { return files->listingsWaiting() == 1; }));
    files->releaseOneListing();  // the listing goes; the read for details waits
    ASSERT_TRUE(test::waitUntil([&] { return !store->isLoadingInitialNotes() && files->listingsWaiting() == 1; }));
    ASSERT_TRUE(store->isReadingNoteDetails());
    ASSERT_EQ(store->notes().size(), 2u);
    EXPECT_EQ(store->notes()[0].title, QStringLiteral("Plans"));  // newest first, named after its file
    EXPECT_TRUE(store->notes()[1].excerpt.isEmpty());

    // Meanwhile: a note opened and typed into, a note created, a change made elsewhere.
    EXPECT_EQ(store->body(url("Plans.md")), QStringLiteral("# Plans for the week\nmonday: write"));
    EXPECT_EQ(store->note(url("Plans.md"))->title, QStringLiteral("Plans for the week"));
    // The disk is full when those words are first saved: quitting now names the note.
    files->failNext(Operation::update, test::diskFull(url("Plans.md")));
    store->setBody(url("Plans.md"), QStringLiteral("# Plans for the week\nmonday: write\ntuesday: read"));
    const auto created = store->createNote(QStringLiteral("# Made while loading"), NoteContentType::markdown);
    ASSERT_TRUE(created);
    const QuitPreparation quit = store->prepareForQuit();
    ASSERT_EQ(quit.unsaved.size(), 1u);
    EXPECT_EQ(quit.unsaved[0].url, url("Plans.md"));
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Plans.md")), QStringLiteral("# Plans for the week\nmonday: write"));
    EXPECT_FALSE(QFile::exists(NoteListCache::pathFor(folder.path()))) << "file-name titles were cached";

    // The details read has listed the folder and is reading notes when another program writes one.
    files->holdReads();
    files->releaseListings();
    ASSERT_TRUE(test::waitUntil([&] { return files->readsWaiting() > 0; }));
    folder.write(QStringLiteral("Elsewhere.md"), "# Written elsewhere");
    test::spin(300);
    // The read has taken the folders file when the user marks a favourite.
    files->holdFolderMetadata();
    files->releaseReads();
    ASSERT_TRUE(test::waitUntil([&] { return files->folderMetadataWaiting() == 1; }));
    store->setFavorite(true, url("Older title.md"));
    files->releaseFolderMetadata();
    ASSERT_TRUE(test::waitUntil([&] { return !store->isReadingNoteDetails(); }));
    ASSERT_TRUE(test::waitUntil([&] { return store->note(url("Elsewhere.md")) != nullptr; }));
    EXPECT_EQ(store->note(url("Older title.md"))->excerpt, QStringLiteral("first line of the older note"));
    EXPECT_EQ(store->body(url("Plans.md")), QStringLiteral("# Plans for the week\nmonday: write\ntuesday: read"));
    EXPECT_TRUE(store->note(*created));
    EXPECT_TRUE(store->isFavorite(url("Older title.md"))) << "the read undid a favourite";
    ASSERT_TRUE(store->flushPendingSaves());
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Plans.md")), QStringLiteral("# Plans for the week\nmonday: write\ntuesday: read"));
    (void)store->prepareForQuit();
    EXPECT_TRUE(QFile::exists(NoteListCache::pathFor(folder.path())));
}

// A note opened during a first start's details read, changed by an agent
// before the read reached it: the read's text reaches the open editor, and
// typing goes on from it instead of writing the older text back.
TEST_F(NoteStoreFailureTest, ANoteOpenedDuringTheDetailsReadTakesTheTextTheReadFound) {
    folder.write(QStringLiteral("Plan.md"), "# Plan\nold line");
    NoteStore::Options options{.createsWelcomeNote = false, .loadsNotesSynchronously = false, .welcomeIconPng = {}};
    options.usesNoteListCache = true;
    options.fileAccess = [this](const QString& directory) {
        files = std::make_shared<test::FaultyFileAccess>(directory);
        return files;
    };
    auto store = std::make_unique<NoteStore>(folder.path(), options);
    EditorPane pane(*store);
    files->holdListings();
    store->loadInitialNotes();
    ASSERT_TRUE(test::waitUntil([&] { return files->listingsWaiting() == 1; }));
    files->releaseOneListing();
    ASSERT_TRUE(test::waitUntil([&] { return !store->isLoadingInitialNotes() && files->listingsWaiting() == 1; }));
    store->select(url("Plan.md"));
    MarkdownTextView* editor = pane.markdownEditor();
    ASSERT_EQ(editor->markdown(), QStringLiteral("# Plan\nold line"));

    test::spin(20);
    folder.write(QStringLiteral("Plan.md"), "# Plan\nthe agent's line");
    files->releaseListings();
    ASSERT_TRUE(test::waitUntil([&] { return !store->isReadingNoteDetails(); }));
    EXPECT_EQ(editor->markdown(), QStringLiteral("# Plan\nthe agent's line"));
    QTextCursor end = editor->textCursor();
    end.movePosition(QTextCursor::End);
    editor->setTextCursor(end);
    QTest::keyClicks(editor, QStringLiteral(", kept"));
    ASSERT_TRUE(store->flushPendingSaves());
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Plan.md")), QStringLiteral("# Plan\nthe agent's line, kept"));
}

}  // namespace
}  // namespace mossly

namespace mossly {
namespace {

// The user's text merged around the recorder's new transcript must survive a
// save that fails: it stays pending, the user is told, and the retry writes both.
TEST_F(NoteStoreFailureTest, AMergedMeetingNoteWhoseSaveFailsKeepsBothTexts) {
    auto store = openStore();
    meeting::MeetingNoteWriter writer(QUuid::createUuid(), QDateTime::currentDateTimeUtc(), folder.path());
    auto created = writer.create(QStringLiteral("Standup"), {meeting::MeetingCaptureSource::microphone},
                                 QStringLiteral("ggml-base.bin"), meeting::MeetingSummaryProviderKind::none);
    ASSERT_TRUE(created);
    const QString note = created->url;
    store->patchMeetingNote(note);
    const QString typed = store->body(note).replace(QStringLiteral("# Standup\n"),
                                                    QStringLiteral("# Standup\nAsk about the budget.\n"));
    store->setBody(note, typed);
    ASSERT_TRUE(writer.checkpoint({{QUuid::createUuid(), meeting::MeetingCaptureSource::microphone, 0, 1,
                                    QStringLiteral("first words"), true}},
                                  false));
    QSignalSpy problems(store.get(), &NoteStore::problemOccurred);
    files->failNext(Operation::update, test::diskFull(note));
    store->patchMeetingNote(note);
    EXPECT_EQ(store->conflict(note), nullptr);

    ASSERT_TRUE(test::waitUntil([&] { return store->saveFailure(note) != nullptr; }));
    EXPECT_TRUE(store->hasPendingSave(note));
    EXPECT_EQ(problems.count(), 1);
    EXPECT_TRUE(store->body(note).contains(QStringLiteral("Ask about the budget.")));
    EXPECT_TRUE(store->body(note).contains(QStringLiteral("first words")));
    ASSERT_TRUE(test::waitUntil([&] { return !store->hasPendingSaves(); }, 4000)) << "the retry comes by itself";
    const QString onDisk = QString::fromUtf8(folder.read(QFileInfo(note).fileName()));
    EXPECT_TRUE(onDisk.contains(QStringLiteral("Ask about the budget.")));
    EXPECT_TRUE(onDisk.contains(QStringLiteral("first words")));
}

}  // namespace
}  // namespace mossly
