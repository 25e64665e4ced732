#include <gtest/gtest.h>

#include <QComboBox>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPushButton>
#include <QTest>

#include "AppTestSupport.h"
#include "DeleteFolderDialog.h"
#include "FolderMetadata.h"
#include "NoteStore.h"
#include "TestSupport.h"

namespace mossly {
namespace {

TEST(FolderMetadata, MovesRefuseCyclesAndKeepSiblingOrder) {
    FolderMetadata metadata;
    const QUuid work = *metadata.createFolder(QStringLiteral(" Work "), std::nullopt);
    const QUuid home = *metadata.createFolder(QStringLiteral("Home"), std::nullopt);
    const QUuid projects = *metadata.createFolder(QStringLiteral("Projects"), work);
    const QUuid deep = *metadata.createFolder(QStringLiteral("Deep"), projects);
    EXPECT_FALSE(metadata.createFolder(QStringLiteral("   "), std::nullopt));
    EXPECT_EQ(metadata.folder(work)->name, QStringLiteral("Work"));

    EXPECT_FALSE(metadata.canMoveFolder(work, {work, 0}));
    EXPECT_FALSE(metadata.canMoveFolder(work, {deep, 0}));
    EXPECT_FALSE(metadata.moveFolder(work, {projects, 0}));
    EXPECT_TRUE(metadata.canMoveFolder(deep, {std::nullopt, 0}));

    // Move "Home" before "Work" at the top level; the index is clamped.
    ASSERT_TRUE(metadata.moveFolder(home, {std::nullopt, 0}));
    auto top = metadata.childFolders(std::nullopt);
    ASSERT_EQ(top.size(), 2u);
    EXPECT_EQ(top[0].id, home);
    ASSERT_TRUE(metadata.moveFolder(deep, {std::nullopt, 99}));
    top = metadata.childFolders(std::nullopt);
    EXPECT_EQ(top.back().id, deep);
    EXPECT_EQ(metadata.moveDestinations(work).size(), 2u);  // Home and Deep, not Work's own tree
}

TEST(FolderMetadata, FileRoundTripsAndMissingFileIsEmpty) {
    test::TemporaryNotesFolder folder;
    EXPECT_EQ(FolderMetadata::load(folder.path()), FolderMetadata{});
    FolderMetadata metadata;
    const QUuid work = *metadata.createFolder(QStringLiteral("Work"), std::nullopt);
    metadata.createFolder(QStringLiteral("Sub"), work);
    metadata.noteAssignments.insert(QStringLiteral("Plan.md"), work);
    metadata.favoriteNoteNames.insert(QStringLiteral("Plan.md"));
    ASSERT_TRUE(metadata.save(folder.path()));
    EXPECT_EQ(FolderMetadata::load(folder.path()), metadata);
    const QJsonObject root = QJsonDocument::fromJson(folder.read(QStringLiteral(".folders.json"))).object();
    EXPECT_EQ(root.keys(), (QStringList{"favoriteNoteNames", "folders", "noteAssignments"}));

    // Files written before favourites existed still load.
    folder.write(QStringLiteral(".folders.json"), R"({"folders":[],"noteAssignments":{}})");
    EXPECT_TRUE(FolderMetadata::load(folder.path()));
}

class FolderStoreTest : public ::testing::Test {
protected:
    test::TemporaryNotesFolder folder;
    std::unique_ptr<NoteStore> store;
    QUuid parent, child;

    void SetUp() override {
        folder.write(QStringLiteral("a.md"), "a");
        folder.write(QStringLiteral("b.md"), "b");
        folder.write(QStringLiteral("c.md"), "c");
        store = std::make_unique<NoteStore>(folder.path(), NoteStore::Options{.createsWelcomeNote = false,
                                                                              .loadsNotesSynchronously = true, .welcomeIconPng = {}});
        parent = *store->createFolder(QStringLiteral("Parent"), std::nullopt);
        child = *store->createFolder(QStringLiteral("Child"), parent);
        store->moveNote(folder.filePath("a.md"), parent);
        store->moveNote(folder.filePath("b.md"), child);
        store->setFavorite(true, folder.filePath("b.md"));
    }
};

TEST_F(FolderStoreTest, DeletingATreeMovesItsNotesOut) {
    EXPECT_EQ(store->noteCountInFolderTree(parent), 2);
    store->deleteFolder(parent, FolderNoteDisposition::moveOut);
    EXPECT_TRUE(store->folders().empty());
    EXPECT_FALSE(store->folderOf(folder.filePath("a.md")));
    EXPECT_FALSE(store->folderOf(folder.filePath("b.md")));
    EXPECT_EQ(store->notes().size(), 3u);
    EXPECT_EQ(FolderMetadata::load(folder.path())->noteAssignments.size(), 0);
}

TEST_F(FolderStoreTest, DeletingATreeCanTrashItsNotes) {
    store->deleteFolder(parent, FolderNoteDisposition::trash);
    EXPECT_EQ(store->notes().size(), 1u);
    EXPECT_FALSE(folder.exists(QStringLiteral("a.md")));
    EXPECT_FALSE(folder.exists(QStringLiteral("b.md")));
    EXPECT_TRUE(QFile::exists(qEnvironmentVariable("XDG_DATA_HOME") + QStringLiteral("/Trash/files/b.md")));
    const FolderMetadata saved = *FolderMetadata::load(folder.path());
    EXPECT_TRUE(saved.favoriteNoteNames.isEmpty());  // the trashed favourite is forgotten
}

TEST_F(FolderStoreTest, DeletingTheFolderThatHoldsTheNotesMovesThemElsewhere) {
    const QUuid other = *store->createFolder(QStringLiteral("Other"), std::nullopt);
    store->deleteFolder(parent, FolderNoteDisposition::moveToFolder, other);
    EXPECT_EQ(store->folderOf(folder.filePath("a.md")), other);
    EXPECT_EQ(store->folderOf(folder.filePath("b.md")), other);
}

// The dialog a person sees when deleting a folder that holds notes: the notes
// can go into another folder, chosen with the keyboard, and the button does it.
TEST_F(FolderStoreTest, TheDeleteDialogMovesTheNotesIntoAnotherFolder) {
    const QUuid other = *store->createFolder(QStringLiteral("Other"), std::nullopt);
    DeleteFolderDialog dialog(*store, parent);
    dialog.show();
    QComboBox* destination = dialog.destinationBox();
    // Folders inside the deleted tree are no destination.
    ASSERT_EQ(destination->count(), 2);
    EXPECT_EQ(destination->itemText(1), QStringLiteral("Other"));
    destination->setFocus();
    QTest::keyClick(destination, Qt::Key_Down);
    ASSERT_EQ(destination->currentText(), QStringLiteral("Other"));
    QTest::mouseClick(dialog.moveButton(), Qt::LeftButton);
    EXPECT_EQ(dialog.result(), QDialog::Accepted);
    EXPECT_FALSE(store->folderMetadata().folder(parent));
    EXPECT_EQ(store->folderOf(folder.filePath("a.md")), other);
    EXPECT_EQ(store->folderOf(folder.filePath("b.md")), other);
    EXPECT_EQ(FolderMetadata::load(folder.path())->noteAssignments.value(QStringLiteral("b.md")), other);
}

TEST_F(FolderStoreTest, FavouritesFollowTheList) {
    ASSERT_EQ(store->favoriteNotes().size(), 1u);
    EXPECT_EQ(store->favoriteNotes()[0]->identifier, QStringLiteral("b.md"));
    store->setFavorite(false, folder.filePath("b.md"));
    EXPECT_TRUE(store->favoriteNotes().empty());
    EXPECT_FALSE(store->moveFolder(parent, {child, 0}));
}

// Files a person or another program could leave: none is read as something
// smaller and then written back without what it held.
TEST(FolderStoreUnreadable, AnUndecodableFileIsReportedAndNeverOverwritten) {
    const QByteArray folders = R"("folders":[{"id":"6F9619FF-8B86-D011-B42D-00C04FC964FF","name":"Work"}])";
    const QByteArray assignments = R"("noteAssignments":{"a.md":"6F9619FF-8B86-D011-B42D-00C04FC964FF"})";
    const QList<QByteArray> files{
             QByteArray("{ this is not json"),
             "{" + folders + "," + assignments + R"(,"favoriteNoteNames":"a.md"})",
             "{" + folders + "," + assignments + R"(,"favoriteNoteNames":["a.md", 7]})",
             R"({"folders":[{"id":"6F9619FF-8B86-D011-B42D-00C04FC964FF","name":"Work","sourceIdentifier":12}],)" +
                 assignments + "}",
             R"({"folders":["Work"],"noteAssignments":{}})",
         };
    for (const QByteArray& bytes : files) {
        SCOPED_TRACE(bytes.toStdString());
        test::TemporaryNotesFolder folder;
        folder.write(QStringLiteral("a.md"), "a");
        folder.write(QStringLiteral(".folders.json"), bytes);
        NoteStore store(folder.path(), {.createsWelcomeNote = false, .loadsNotesSynchronously = true, .welcomeIconPng = {}});
        ASSERT_TRUE(store.folderMetadataError());
        EXPECT_TRUE(store.folderMetadataError()->description().contains(QStringLiteral(".folders.json")));
        QStringList problems;
        QObject::connect(&store, &NoteStore::problemOccurred, [&](const QString& m) { problems.append(m); });
        EXPECT_FALSE(store.createFolder(QStringLiteral("New"), std::nullopt));
        store.setFavorite(true, folder.filePath("a.md"));
        store.deleteNotes({folder.filePath("a.md")});
        EXPECT_EQ(problems.size(), 2);
        EXPECT_EQ(folder.read(QStringLiteral(".folders.json")), bytes);
    }
}

}  // namespace
}  // namespace mossly
