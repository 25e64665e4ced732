#include <QLabel>
#include <QLineEdit>
#include <QPushButton>

#include "EditorPane.h"
#include "Journey.h"
#include "MarkdownTextView.h"
#include "NoteNameOffer.h"
#include "NoteRenameDialog.h"

namespace mossly::test {
namespace {

class RenameJourney : public Journey {
protected:
    NoteRenameDialog* renameDialog() const { return window().findChild<NoteRenameDialog*>(); }
};

// F2 in the list, a new name, Return: the file has the new name, a note that
// links to it follows, its folder and star stay, and the editor keeps saving to it.
TEST_F(RenameJourney, F2RenamesTheNoteFileAndTheLinksToIt) {
    folder.write(QStringLiteral("Untitled.md"), "# Trip to Rome\nPack light");
    folder.write(QStringLiteral("Plans/Index.md"), "See [Trip to Rome](../Untitled.md).");
    launch();
    const QUuid travel = *store().createFolder(QStringLiteral("Travel"), std::nullopt);
    store().moveNote(folder.filePath(QStringLiteral("Untitled.md")), travel);
    store().setFavorite(true, folder.filePath(QStringLiteral("Untitled.md")));

    ASSERT_TRUE(clickRow(QStringLiteral("Trip to Rome")));
    noteList().setFocus();
    press(Qt::Key_F2);
    ASSERT_TRUE(waitUntil([&] { return renameDialog() && renameDialog()->isActiveWindow(); }));
    EXPECT_EQ(renameDialog()->nameField()->text(), QStringLiteral("Untitled"));
    // A taken name is refused in the dialog, which stays open with the name.
    folder.write(QStringLiteral("Taken.md"), "someone else's");
    type(QStringLiteral("Taken"));
    press(Qt::Key_Return);
    ASSERT_TRUE(renameDialog() && renameDialog()->errorLabel()->isVisible());
    EXPECT_EQ(folder.read(QStringLiteral("Taken.md")), "someone else's");
    screenshot(QStringLiteral("rename-note-taken-name"), renameDialog());
    renameDialog()->nameField()->selectAll();
    type(QStringLiteral("Trip to Rome"));
    press(Qt::Key_Return);

    ASSERT_TRUE(waitUntil([&] { return folder.exists(QStringLiteral("Trip to Rome.md")); }));
    EXPECT_FALSE(folder.exists(QStringLiteral("Untitled.md")));
    ASSERT_TRUE(waitUntil([&] {
        return bodyOnDisk(QStringLiteral("Plans/Index.md")) == QStringLiteral("See [Trip to Rome](../Trip%20to%20Rome.md).");
    }));
    const QByteArray foldersText = folder.read(QStringLiteral(".folders.json"));
    EXPECT_TRUE(foldersText.contains("Trip to Rome.md"));
    EXPECT_FALSE(foldersText.contains("Untitled.md"));
    const QString newUrl = folder.filePath(QStringLiteral("Trip to Rome.md"));
    EXPECT_TRUE(store().isFavorite(newUrl));
    EXPECT_EQ(store().folderOf(newUrl), travel);

    // The editor still shows the note, and typing saves to the renamed file.
    EditorPane& pane = *window().editorPane();
    EXPECT_EQ(pane.noteUrl(), newUrl);
    MarkdownTextView& editor = *pane.markdownEditor();
    EXPECT_TRUE(editor.toPlainText().contains(QStringLiteral("Pack light")));
    QTest::mouseClick(editor.viewport(), Qt::LeftButton, {}, editor.viewport()->rect().center());
    press(QKeySequence(QStringLiteral("Ctrl+End")));
    type(QStringLiteral(", and early"));
    settle();
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Trip to Rome.md")), QStringLiteral("# Trip to Rome\nPack light, and early"));
    EXPECT_FALSE(folder.exists(QStringLiteral("Untitled.md")));
    screenshot(QStringLiteral("rename-note"), &window());
}

// A new note gets a title; after a pause a quiet bar offers to name the file after it.
TEST_F(RenameJourney, ANewNoteIsOfferedAFileNamedAfterItsTitle) {
    folder.write(QStringLiteral("Older.md"), "# Older");
    launch();
    press(QKeySequence(QStringLiteral("Ctrl+N")));
    ASSERT_TRUE(waitUntil([&] { return qobject_cast<MarkdownTextView*>(focused()) != nullptr; }));
    type(QStringLiteral("Groceries"));
    NoteNameOffer& offer = *window().editorPane()->nameOffer();
    settle(300);
    EXPECT_FALSE(offer.isVisible()) << "not while typing";
    ASSERT_TRUE(waitUntil([&] { return offer.isVisible(); }));
    EXPECT_TRUE(folder.exists(QStringLiteral("Untitled.md"))) << "never renamed without being asked";
    EXPECT_EQ(offer.nameButton()->text(), QStringLiteral("Name the File \u201CGroceries.md\u201D"));
    screenshot(QStringLiteral("name-file-offer"), &window());
    MarkdownTextView& editor = *window().editorPane()->markdownEditor();
    const int caret = editor.textCursor().position();
    QTest::mouseClick(offer.nameButton(), Qt::LeftButton);
    ASSERT_TRUE(waitUntil([&] { return folder.exists(QStringLiteral("Groceries.md")); }));
    EXPECT_FALSE(folder.exists(QStringLiteral("Untitled.md")));
    EXPECT_FALSE(offer.isVisible());
    EXPECT_EQ(editor.textCursor().position(), caret) << "the caret stays where the user was typing";
    EXPECT_EQ(focused(), &editor);
    type(QStringLiteral(" and milk"));
    settle();
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Groceries.md")), QStringLiteral("Groceries and milk"));
}

// Leaving a new note right after typing its title: the bar names the note left behind.
TEST_F(RenameJourney, LeavingANewNoteOffersToNameItsFile) {
    folder.write(QStringLiteral("Older.md"), "# Older");
    launch();
    press(QKeySequence(QStringLiteral("Ctrl+N")));
    ASSERT_TRUE(waitUntil([&] { return qobject_cast<MarkdownTextView*>(focused()) != nullptr; }));
    type(QStringLiteral("Packing"));
    settle(400);  // saved, not yet offered
    NoteNameOffer& offer = *window().editorPane()->nameOffer();
    ASSERT_FALSE(offer.isVisible());
    ASSERT_TRUE(clickRow(QStringLiteral("Older")));
    ASSERT_TRUE(waitUntil([&] { return offer.isVisible(); }));
    EXPECT_EQ(offer.nameButton()->text(), QStringLiteral("Name the File \u201CPacking.md\u201D"));
    QTest::mouseClick(offer.nameButton(), Qt::LeftButton);
    ASSERT_TRUE(waitUntil([&] { return folder.exists(QStringLiteral("Packing.md")); }));
    EXPECT_FALSE(folder.exists(QStringLiteral("Untitled.md")));
    EXPECT_EQ(window().editorPane()->noteUrl(), folder.filePath(QStringLiteral("Older.md"))) << "the user stays where they went";
    EXPECT_FALSE(offer.isVisible());
}

}  // namespace
}  // namespace mossly::test
