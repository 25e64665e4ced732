#include <gtest/gtest.h>

#include <QDir>
#include <QPointer>
#include <QSignalSpy>
#include <QTest>

#include "AppTestSupport.h"
#include "EditorPane.h"
#include "MainWindow.h"
#include "MarkdownTextView.h"
#include "NoteWindow.h"
#include "FaultyFileAccess.h"
#include "FaultyStoreTest.h"
#include "NoteReferences.h"
#include "NoteStore.h"
#include "TestSupport.h"

namespace mossly {
namespace {

using Operation = test::FaultyFileAccess::Operation;

TEST(NoteReferences, RewritesLinksToTheRenamedFileOnly) {
    const QString note = QStringLiteral("/notes/Projects/Index.md");
    const QString oldTarget = QStringLiteral("/notes/Untitled.md");
    const QString newTarget = QStringLiteral("/notes/Trip (Rome).md");
    const QString text = QStringLiteral(
        "See [Trip](../Untitled.md) and ![x](../Untitled.md#top \"title\")\n"
        "[ref]: <../Untitled.md>\n"
        "Not [web](https://x.test/Untitled.md), not [other](../Untitled%202.md), not [same name](Untitled.md)\n"
        "```\n[code](../Untitled.md)\n```\n");
    int count = 0;
    const QString rewritten = rewriteNoteReferences(text, note, oldTarget, newTarget, &count);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(rewritten, QStringLiteral(
        "See [Trip](../Trip%20%28Rome%29.md) and ![x](../Trip%20%28Rome%29.md#top \"title\")\n"
        "[ref]: ../Trip%20%28Rome%29.md\n"
        "Not [web](https://x.test/Untitled.md), not [other](../Untitled%202.md), not [same name](Untitled.md)\n"
        "```\n[code](../Untitled.md)\n```\n"));
    // Percent-encoded links, as the editor writes them, are found too.
    EXPECT_EQ(rewriteNoteReferences(QStringLiteral("[a](Trip%20%28Rome%29.md)"), QStringLiteral("/notes/A.md"),
                                    newTarget, QStringLiteral("/notes/Rome.md")),
              QStringLiteral("[a](Rome.md)"));
}

class NoteRenameTest : public test::FaultyStoreTest {};

TEST_F(NoteRenameTest, ThePendingEditFolderFavouriteSelectionAndLinksFollowTheNote) {
    folder.write(QStringLiteral("Untitled.md"), "# Trip");
    folder.write(QStringLiteral("Plans/Index.md"), "Go to [Trip](../Untitled.md).");
    folder.write(QStringLiteral("Other.md"), "Unrelated");
    folder.write(QStringLiteral("Draft.md"), "[Trip](Untitled.md)");
    auto store = openStore();
    const QUuid travel = *store->createFolder(QStringLiteral("Travel"), std::nullopt);
    store->moveNote(url("Untitled.md"), travel);
    store->setFavorite(true, url("Untitled.md"));
    store->select(url("Untitled.md"));
    store->setBody(url("Untitled.md"), QStringLiteral("# Trip\nPack light"));  // not saved yet
    store->setBody(url("Draft.md"), QStringLiteral("[Trip](Untitled.md) and more"));  // typed elsewhere
    QSignalSpy renamed(store.get(), &NoteStore::noteRenamed);
    QSignalSpy references(store.get(), &NoteStore::referencesUpdated);

    auto newUrl = store->renameNote(url("Untitled.md"), QStringLiteral("Trip to Rome.md"));
    ASSERT_TRUE(newUrl) << newUrl.error().description().toStdString();
    EXPECT_EQ(*newUrl, url("Trip to Rome.md"));
    EXPECT_FALSE(folder.exists(QStringLiteral("Untitled.md")));
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Trip to Rome.md")), QStringLiteral("# Trip\nPack light"));
    ASSERT_EQ(renamed.count(), 1);
    EXPECT_EQ(renamed[0][0].toString(), url("Untitled.md"));
    EXPECT_EQ(store->selection(), *newUrl);
    EXPECT_EQ(store->folderOf(*newUrl), travel);
    EXPECT_TRUE(store->isFavorite(*newUrl));
    EXPECT_EQ(store->resolveNoteID(url("Untitled.md")), *newUrl);
    const QByteArray metadata = folder.read(QStringLiteral(".folders.json"));
    EXPECT_TRUE(metadata.contains("Trip to Rome.md"));
    EXPECT_FALSE(metadata.contains("Untitled.md"));

    ASSERT_TRUE(test::waitUntil([&] { return references.count() == 1; }));
    EXPECT_EQ(references[0][1].toInt(), 2);
    // Words not saved yet get the new link in memory, and are saved as an ordinary edit.
    EXPECT_EQ(store->body(url("Draft.md")), QStringLiteral("[Trip](Trip%20to%20Rome.md) and more"));
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Plans/Index.md")), QStringLiteral("Go to [Trip](../Trip%20to%20Rome.md)."));
    EXPECT_EQ(store->body(url("Plans/Index.md")), QStringLiteral("Go to [Trip](../Trip%20to%20Rome.md)."));
    EXPECT_EQ(folder.read(QStringLiteral("Other.md")), "Unrelated");

    // Typing after the rename saves to the new file.
    store->setBody(*newUrl, QStringLiteral("# Trip\nPack light, and early"));
    ASSERT_TRUE(test::waitUntil([&] { return !store->hasPendingSaves(); }));
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Trip to Rome.md")), QStringLiteral("# Trip\nPack light, and early"));
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Draft.md")), QStringLiteral("[Trip](Trip%20to%20Rome.md) and more"));
    test::spin(300);  // a scan of the folder does not bring the old name back
    EXPECT_EQ(store->notes().size(), 4u);
}

TEST_F(NoteRenameTest, ATakenNameChangesNothing) {
    folder.write(QStringLiteral("Untitled.md"), "mine");
    folder.write(QStringLiteral("Plan.md"), "theirs");
    auto store = openStore();
    auto refused = store->renameNote(url("Untitled.md"), QStringLiteral("Plan"));
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().code(), Error::Code::alreadyExists);
    EXPECT_TRUE(store->note(url("Untitled.md")));
    EXPECT_EQ(folder.read(QStringLiteral("Plan.md")), "theirs");
}

TEST_F(NoteRenameTest, AStaleNoteIsReadAgainAndAFailingOneIsReported) {
    folder.write(QStringLiteral("Untitled.md"), "# Trip");
    folder.write(QStringLiteral("A.md"), "[Trip](Untitled.md) a");
    folder.write(QStringLiteral("B.md"), "[Trip](Untitled.md) b");
    auto store = openStore();
    QSignalSpy problems(store.get(), &NoteStore::problemOccurred);
    QSignalSpy references(store.get(), &NoteStore::referencesUpdated);

    ASSERT_TRUE(store->renameNote(url("Untitled.md"), QStringLiteral("Trip")));
    files->failNext(Operation::update, Error::stale(QStringLiteral("old"), QStringLiteral("new")));
    ASSERT_TRUE(test::waitUntil([&] { return references.count() == 1; }));
    EXPECT_EQ(references[0][1].toInt(), 2);
    EXPECT_EQ(bodyOnDisk(QStringLiteral("A.md")), QStringLiteral("[Trip](Trip.md) a"));
    EXPECT_EQ(bodyOnDisk(QStringLiteral("B.md")), QStringLiteral("[Trip](Trip.md) b"));
    EXPECT_EQ(problems.count(), 0);

    ASSERT_TRUE(store->renameNote(url("Trip.md"), QStringLiteral("Rome")));
    files->failAlways(Operation::update, test::diskFull(url("A.md")));
    ASSERT_TRUE(test::waitUntil([&] { return references.count() == 2; }));
    EXPECT_EQ(references[1][1].toInt(), 0);
    EXPECT_EQ(bodyOnDisk(QStringLiteral("A.md")), QStringLiteral("[Trip](Trip.md) a"));
    ASSERT_EQ(problems.count(), 1);
    EXPECT_TRUE(problems[0][0].toString().contains(QStringLiteral("Rome.md"))) << problems[0][0].toString().toStdString();
}

// A note open in its own window and in the library: both stay on it, caret and
// undo included, and what is typed afterwards lands in the renamed file.
TEST_F(NoteRenameTest, OpenEditorsFollowTheNoteToItsNewName) {
    folder.write(QStringLiteral("Untitled.md"), "# Trip\n");
    auto store = openStore();
    MainWindow window(*store);
    window.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
    store->select(url("Untitled.md"));
    QPointer<NoteWindow> noteWindow = window.openNoteWindow(url("Untitled.md"));
    ASSERT_TRUE(noteWindow);
    MarkdownTextView* inWindow = noteWindow->editorPane()->markdownEditor();
    QTextCursor end = inWindow->textCursor();
    end.movePosition(QTextCursor::End);
    inWindow->setTextCursor(end);
    QTest::keyClicks(inWindow, QStringLiteral("Pack"));

    auto newUrl = store->renameNote(url("Untitled.md"), QStringLiteral("Rome"));
    ASSERT_TRUE(newUrl);
    test::spin(100);
    ASSERT_FALSE(noteWindow.isNull()) << "the note's window stays open";
    EXPECT_EQ(noteWindow->noteUrl(), *newUrl);
    EXPECT_EQ(window.openNoteWindow(*newUrl), noteWindow.data());
    EXPECT_EQ(window.editorPane()->noteUrl(), *newUrl);
    EXPECT_EQ(inWindow->textCursor().position(), inWindow->toPlainText().size());
    EXPECT_TRUE(inWindow->document()->isUndoAvailable());
    QTest::keyClicks(inWindow, QStringLiteral(" light"));
    EXPECT_EQ(window.editorPane()->markdownEditor()->markdown(), QStringLiteral("# Trip\nPack light"));
    ASSERT_TRUE(test::waitUntil([&] { return !store->hasPendingSaves(); }));
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Rome.md")), QStringLiteral("# Trip\nPack light"));
    EXPECT_FALSE(folder.exists(QStringLiteral("Untitled.md")));
    noteWindow->close();
}

}  // namespace
}  // namespace mossly
