#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QLineEdit>
#include <QListView>
#include <QMenuBar>
#include <QTest>
#include <QTimer>

#include "AppLifecycle.h"
#include "AppTestSupport.h"
#include "EditorPane.h"
#include "LibrarySidebar.h"
#include "MainWindow.h"
#include "NoteStore.h"
#include "MarkdownTextView.h"
#include "PlainNoteEditor.h"
#include "TestSupport.h"

namespace mossly {
namespace {

class MainWindowTest : public ::testing::Test {
protected:
    test::TemporaryNotesFolder folder;
    std::unique_ptr<NoteStore> store;
    std::unique_ptr<MainWindow> window;

    void SetUp() override {
        folder.write(QStringLiteral("existing.md"), "# Existing\nbody");
        store = std::make_unique<NoteStore>(folder.path(), NoteStore::Options{.createsWelcomeNote = false,
                                                                              .loadsNotesSynchronously = true, .welcomeIconPng = {}});
        window = std::make_unique<MainWindow>(*store);
        window->show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(window.get()));
    }
};

TEST_F(MainWindowTest, NewNoteTypingAndFormatting) {
    QAction* newNote = test::findAction(*window, QStringLiteral("New Note"));
    ASSERT_TRUE(newNote);
    EXPECT_EQ(newNote->shortcut(), QKeySequence(QStringLiteral("Ctrl+N")));
    newNote->trigger();
    ASSERT_EQ(store->notes().size(), 2u);
    // A Markdown note opens in the styled editor.
    MarkdownTextView* editor = window->editorPane()->markdownEditor();
    ASSERT_EQ(window->editorPane()->currentEditor(), editor);
    ASSERT_TRUE(test::waitUntil([&] { return editor->hasFocus(); }));
    const QString url = window->editorPane()->noteUrl();
    EXPECT_EQ(url, store->notes().front().url);

    QTest::keyClicks(editor, QStringLiteral("Shopping list"));
    EXPECT_EQ(store->body(url), QStringLiteral("Shopping list"));
    QAction* bold = test::findAction(*window, QStringLiteral("Bold"));
    ASSERT_TRUE(bold);
    EXPECT_TRUE(bold->isEnabled());
    editor->selectAll();
    bold->trigger();
    EXPECT_EQ(store->body(url), QStringLiteral("**Shopping list**"));

    // With the search field focused there is no formatting handler.
    test::findAction(*window, QStringLiteral("Search Notes"))->trigger();
    ASSERT_TRUE(test::waitUntil([&] { return window->sidebar()->searchField()->hasFocus(); }));
    EXPECT_FALSE(bold->isEnabled());
    ASSERT_TRUE(store->flushPendingSaves());
}

TEST_F(MainWindowTest, SearchFiltersTheList) {
    store->createNote(QStringLiteral("# Groceries\nmilk"), NoteContentType::markdown);
    QListView* list = window->sidebar()->noteList();
    EXPECT_EQ(list->model()->rowCount(), 2);
    QTest::keyClicks(window->sidebar()->searchField(), QStringLiteral("milk"));
    ASSERT_TRUE(test::waitUntil([&] { return list->model()->rowCount() == 1; }));
    window->sidebar()->searchField()->clear();
    EXPECT_EQ(list->model()->rowCount(), 2);
}

TEST(AppLifecycleTest, QuittingWritesAPendingEdit) {
    test::TemporaryNotesFolder folder;
    folder.write(QStringLiteral("a.md"), "before");
    NoteStore store(folder.path(), {.createsWelcomeNote = false, .loadsNotesSynchronously = true, .welcomeIconPng = {}});
    AppLifecycle lifecycle;
    lifecycle.setTerminationHandler([&store](bool) { return store.flushPendingSaves().has_value(); });
    store.setBody(folder.filePath("a.md"), QStringLiteral("typed a moment before quitting"));
    QTimer::singleShot(0, qApp, &QCoreApplication::quit);
    QApplication::exec();  // aboutToQuit runs the handler before exec returns
    EXPECT_EQ(folder.read(QStringLiteral("a.md")),
              "---\nnotes-created-by: human\nnotes-last-edited-by: human\n---\ntyped a moment before quitting");
}

TEST(AppLifecycleTest, ClosingTheWindowWaitsForTheHandlerWhichMayKeepTheAppOpen) {
    test::TemporaryNotesFolder folder;
    NoteStore store(folder.path(), {.createsWelcomeNote = false, .loadsNotesSynchronously = true, .welcomeIconPng = {}});
    MainWindow window(store);
    window.show();
    AppLifecycle lifecycle;
    lifecycle.watchMainWindow(&window);
    std::vector<bool> calls;
    bool allow = false;
    lifecycle.setTerminationHandler([&](bool mayCancel) {
        calls.push_back(mayCancel);
        return allow;
    });
    // "Keep Trying": the window stays and the app goes on.
    window.close();
    ASSERT_TRUE(test::waitUntil([&] { return calls.size() == 1; }));
    test::spin(50);
    EXPECT_TRUE(window.isVisible());
    EXPECT_TRUE(calls[0]) << "a quit asked for by the user may still be cancelled";

    // Allowed: the quit goes ahead, and the handler is not asked twice.
    allow = true;
    QTimer::singleShot(0, &window, &QWidget::close);
    QApplication::exec();
    EXPECT_EQ(calls.size(), 2u);
}

}  // namespace
}  // namespace mossly
