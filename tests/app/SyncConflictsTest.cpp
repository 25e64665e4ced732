#include <gtest/gtest.h>

#include <QDir>
#include <cerrno>
#include <QSignalSpy>

#include "AppTestSupport.h"
#include "FaultyFileAccess.h"
#include "FaultyStoreTest.h"
#include "FolderMetadataMerge.h"
#include "NoteListModel.h"
#include "NoteStore.h"
#include "TestSupport.h"
#include "NoteHistoryDiff.h"

namespace mossly {
namespace {

using Operation = test::FaultyFileAccess::Operation;
using Kind = NoteTextChange::Kind;

TEST(WordDiff, TheRunsGiveBackBothTexts) {
    const QString before = QStringLiteral("# Plan\n\nline one\nline two  \n\nend");
    const QString after = QStringLiteral("# Plan\n\nline one changed\n\nend\nmore");
    QString first, second;
    for (const NoteTextChange& run : wordDiff(before, after)) {
        if (run.kind != Kind::inserted) first += run.text;
        if (run.kind != Kind::removed) second += run.text;
    }
    EXPECT_EQ(first, before);
    EXPECT_EQ(second, after);
    EXPECT_TRUE(wordDiff(QString(), QString()).empty());
    EXPECT_EQ(wordDiff(QString(), QStringLiteral("new")), (std::vector<NoteTextChange>{{Kind::inserted, QStringLiteral("new")}}));
}


TEST(FolderMetadataMergeTest, BothSidesAreKeptAndARenameKeepsOneName) {
    FolderMetadata mine;
    const QUuid work = *mine.createFolder(QStringLiteral("Work"), std::nullopt);
    const QUuid home = *mine.createFolder(QStringLiteral("Home"), std::nullopt);
    FolderMetadata theirs = mine;
    mine.renameFolder(work, QStringLiteral("Office"));
    theirs.renameFolder(work, QStringLiteral("Job"));
    const QUuid trips = *theirs.createFolder(QStringLiteral("Trips"), home);
    mine.noteAssignments.insert(QStringLiteral("Plan.md"), work);
    theirs.noteAssignments.insert(QStringLiteral("Plan.md"), home);
    theirs.noteAssignments.insert(QStringLiteral("Rome.md"), trips);
    mine.favoriteNoteNames.insert(QStringLiteral("Plan.md"));
    theirs.favoriteNoteNames.insert(QStringLiteral("Rome.md"));
    theirs.otherKeys.insert(QStringLiteral("sortOrder"), QStringLiteral("title"));

    const FolderMetadata merged = mergeFolderMetadata(mine, theirs);
    ASSERT_EQ(merged.folders.size(), 3u);
    EXPECT_EQ(merged.folder(work)->name, QStringLiteral("Office"));
    EXPECT_EQ(merged.folder(trips)->parentID, home);
    EXPECT_EQ(merged.noteAssignments.value(QStringLiteral("Plan.md")), work);
    EXPECT_EQ(merged.noteAssignments.value(QStringLiteral("Rome.md")), trips);
    EXPECT_EQ(merged.favoriteNoteNames, (QSet<QString>{QStringLiteral("Plan.md"), QStringLiteral("Rome.md")}));
    EXPECT_EQ(merged.otherKeys.value(u"sortOrder").toString(), QStringLiteral("title"));
}

TEST(FolderMetadataMergeTest, FoldersMovedIntoEachOtherOnTwoSidesDoNotLoop) {
    FolderMetadata mine;
    const QUuid a = *mine.createFolder(QStringLiteral("A"), std::nullopt);
    const QUuid b = *mine.createFolder(QStringLiteral("B"), std::nullopt);
    FolderMetadata theirs = mine;
    const QUuid c = *theirs.createFolder(QStringLiteral("C"), b);
    mine.moveFolder(a, {b, 0});
    // Their B went under a folder that only they had and is now under ... itself on our side.
    theirs.folders.erase(std::remove_if(theirs.folders.begin(), theirs.folders.end(),
                                        [&](const NoteFolder& f) { return f.id == a; }),
                         theirs.folders.end());
    FolderMetadata merged = mergeFolderMetadata(mine, theirs);
    merged.folders[1].parentID = a;  // B under A under B: a loop the merge must break
    merged = mergeFolderMetadata(merged, FolderMetadata{});
    for (const NoteFolder& folder : merged.folders) {
        QSet<QUuid> seen;
        std::optional<QUuid> parent = folder.id;
        while (parent) {
            ASSERT_FALSE(seen.contains(*parent)) << "a loop through " << folder.name.toStdString();
            seen.insert(*parent);
            parent = merged.folder(*parent)->parentID;
        }
    }
    EXPECT_TRUE(merged.folder(c));
}

class SyncConflictStoreTest : public test::FaultyStoreTest {
protected:
    const QString copyName = QStringLiteral("Plan.sync-conflict-20261124-093012-ABCDEFG.md");

    void SetUp() override {
        folder.write(QStringLiteral("Plan.md"), "# Plan\nmine");
        folder.write(copyName, "# Plan\ntheirs");
    }
    QStringList conflictCopiesOnDisk() const {
        return QDir(folder.path()).entryList({QStringLiteral("Plan (Conflict *).md")}, QDir::Files);
    }
};

TEST_F(SyncConflictStoreTest, TheCopyBelongsToItsNoteAndIsNotListedAsANote) {
    folder.write(QStringLiteral("Lone.sync-conflict-20261124-093012-ABCDEFG.md"), "no note of this name");
    auto store = openStore();
    ASSERT_EQ(store->syncConflictCopies(url("Plan.md")).size(), 1u);
    EXPECT_EQ(store->syncConflictOriginal(url(copyName)), url("Plan.md"));
    EXPECT_EQ(store->syncConflictDescription(url(copyName)), QStringLiteral("Syncthing, 2026-11-24 09:30:12, device ABCDEFG"));
    EXPECT_FALSE(store->syncConflictOriginal(url(QStringLiteral("Lone.sync-conflict-20261124-093012-ABCDEFG.md"))))
        << "a copy whose note is gone is a note of its own";
    NoteListModel list(*store);
    QStringList rows;
    for (int row = 0; row < list.rowCount(); ++row) rows.append(list.index(row).data(NoteListModel::UrlRole).toString());
    EXPECT_EQ(rows.size(), 2);
    EXPECT_FALSE(rows.contains(url(copyName)));
}

TEST_F(SyncConflictStoreTest, KeepThisTrashesTheCopyOnly) {
    auto store = openStore();
    ASSERT_TRUE(store->resolveSyncConflict(url("Plan.md"), url(copyName), SyncConflictChoice::keepThis));
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Plan.md")), QStringLiteral("# Plan\nmine"));
    EXPECT_FALSE(folder.exists(copyName));
    EXPECT_FALSE(store->note(url(copyName)));
    EXPECT_TRUE(store->syncConflictCopies(url("Plan.md")).empty());
}

TEST_F(SyncConflictStoreTest, KeepOtherWritesTheOtherTextAfterSavingWhatWasTyped) {
    auto store = openStore();
    QSignalSpy shown(store.get(), &NoteStore::noteContentChanged);
    store->setBody(url("Plan.md"), QStringLiteral("# Plan\nmine, typed"));
    ASSERT_TRUE(store->resolveSyncConflict(url("Plan.md"), url(copyName), SyncConflictChoice::keepOther));
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Plan.md")), QStringLiteral("# Plan\ntheirs"));
    EXPECT_EQ(store->body(url("Plan.md")), QStringLiteral("# Plan\ntheirs"));
    EXPECT_FALSE(store->hasUnsavedChanges());
    EXPECT_FALSE(folder.exists(copyName));
    EXPECT_GE(shown.count(), 1) << "an open editor takes the kept text";
}

TEST_F(SyncConflictStoreTest, KeepBothKeepsTheOtherVersionAsAConflictCopyInTheSameFolder) {
    auto store = openStore();
    const auto work = store->createFolder(QStringLiteral("Work"), std::nullopt);
    store->moveNote(url("Plan.md"), *work);
    ASSERT_TRUE(store->resolveSyncConflict(url("Plan.md"), url(copyName), SyncConflictChoice::keepBoth));
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Plan.md")), QStringLiteral("# Plan\nmine"));
    const QStringList copies = conflictCopiesOnDisk();
    ASSERT_EQ(copies.size(), 1);
    EXPECT_EQ(bodyOnDisk(copies.front()), QStringLiteral("# Plan\ntheirs"));
    EXPECT_EQ(store->folderOf(url(copies.front())), work);
    EXPECT_FALSE(folder.exists(copyName));
}

TEST_F(SyncConflictStoreTest, KeepOtherOnANoteThatChangedMeanwhileWritesNothing) {
    auto store = openStore();
    folder.write(QStringLiteral("Plan.md"), "# Plan\nchanged by a third writer");
    QSignalSpy problems(store.get(), &NoteStore::problemOccurred);
    auto resolved = store->resolveSyncConflict(url("Plan.md"), url(copyName), SyncConflictChoice::keepOther);
    ASSERT_FALSE(resolved);
    EXPECT_EQ(resolved.error().code(), Error::Code::stale);
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Plan.md")), QStringLiteral("# Plan\nchanged by a third writer"));
    EXPECT_TRUE(folder.exists(copyName)) << "the other version stays until the choice can be made";
    EXPECT_EQ(problems.count(), 1);
}

TEST_F(SyncConflictStoreTest, FailuresLeaveTheCopyAndSayWhy) {
    auto store = openStore();
    QSignalSpy problems(store.get(), &NoteStore::problemOccurred);
    files->failNext(Operation::moveToTrash, Error::trashFailed(copyName));
    EXPECT_FALSE(store->resolveSyncConflict(url("Plan.md"), url(copyName), SyncConflictChoice::keepThis));
    EXPECT_TRUE(folder.exists(copyName));
    EXPECT_EQ(store->syncConflictCopies(url("Plan.md")).size(), 1u);

    files->failNext(Operation::createAt, test::diskFull(folder.path()));
    EXPECT_FALSE(store->resolveSyncConflict(url("Plan.md"), url(copyName), SyncConflictChoice::keepBoth));
    EXPECT_TRUE(folder.exists(copyName));
    EXPECT_TRUE(conflictCopiesOnDisk().isEmpty());

    files->failNext(Operation::update, test::diskFull(url("Plan.md")));
    EXPECT_FALSE(store->resolveSyncConflict(url("Plan.md"), url(copyName), SyncConflictChoice::keepOther));
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Plan.md")), QStringLiteral("# Plan\nmine"));
    EXPECT_TRUE(folder.exists(copyName));
    EXPECT_EQ(problems.count(), 3);

    // A pending edit that cannot be saved is never decided over.
    store->setBody(url("Plan.md"), QStringLiteral("# Plan\nunsaved"));
    files->failNext(Operation::update, test::diskFull(url("Plan.md")));
    EXPECT_FALSE(store->resolveSyncConflict(url("Plan.md"), url(copyName), SyncConflictChoice::keepOther));
    EXPECT_EQ(store->body(url("Plan.md")), QStringLiteral("# Plan\nunsaved"));
    EXPECT_TRUE(folder.exists(copyName));
}

TEST_F(SyncConflictStoreTest, FolderFileCopiesAreMergedAndAFolderFileFromElsewhereIsTaken) {
    FolderMetadata mine;
    const QUuid work = *mine.createFolder(QStringLiteral("Work"), std::nullopt);
    FolderMetadata theirs = mine;
    theirs.renameFolder(work, QStringLiteral("Job"));
    const QUuid trips = *theirs.createFolder(QStringLiteral("Trips"), std::nullopt);
    theirs.favoriteNoteNames.insert(QStringLiteral("Plan.md"));
    folder.write(QStringLiteral(".folders.json"), mine.toJson());
    folder.write(QStringLiteral(".folders.sync-conflict-20261124-093012-ABCDEFG.json"), theirs.toJson());

    auto store = openStore();
    EXPECT_EQ(store->folderMetadata().folder(work)->name, QStringLiteral("Work"));
    EXPECT_TRUE(store->folderMetadata().folder(trips));
    EXPECT_TRUE(store->isFavorite(url("Plan.md")));
    EXPECT_FALSE(folder.exists(QStringLiteral(".folders.sync-conflict-20261124-093012-ABCDEFG.json")));
    EXPECT_TRUE(FolderMetadata::load(folder.path())->folder(trips)) << "written back merged";

    // Another machine's version of the file arrives: the store takes it.
    test::spin(50);
    FolderMetadata arrived = *FolderMetadata::load(folder.path());
    const QUuid ideas = *arrived.createFolder(QStringLiteral("Ideas"), std::nullopt);
    folder.write(QStringLiteral(".folders.json"), arrived.toJson());
    folder.write(QStringLiteral("Nudge.md"), "a note arrives with it");
    ASSERT_TRUE(test::waitUntil([&] { return store->folderMetadata().folder(ideas) != nullptr; }));
    EXPECT_TRUE(store->folderMetadata().folder(trips));
}

TEST_F(SyncConflictStoreTest, AnUnreadableFolderFileCopyIsLeftAlone) {
    folder.write(QStringLiteral(".folders.sync-conflict-20261124-093012-ABCDEFG.json"), "{not json");
    auto store = openStore();
    EXPECT_TRUE(folder.exists(QStringLiteral(".folders.sync-conflict-20261124-093012-ABCDEFG.json")));
    EXPECT_FALSE(store->folderMetadataError());
}

// Syncthing checks a file, then renames its download over it: a save of ours in
// between is replaced without a conflict copy. The store keeps such a save.
class EngineReplacedSaveTest : public ::testing::Test {
protected:
    test::TemporaryNotesFolder folder;
    QString url(const QString& identifier) const { return QDir::cleanPath(folder.filePath(identifier)); }
    std::unique_ptr<NoteStore> saveThenReplace(const QByteArray& incoming) {
        folder.write(QStringLiteral("Plan.md"), "# Plan\nfirst");
        auto store = std::make_unique<NoteStore>(
            folder.path(), NoteStore::Options{.createsWelcomeNote = false, .loadsNotesSynchronously = true, .welcomeIconPng = {}});
        store->setBody(url("Plan.md"), QStringLiteral("# Plan\nfirst\nsaved here"));
        EXPECT_TRUE(store->flushPendingSaves());
        test::spin(50);
        folder.write(QStringLiteral("Plan.md"), incoming);
        EXPECT_TRUE(test::waitUntil([&] { return store->body(url("Plan.md")) == QString::fromUtf8(incoming); }));
        test::spin(300);
        return store;
    }
    QStringList copies() const {
        return QDir(folder.path()).entryList({QStringLiteral("Plan (Conflict *).md")}, QDir::Files);
    }
};

TEST_F(EngineReplacedSaveTest, ASaveReplacedByTextWithoutItsWordsIsKeptAsACopy) {
    folder.write(QStringLiteral(".stfolder"), "");
    auto store = saveThenReplace("# Plan\nfirst\nwritten elsewhere");
    ASSERT_EQ(copies().size(), 1);
    EXPECT_TRUE(QString::fromUtf8(folder.read(copies().front())).contains(QStringLiteral("saved here")));
    EXPECT_TRUE(test::waitUntil([&] { return store->note(url(copies().front())) != nullptr; })) << "and listed";
}

// When not even the copy can be written (a full disk), the words stay in the
// store, in a conflict the user settles, and the user is told why.
class EngineReplacedSaveWithoutRoomTest : public test::FaultyStoreTest {};

TEST_F(EngineReplacedSaveWithoutRoomTest, TheWordsStayInAConflictAndTheUserIsTold) {
    folder.write(QStringLiteral(".stfolder"), "");
    folder.write(QStringLiteral("Plan.md"), "# Plan\nfirst");
    auto store = openStore();
    QSignalSpy problems(store.get(), &NoteStore::problemOccurred);
    store->setBody(url("Plan.md"), QStringLiteral("# Plan\nfirst\nsaved here"));
    ASSERT_TRUE(store->flushPendingSaves());
    test::spin(50);
    files->failAlways(test::FaultyFileAccess::Operation::createAt, Error::system(ENOSPC, folder.path()));
    folder.write(QStringLiteral("Plan.md"), "# Plan\nfirst\nwritten elsewhere");
    ASSERT_TRUE(test::waitUntil([&] { return store->conflict(url("Plan.md")) != nullptr; }));
    EXPECT_TRUE(store->conflict(url("Plan.md"))->userContent.contains(QStringLiteral("saved here")));
    EXPECT_FALSE(problems.isEmpty());
    EXPECT_TRUE(QDir(folder.path()).entryList({QStringLiteral("Plan (Conflict *).md")}, QDir::Files).isEmpty());
}

TEST_F(EngineReplacedSaveTest, ASuccessorThatKeepsTheWordsIsJustShown) {
    folder.write(QStringLiteral(".stfolder"), "");
    auto store = saveThenReplace("# Plan\nfirst\nsaved here\nand more from elsewhere");
    EXPECT_TRUE(copies().isEmpty());
}

TEST_F(EngineReplacedSaveTest, OutsideASyncthingFolderAnOutsideWriterIsTrusted) {
    auto store = saveThenReplace("# Plan\nrewritten by an agent");
    EXPECT_TRUE(copies().isEmpty());
}

}  // namespace
}  // namespace mossly
