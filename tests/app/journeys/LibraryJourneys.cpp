#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QInputDialog>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QScopeGuard>
#include <QClipboard>
#include <QStatusBar>
#include <QTreeWidget>

#include "DeleteFolderDialog.h"
#include "EditorPane.h"
#include "Journey.h"
#include "LibrarySidebar.h"
#include "LibraryTree.h"
#include "MarkdownTextView.h"
#include "NoteListModel.h"

namespace mossly::test {
namespace {

QJsonObject foldersFile(const TemporaryNotesFolder& folder) {
    return QJsonDocument::fromJson(folder.read(QStringLiteral(".folders.json"))).object();
}

QRect treeRow(QTreeWidget& tree, const QString& text) {
    const auto items = tree.findItems(text, Qt::MatchExactly | Qt::MatchRecursive);
    return items.isEmpty() ? QRect() : tree.visualItemRect(items.front());
}

class LibraryJourney : public Journey {};

// A first start greets with the welcome note; Ctrl+N makes a note and puts the
// caret in it; the words and their bold land in the file.
TEST_F(LibraryJourney, NewNoteTypedAndFormattedIsSavedAsMarkdown) {
    launch();
    ASSERT_TRUE(folder.exists(QStringLiteral("Welcome to Mossly.md")));
    press(QKeySequence(QStringLiteral("Ctrl+N")));
    ASSERT_TRUE(waitUntil([&] { return qobject_cast<MarkdownTextView*>(focused()) != nullptr; }));
    type(QStringLiteral("Shopping list"));
    press(Qt::Key_Return);
    type(QStringLiteral("milk and bread"));
    for (int i = 0; i < 5; ++i) press(Qt::Key_Left, Qt::ShiftModifier);
    press(QKeySequence(QStringLiteral("Ctrl+B")));
    settle();
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Untitled.md")), QStringLiteral("Shopping list\nmilk and **bread**"));
    EXPECT_TRUE(rowRect(QStringLiteral("Shopping list")).isValid()) << "the list shows the note by its title";
    screenshot(QStringLiteral("new-note"), &window());
}

// Ctrl+N while a folder is shown: the note is made in that folder, shown and selected.
TEST_F(LibraryJourney, ANoteMadeWhileAFolderIsShownIsInThatFolder) {
    folder.write(QStringLiteral("Older.md"), "# Older\nsomething");
    launch();
    QTreeWidget& tree = *window().sidebar()->tree();
    whenShown([] { return chooseMenuItem(QStringLiteral("New Folder")); });
    whenShown([] {
        auto* dialog = qobject_cast<QInputDialog*>(QApplication::activeModalWidget());
        QLineEdit* name = dialog && dialog->isVisible() ? dialog->findChild<QLineEdit*>() : nullptr;
        if (!name) return false;
        for (QPushButton* button : dialog->findChildren<QPushButton*>()) {
            // No desktop icon theme here: plain buttons, not Qt's own tick and cross.
            EXPECT_TRUE(button->icon().isNull()) << button->text().toStdString();
        }
        screenshot(QStringLiteral("folder-name-dialog"), dialog);
        QTest::keyClicks(name, QStringLiteral("Work"));
        QTest::keyClick(name, Qt::Key_Return);
        return true;
    });
    rightClick(tree.viewport(), treeRow(tree, QStringLiteral("Folders")).center());
    ASSERT_TRUE(waitUntil([&] { return store().folders().size() == 1; }));
    QTest::mouseClick(tree.viewport(), Qt::LeftButton, {}, treeRow(tree, QStringLiteral("Work")).center());
    ASSERT_EQ(noteList().model()->rowCount(), 0);

    press(QKeySequence(QStringLiteral("Ctrl+N")));
    type(QStringLiteral("Made in Work"));
    settle();
    ASSERT_EQ(noteList().model()->rowCount(), 1) << "the new note is in the list being looked at"
                                                  << folder.read(QStringLiteral(".folders.json")).toStdString()
                                                  << noteFiles().join(u' ').toStdString();
    EXPECT_EQ(noteList().currentIndex().row(), 0) << "and it is the one highlighted";
    EXPECT_TRUE(noteList().selectionModel()->isSelected(noteList().currentIndex()));
    const QString workId = foldersFile(folder)[QStringLiteral("folders")][0][QStringLiteral("id")].toString();
    EXPECT_EQ(foldersFile(folder)[QStringLiteral("noteAssignments")][QStringLiteral("Untitled.md")].toString(), workId);
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Untitled.md")), QStringLiteral("Made in Work"));
    screenshot(QStringLiteral("new-note-in-folder"), &window());
}

// A search with no match says so, the editor shows no note the list does not
// hold, and Escape brings everything back.
TEST_F(LibraryJourney, ASearchThatFindsNothingSaysSoAndEscapeClearsIt) {
    folder.write(QStringLiteral("Tides.md"), "# Tides\nhigh water at noon");
    launch();
    press(QKeySequence(QStringLiteral("Ctrl+F")));
    type(QStringLiteral("tides"));
    ASSERT_TRUE(waitUntil([&] { return noteList().model()->rowCount() == 1 && !store().isSearching(); }));
    type(QStringLiteral("zz"));
    auto* empty = noteList().findChild<QLabel*>(QStringLiteral("noteListEmptyState"));
    ASSERT_TRUE(empty);
    ASSERT_TRUE(waitUntil([&] { return empty->isVisible(); }));
    EXPECT_EQ(empty->text(), QStringLiteral("No notes match \u201Ctideszz\u201D"));
    EXPECT_EQ(window().editorPane()->currentEditor(), nullptr) << "the editor shows no note the list does not hold";
    screenshot(QStringLiteral("search-nothing-found"), &window());

    press(Qt::Key_Escape);
    EXPECT_TRUE(window().sidebar()->searchField()->text().isEmpty());
    ASSERT_TRUE(waitUntil([&] { return noteList().model()->rowCount() == 1; }));
    EXPECT_FALSE(empty->isVisible());
}

// Words the note never uses find it by what it says; a note on something
// else stays out of the list.
TEST_F(LibraryJourney, ASearchFindsANoteByWhatItMeans) {
    folder.write(QStringLiteral("Plumber.md"), "# Plumber visit\n\nThe plumber fixed the leaking pipe under the sink.");
    folder.write(QStringLiteral("Budget.md"), "# Budget\n\nQuarterly spending on rent and groceries.");
    launch();
    ASSERT_TRUE(waitUntil([&] { return store().meaningSearchReady(); }, 30000));
    press(QKeySequence(QStringLiteral("Ctrl+F")));
    type(QStringLiteral("bathroom water repair"));
    ASSERT_TRUE(waitUntil([&] {
        return store().searchText() == QStringLiteral("bathroom water repair") && !store().isSearching() &&
               noteList().model()->rowCount() == 1;
    }));
    EXPECT_EQ(noteList().model()->index(0, 0).data(NoteListModel::TitleRole).toString(), QStringLiteral("Plumber visit"));
    screenshot(QStringLiteral("search-by-meaning"), &window());
}

// Right-click a note: favourite it (and find it under Favourites), then move it to the Trash.
TEST_F(LibraryJourney, ANoteIsFavouritedAndMovedToTheTrashFromItsMenu) {
    folder.write(QStringLiteral("Groceries.md"), "# Groceries\neggs");
    launch();
    whenShown([] { return chooseMenuItem(QStringLiteral("Add to Favourites")); });
    rightClick(noteList().viewport(), rowRect(QStringLiteral("Groceries")).center());
    ASSERT_TRUE(waitUntil([&] {
        return foldersFile(folder)[QStringLiteral("favoriteNoteNames")].toArray().contains(QStringLiteral("Groceries.md"));
    }));
    QTreeWidget& tree = *window().sidebar()->tree();
    QTest::mouseClick(tree.viewport(), Qt::LeftButton, {}, treeRow(tree, QStringLiteral("Favourites")).center());
    ASSERT_EQ(noteList().model()->rowCount(), 1);
    EXPECT_TRUE(noteList().model()->index(0, 0).data(NoteListModel::FavoriteRole).toBool()) << "marked with a star";
    screenshot(QStringLiteral("favourites"), &window());

    whenShown([] { return chooseMenuItem(QStringLiteral("Move to Trash")); });
    rightClick(noteList().viewport(), rowRect(QStringLiteral("Groceries")).center());
    ASSERT_TRUE(waitUntil([&] { return !folder.exists(QStringLiteral("Groceries.md")); }));
    EXPECT_TRUE(QFile::exists(qEnvironmentVariable("XDG_DATA_HOME") + QStringLiteral("/Trash/files/Groceries.md")));
    EXPECT_EQ(noteList().model()->rowCount(), 0);
}

// Delete in the list moves the selected notes to the Trash and says how many went.
TEST_F(LibraryJourney, TheDeleteKeyMovesTheSelectedNotesToTheTrash) {
    folder.write(QStringLiteral("One.md"), "# One");
    folder.write(QStringLiteral("Two.md"), "# Two");
    folder.write(QStringLiteral("Three.md"), "# Three");
    launch();
    ASSERT_TRUE(clickRow(QStringLiteral("One")));
    ASSERT_TRUE(clickRow(QStringLiteral("Two"), Qt::ControlModifier));
    noteList().setFocus();
    press(Qt::Key_Delete);
    ASSERT_TRUE(waitUntil([&] { return !folder.exists(QStringLiteral("One.md")) && !folder.exists(QStringLiteral("Two.md")); }));
    EXPECT_TRUE(folder.exists(QStringLiteral("Three.md")));
    EXPECT_EQ(window().statusBar()->currentMessage(), QStringLiteral("2 note(s) moved to the Trash."));
    screenshot(QStringLiteral("delete-key"), &window());
}

// Edit ▸ Select All, Cut, Paste and Undo from the menu act on the note being edited.
TEST_F(LibraryJourney, TheEditMenuCutsPastesAndUndoesInTheEditor) {
    folder.write(QStringLiteral("Words.md"), "# Words\nkeep these");
    launch();
    auto* editor = window().editorPane()->markdownEditor();
    QTest::mouseClick(editor->viewport(), Qt::LeftButton, {}, QPoint(40, 20));
    QAction* selectAll = findAction(window(), QStringLiteral("Select All"));
    QAction* cut = findAction(window(), QStringLiteral("Cut"));
    QAction* paste = findAction(window(), QStringLiteral("Paste"));
    QAction* undo = findAction(window(), QStringLiteral("Undo"));
    ASSERT_TRUE(selectAll && cut && paste && undo);
    EXPECT_EQ(cut->shortcut(), QKeySequence(QKeySequence::Cut));
    selectAll->trigger();
    cut->trigger();
    settle();
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Words.md")), QString());
    EXPECT_TRUE(QGuiApplication::clipboard()->text().contains(QStringLiteral("keep these")));
    paste->trigger();
    paste->trigger();
    settle();
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Words.md")), QStringLiteral("# Words\nkeep these# Words\nkeep these"));
    undo->trigger();
    settle();
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Words.md")), QStringLiteral("# Words\nkeep these"));
    // In the note list nothing can be cut.
    noteList().setFocus();
    EXPECT_FALSE(cut->isEnabled());
}

// Deleting a folder that holds notes asks where they go; choosing another folder moves them there.
TEST_F(LibraryJourney, DeletingAFolderCanMoveItsNotesIntoAnother) {
    folder.write(QStringLiteral("Budget.md"), "# Budget\nnumbers");
    folder.write(QStringLiteral(".folders.json"),
                 R"({"folders":[{"id":"11111111-1111-1111-1111-111111111111","name":"Work"},)"
                 R"({"id":"22222222-2222-2222-2222-222222222222","name":"Archive"}],)"
                 R"("noteAssignments":{"Budget.md":"11111111-1111-1111-1111-111111111111"},"favoriteNoteNames":[]})");
    launch();
    QTreeWidget& tree = *window().sidebar()->tree();
    whenShown([] { return chooseMenuItem(QStringLiteral("Delete Folder…")); });
    whenShown([] {
        auto* dialog = qobject_cast<DeleteFolderDialog*>(QApplication::activeModalWidget());
        if (!dialog || !dialog->isVisible()) return false;
        screenshot(QStringLiteral("delete-folder-dialog"), dialog);
        QComboBox* destination = dialog->destinationBox();
        destination->setFocus();
        QTest::keyClick(destination, Qt::Key_Down);
        QTest::mouseClick(dialog->moveButton(), Qt::LeftButton);
        return true;
    });
    rightClick(tree.viewport(), treeRow(tree, QStringLiteral("Work")).center());
    ASSERT_TRUE(waitUntil([&] { return store().folders().size() == 1; }));
    const QJsonObject saved = foldersFile(folder);
    EXPECT_EQ(saved[QStringLiteral("folders")][0][QStringLiteral("name")].toString(), QStringLiteral("Archive"));
    EXPECT_EQ(saved[QStringLiteral("noteAssignments")][QStringLiteral("Budget.md")].toString().toLower(),
              QStringLiteral("22222222-2222-2222-2222-222222222222"));
    EXPECT_TRUE(folder.exists(QStringLiteral("Budget.md")));
}

// With no file manager to start, Show Notes Folder still tells where the notes are.
TEST_F(LibraryJourney, ShowNotesFolderSaysWhereTheNotesAreWhenNoFileManagerStarts) {
    const QString emptyPath = folder.filePath(QStringLiteral(".no-programs"));
    QDir().mkpath(emptyPath);
    const QByteArray programs = qgetenv("PATH");
    qputenv("PATH", QFile::encodeName(emptyPath));  // no xdg-open, no file manager
    // Later journeys in the same process need their programs back.
    const auto restore = qScopeGuard([&] { qputenv("PATH", programs); });
    launch();
    QAction* show = findAction(window(), QStringLiteral("Show Notes Folder"));
    ASSERT_TRUE(show);
    show->trigger();
    QMessageBox* message = nullptr;
    ASSERT_TRUE(waitUntil([&] {
        message = window().findChild<QMessageBox*>(QStringLiteral("notesFolderMessage"));
        return message && message->isVisible();
    }));
    EXPECT_TRUE(message->text().contains(QDir::toNativeSeparators(store().directory())));
    screenshot(QStringLiteral("show-notes-folder"), message);
    message->close();
}

}  // namespace
}  // namespace mossly::test
