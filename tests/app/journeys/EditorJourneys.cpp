#include <QClipboard>
#include <QDrag>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QMimeData>
#include <QProcess>
#include <QPointer>
#include <QPushButton>
#include <QTreeWidget>
#include <QWindow>

#include "EditorPane.h"
#include "Journey.h"
#include "LibrarySidebar.h"
#include "LibraryTree.h"
#include "MarkdownTextView.h"
#include "NoteFileLock.h"
#include "NoteWindow.h"

namespace mossly::test {
namespace {

class EditorJourney : public Journey {
protected:
    MarkdownTextView* libraryEditor() const { return window().editorPane()->markdownEditor(); }
    // Clicks into the editor and puts the caret at the end of the note, as Ctrl+End does.
    void writeAtEnd(MarkdownTextView* editor) {
        QTest::mouseClick(editor->viewport(), Qt::LeftButton, {}, QPoint(40, 20));
        press(Qt::Key_End, Qt::ControlModifier);
    }
};

// Lists continue on Return, Tab nests an item, and Return on an empty nested
// item ends the list without leaving spaces behind.
TEST_F(EditorJourney, ListsContinueNestAndEndCleanly) {
    launch();
    press(QKeySequence(QStringLiteral("Ctrl+N")));
    type(QStringLiteral("Packing"));
    press(Qt::Key_Return);
    type(QStringLiteral("- socks"));
    press(Qt::Key_Return);
    press(Qt::Key_Tab);
    type(QStringLiteral("wool"));
    press(Qt::Key_Return);
    press(Qt::Key_Return);  // the empty nested item ends the list
    type(QStringLiteral("done"));
    settle();
    const QString body = bodyOnDisk(QStringLiteral("Untitled.md"));
    EXPECT_TRUE(body.startsWith(QStringLiteral("Packing\n- socks\n"))) << body.toStdString();
    EXPECT_TRUE(body.contains(QStringLiteral("- wool\n"))) << body.toStdString();
    EXPECT_TRUE(body.endsWith(QStringLiteral("\ndone"))) << "no indentation left before the text: " << body.toStdString();
    screenshot(QStringLiteral("lists"), &window());
}

// A note window has the app's commands: formatting, text size, new note, close.
TEST_F(EditorJourney, ANoteWindowTakesTheAppsShortcutsAndTextSize) {
    folder.write(QStringLiteral("Letter.md"), "# Letter\nDear Ann,");
    launch();
    const QRect row = rowRect(QStringLiteral("Letter"));
    QTest::mouseDClick(noteList().viewport(), Qt::LeftButton, {}, row.center());
    NoteWindow* noteWindow = nullptr;
    ASSERT_TRUE(waitUntil([&] {
        noteWindow = window().findChild<NoteWindow*>();
        return noteWindow && noteWindow->isVisible();
    }));
    ASSERT_TRUE(QTest::qWaitForWindowExposed(noteWindow));
    noteWindow->activateWindow();
    QApplication::setActiveWindow(noteWindow);
    MarkdownTextView* editor = noteWindow->editorPane()->markdownEditor();
    EXPECT_EQ(editor->font().pointSizeF(), libraryEditor()->font().pointSizeF()) << "the same text size in both windows";
    writeAtEnd(editor);
    type(QStringLiteral(" thanks"));
    for (int i = 0; i < 6; ++i) press(Qt::Key_Left, Qt::ShiftModifier);
    press(QKeySequence(QStringLiteral("Ctrl+B")));
    settle();
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Letter.md")), QStringLiteral("# Letter\nDear Ann, **thanks**"));

    const qreal before = editor->font().pointSizeF();
    press(QKeySequence(QStringLiteral("Ctrl++")));
    EXPECT_GT(editor->font().pointSizeF(), before) << "Make Text Bigger works in the note window";
    EXPECT_EQ(editor->font().pointSizeF(), libraryEditor()->font().pointSizeF());
    screenshot(QStringLiteral("note-window"), noteWindow);

    const size_t notes = store().notes().size();
    press(QKeySequence(QStringLiteral("Ctrl+N")));
    EXPECT_EQ(store().notes().size(), notes + 1) << "New Note works from the note window";
    noteWindow->activateWindow();
    QApplication::setActiveWindow(noteWindow);
    QPointer<NoteWindow> closing(noteWindow);
    press(QKeySequence(QStringLiteral("Ctrl+W")));
    ASSERT_TRUE(waitUntil([&] { return closing.isNull() || !closing->isVisible(); })) << "Close Window";
    EXPECT_TRUE(window().isVisible());
}

// A note dragged from the list into the open note: pressing its row does not
// open it, and the drop inserts a reference into the note being written.
TEST_F(EditorJourney, ANoteDraggedFromTheListIntoTheOpenNoteIsReferenced) {
    folder.write(QStringLiteral("Recipes.md"), "# Recipes\nsoup");
    spin(20);
    folder.write(QStringLiteral("Groceries.md"), "# Groceries\nbuy:");
    launch();
    ASSERT_TRUE(clickRow(QStringLiteral("Groceries")));
    ASSERT_TRUE(waitUntil([&] { return libraryEditor()->markdown().contains(QStringLiteral("buy:")); }));
    writeAtEnd(libraryEditor());
    const QString groceries = store().selection().value();

    QWidget* list = noteList().viewport();
    const QPoint from = rowRect(QStringLiteral("Recipes")).center();
    QTest::mousePress(list, Qt::LeftButton, {}, from);
    EXPECT_EQ(store().selection(), groceries) << "pressing a row to drag it does not open it";
    QTest::mouseMove(list, from + QPoint(40, 0));  // the drag starts
    // Offscreen there is no window system to carry the drag: the drop arrives as it would.
    std::unique_ptr<QMimeData> dragged(noteList().model()->mimeData({noteList().indexAt(from)}));
    dropOn(libraryEditor()->viewport(), libraryEditor()->viewport()->rect().center(), *dragged);
    QTest::mouseRelease(list, Qt::LeftButton, {}, from + QPoint(40, 0));
    settle();
    EXPECT_EQ(store().selection(), groceries);
    const QString body = bodyOnDisk(QStringLiteral("Groceries.md"));
    EXPECT_TRUE(body.contains(QStringLiteral("[Recipes](Recipes.md)"))) << body.toStdString();
    screenshot(QStringLiteral("note-reference-dropped"), &window());
}

// File ▸ Paste as HTML Note names the note after the page's title.
TEST_F(EditorJourney, PasteAsHtmlNoteNamesTheNoteAfterThePage) {
    launch();
    auto* data = new QMimeData;
    data->setHtml(QStringLiteral("<!doctype html><html><head><title>Harbour walks</title></head>"
                                 "<body><h1>Walks</h1><p>Along the quay.</p></body></html>"));
    QGuiApplication::clipboard()->setMimeData(data);
    press(QKeySequence(QStringLiteral("Ctrl+Alt+V")));
    ASSERT_TRUE(waitUntil([&] { return folder.exists(QStringLiteral("Harbour walks.html")); }));
    const QStringList files = noteFiles();
    EXPECT_FALSE(files.join(u' ').contains(QStringLiteral("doctype"))) << files.join(u' ').toStdString();
    settle(1500);
    screenshot(QStringLiteral("paste-as-html-note"), &window());
}

// Typing while another program rewrites the note: both texts are kept, and
// the conflict copy says what it is and stays in the note's folder.
TEST_F(EditorJourney, AConflictCopyIsTitledAsOneAndStaysInTheFolder) {
    folder.write(QStringLiteral("Plan.md"), "# Plan\nfirst idea");
    folder.write(QStringLiteral(".folders.json"),
                 R"({"folders":[{"id":"11111111-1111-1111-1111-111111111111","name":"Work"}],)"
                 R"("noteAssignments":{"Plan.md":"11111111-1111-1111-1111-111111111111"},"favoriteNoteNames":[]})");
    launch();
    QTreeWidget& tree = *window().sidebar()->tree();
    const auto work = tree.findItems(QStringLiteral("Work"), Qt::MatchExactly | Qt::MatchRecursive);
    ASSERT_FALSE(work.isEmpty());
    QTest::mouseClick(tree.viewport(), Qt::LeftButton, {}, tree.visualItemRect(work.front()).center());
    ASSERT_TRUE(clickRow(QStringLiteral("Plan")));
    writeAtEnd(libraryEditor());
    type(QStringLiteral(", my second"));
    folder.write(QStringLiteral("Plan.md"), "# Plan\nan agent's rewrite");  // before the quarter-second save
    QPushButton* keep = nullptr;
    ASSERT_TRUE(waitUntil([&] {
        for (QPushButton* button : window().editorPane()->findChildren<QPushButton*>()) {
            if (button->text() == QStringLiteral("Keep Conflict Copy") && button->isVisible()) keep = button;
        }
        return keep != nullptr;
    }, 8000));
    screenshot(QStringLiteral("conflict-banner"), &window());
    QTest::mouseClick(keep, Qt::LeftButton);
    settle();
    QString copy;
    for (const QString& file : noteFiles()) {
        if (file.startsWith(QStringLiteral("Plan (Conflict "))) copy = file;
    }
    ASSERT_FALSE(copy.isEmpty());
    EXPECT_TRUE(bodyOnDisk(copy).contains(QStringLiteral("first idea, my second")));
    EXPECT_TRUE(bodyOnDisk(QStringLiteral("Plan.md")).contains(QStringLiteral("an agent's rewrite")));
    const QJsonObject folders = QJsonDocument::fromJson(folder.read(QStringLiteral(".folders.json"))).object();
    EXPECT_EQ(folders[QStringLiteral("noteAssignments")][copy].toString().toLower(),
              QStringLiteral("11111111-1111-1111-1111-111111111111"))
        << "the copy is in its note's folder";
    ASSERT_EQ(noteList().model()->rowCount(), 2);
    QStringList titles;
    for (int row = 0; row < 2; ++row) titles.append(noteList().model()->index(row, 0).data().toString());
    EXPECT_TRUE(titles.contains(QStringLiteral("Plan")));
    EXPECT_EQ(titles.filter(QStringLiteral("(Conflict copy, ")).size(), 1) << titles.join(u'|').toStdString();
    screenshot(QStringLiteral("conflict-copy-in-list"), &window());
}

// Another writer holds the library (an agent, say): saves wait quietly, then
// the note says it cannot be saved, and the words are written once it is free.
TEST_F(EditorJourney, WordsTypedWhileTheLibraryIsBusyAreSavedWhenItIsFree) {
    folder.write(QStringLiteral("Diary.md"), "# Diary\nMonday");
    launch();
    const auto holder = holdLibraryLock();
    writeAtEnd(libraryEditor());
    type(QStringLiteral(", rain"));
    auto* banner = window().editorPane()->findChild<QLabel*>(QStringLiteral("noteBannerText"));
    ASSERT_TRUE(waitUntil([&] { return banner->isVisible() && banner->text().contains(QStringLiteral("could not be saved")); },
                          12000));
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Diary.md")), QStringLiteral("# Diary\nMonday"));
    screenshot(QStringLiteral("cannot-save"), &window());
    holder->kill();
    holder->waitForFinished();
    ASSERT_TRUE(waitUntil([&] { return bodyOnDisk(QStringLiteral("Diary.md")) == QStringLiteral("# Diary\nMonday, rain"); },
                          10000));
    ASSERT_TRUE(waitUntil([&] { return !banner->isVisible(); }));
}

}  // namespace
}  // namespace mossly::test
