#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QDir>
#include <QMenuBar>
#include <QProcess>
#include <QCheckBox>
#include <QLabel>
#include <QPushButton>
#include <QTest>

#include "AppTestSupport.h"
#include "EditorPane.h"
#include "MainWindow.h"
#include "MarkdownTextView.h"
#include "NoteStore.h"
#include "NoteWindow.h"
#include "PlainNoteEditor.h"
#include "SettingsWindow.h"
#include "AgentAccess.h"
#include "QuitFlow.h"
#include "TestSupport.h"
#include "TextChangeMapping.h"
#include "WelcomeNote.h"

namespace mossly {
namespace {

using namespace std::chrono_literals;

TEST(TextChangeMapping, PositionsFollowTheirWords) {
    const QString before = QStringLiteral("alpha beta gamma");
    // Insertion before the position moves it; after it leaves it.
    EXPECT_EQ(mapPositionThroughChange(before, QStringLiteral("new alpha beta gamma"), 6), 10);
    EXPECT_EQ(mapPositionThroughChange(before, QStringLiteral("alpha beta gamma!"), 6), 6);
    // Deletion before it.
    EXPECT_EQ(mapPositionThroughChange(before, QStringLiteral("beta gamma"), 11), 5);
    // Inside a replaced stretch: stays within the replacement.
    EXPECT_EQ(mapPositionThroughChange(before, QStringLiteral("alpha B gamma"), 8), 7);
    // Repeated letters at the seam: the prefix and suffix never overlap.
    EXPECT_EQ(mapPositionThroughChange(QStringLiteral("aaa"), QStringLiteral("aaaa"), 3), 3);
    EXPECT_EQ(mapPositionThroughChange(QStringLiteral("aaaa"), QStringLiteral("aa"), 4), 2);
    EXPECT_EQ(mapPositionThroughChange(before, before, 99), before.size());
}

class EditorSyncTest : public ::testing::Test {
protected:
    test::TemporaryNotesFolder folder;
    std::unique_ptr<NoteStore> store;
    std::unique_ptr<MainWindow> window;

    void open(NoteStore::Options options = {.createsWelcomeNote = false, .loadsNotesSynchronously = true,
                                            .welcomeIconPng = {}}) {
        store = std::make_unique<NoteStore>(folder.path(), options);
        window = std::make_unique<MainWindow>(*store);
        window->show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(window.get()));
    }
    QString url(const QString& identifier) const { return QDir::cleanPath(folder.filePath(identifier)); }
    QString bodyOnDisk(const QString& identifier) const {
        return NoteDocument(QString::fromUtf8(folder.read(identifier)), NoteContentType::markdown).body;
    }
};

TEST_F(EditorSyncTest, TypingIntoTheWelcomeNoteKeepsItsIcon) {
    open({.createsWelcomeNote = true, .loadsNotesSynchronously = false, .welcomeIconPng = QByteArray("\x89PNG icon")});
    store->loadInitialNotes();
    ASSERT_TRUE(test::waitUntil([&] { return !store->isLoadingInitialNotes() && store->selection(); }));
    MarkdownTextView* editor = window->editorPane()->markdownEditor();
    ASSERT_TRUE(test::waitUntil([&] { return editor->markdown().contains(QStringLiteral("![Mossly icon](")); }));
    editor->setFocus();
    QTextCursor end = editor->textCursor();
    end.movePosition(QTextCursor::End);
    editor->setTextCursor(end);
    QTest::keyClicks(editor, QStringLiteral("x"));
    ASSERT_TRUE(store->flushPendingSaves());
    const QString text = bodyOnDisk(QStringLiteral("Welcome to Mossly.md"));
    EXPECT_TRUE(text.contains(QStringLiteral("![Mossly icon](Welcome%20to%20Mossly.assets/Mossly%20Icon.png)")))
        << text.toStdString();
    EXPECT_TRUE(text.endsWith(QStringLiteral("x"))) << text.toStdString();
    EXPECT_TRUE(text.contains(QString::fromLatin1(manualAddress)));
    EXPECT_TRUE(QString::fromLatin1(manualAddress).startsWith(QStringLiteral("https://")));
}

TEST_F(EditorSyncTest, AnOutsideChangeKeepsTheCaretOnItsWords) {
    QByteArray text = "# Long note\n";
    for (int line = 0; line < 80; ++line) text += "line " + QByteArray::number(line) + "\n";
    text += "the target word\n";
    folder.write(QStringLiteral("long.md"), text);
    open();
    store->select(url("long.md"));
    MarkdownTextView* editor = window->editorPane()->markdownEditor();
    QTextCursor cursor = editor->textCursor();
    cursor.setPosition(static_cast<int>(editor->markdown().indexOf(QStringLiteral("target"))));
    editor->setTextCursor(cursor);
    editor->ensureCursorVisible();
    const int caretTop = editor->cursorRect().top();

    // An agent adds a paragraph at the top.
    folder.write(QStringLiteral("long.md"), "# Long note\nAn agent's new first paragraph.\n\n" + text.mid(12));
    ASSERT_TRUE(test::waitUntil([&] { return editor->markdown().contains(QStringLiteral("agent's")); }));
    const QString shown = editor->markdown();
    EXPECT_EQ(editor->textCursor().position(), shown.indexOf(QStringLiteral("target")));
    EXPECT_NEAR(editor->cursorRect().top(), caretTop, 4) << "the view jumped";
}

TEST_F(EditorSyncTest, TwoWindowsOnOneNoteStayInStep) {
    folder.write(QStringLiteral("shared.md"), "# Shared\n");
    open();
    store->select(url("shared.md"));
    NoteWindow* noteWindow = window->openNoteWindow(url("shared.md"));
    ASSERT_TRUE(noteWindow);
    EXPECT_EQ(window->openNoteWindow(url("shared.md")), noteWindow) << "one window per note";
    MarkdownTextView* inWindow = noteWindow->editorPane()->markdownEditor();
    MarkdownTextView* inLibrary = window->editorPane()->markdownEditor();
    test::DiagnosticsRecorder recorder;

    QTextCursor end = inWindow->textCursor();
    end.movePosition(QTextCursor::End);
    inWindow->setTextCursor(end);
    QTest::keyClicks(inWindow, QStringLiteral("typed in the window"));
    EXPECT_EQ(inLibrary->markdown(), QStringLiteral("# Shared\ntyped in the window"));
    end = inLibrary->textCursor();
    end.movePosition(QTextCursor::End);
    inLibrary->setTextCursor(end);
    QTest::keyClicks(inLibrary, QStringLiteral(", and here"));
    EXPECT_EQ(inWindow->markdown(), QStringLiteral("# Shared\ntyped in the window, and here"));

    ASSERT_TRUE(test::waitUntil([&] { return recorder.count(QStringLiteral("Note save committed")) == 1; }));
    EXPECT_EQ(bodyOnDisk(QStringLiteral("shared.md")), QStringLiteral("# Shared\ntyped in the window, and here"));
    QPointer<NoteWindow> closing(noteWindow);
    store->deleteNotes({url("shared.md")});
    ASSERT_TRUE(test::waitUntil([&] { return closing.isNull(); })) << "the window of a trashed note closes";
}

TEST_F(EditorSyncTest, NotesThatCannotBeReadAreListedNotSilentlyMissing) {
    folder.write(QStringLiteral("fine.md"), "# Fine");
    folder.write(QStringLiteral("latin1.md"), "caf\xe9");
    open();
    ASSERT_EQ(store->unreadableNotes().size(), 1u);
    EXPECT_EQ(store->unreadableNotes()[0].identifier, QStringLiteral("latin1.md"));
    EXPECT_EQ(store->unreadableNotes()[0].reason, Error::invalidEncoding(QStringLiteral("latin1.md")).description());
    QPushButton* notice = window->unreadableNotesNotice();
    EXPECT_TRUE(notice->isVisible());
    EXPECT_EQ(notice->text(), QStringLiteral("1 note(s) could not be opened"));

    // Another one goes bad while Mossly runs; then the user fixes both.
    test::spin(300);
    folder.write(QStringLiteral("fine.md"), "\xff\xfe broken");
    ASSERT_TRUE(test::waitUntil([&] { return store->unreadableNotes().size() == 2; }));
    EXPECT_EQ(folder.read(QStringLiteral("fine.md")), "\xff\xfe broken") << "never rewritten";
    folder.write(QStringLiteral("fine.md"), "# Fine again");
    folder.write(QStringLiteral("latin1.md"), "caf\xc3\xa9");
    ASSERT_TRUE(test::waitUntil([&] { return store->unreadableNotes().empty(); }));
    EXPECT_FALSE(notice->isVisible());
    EXPECT_TRUE(store->note(url("latin1.md")));
}

TEST_F(EditorSyncTest, SettingsTurnAgentAccessOnAndRegisterAClient) {
    open();
    QAction* settings = test::findAction(*window, QStringLiteral("Settings…"));
    ASSERT_TRUE(settings);
    EXPECT_EQ(settings->shortcut(), QKeySequence(QStringLiteral("Ctrl+,")));
    ASSERT_TRUE(AgentAccess::setEnabled(false));
    settings->trigger();
    auto* dialog = window->findChild<SettingsWindow*>();
    ASSERT_TRUE(dialog);
    EXPECT_FALSE(dialog->accessSwitch()->isChecked());
    dialog->accessSwitch()->click();
    EXPECT_TRUE(AgentAccess::isEnabled());
    auto* registerCodex = dialog->findChild<QPushButton*>(QStringLiteral("register-codex"));
    ASSERT_TRUE(registerCodex);
    registerCodex->click();
    const QString config = QDir::homePath() + QStringLiteral("/.codex/config.toml");
    QFile file(config);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly)) << "the test's own home folder, not the user's";
    EXPECT_TRUE(file.readAll().contains("[mcp_servers.mossly]"));
    EXPECT_EQ(dialog->findChild<QLabel*>(QStringLiteral("status-codex"))->text(), QStringLiteral("Registered"));
    QFile::remove(config);
    dialog->close();
}

// The list was read while the file was fine; by the time it is opened it no longer reads as text.
TEST_F(EditorSyncTest, ANoteThatCannotBeReadOpensNoEditorToTypeInto) {
    folder.write(QStringLiteral("b.md"), "# B\nfine");
    test::spin(20);
    folder.write(QStringLiteral("a.md"), "# A\nfine");  // the newest, opened first; b is never opened
    open();
    store->select(url("a.md"));
    folder.write(QStringLiteral("b.md"), "caf\xe9 gone bad");
    store->select(url("b.md"));
    EXPECT_EQ(window->editorPane()->currentEditor(), nullptr);
    EXPECT_TRUE(window->editorPane()->noteUrl().isEmpty());
    store->setBody(url("b.md"), QStringLiteral("typed into nothing"));
    EXPECT_FALSE(store->hasPendingSaves());
    EXPECT_EQ(folder.read(QStringLiteral("b.md")), "caf\xe9 gone bad");
}

TEST_F(EditorSyncTest, CheckForUpdatesIsThereButDisabled) {
    open();
    QAction* updates = test::findAction(*window, QStringLiteral("Check for Updates…"));
    ASSERT_TRUE(updates);
    EXPECT_FALSE(updates->isEnabled());
}

// The reported case: another process holds the library lock, the user types and quits.
TEST_F(EditorSyncTest, QuittingWhileAnotherProcessHoldsTheLockAsksInsteadOfLosingTheWord) {
    folder.write(QStringLiteral("a.md"), "# A\n");
    open();
    store->select(url("a.md"));
    QProcess holder;
    // --no-fork: the process that holds the lock is the one we kill.
    holder.start(QStringLiteral("flock"), {QStringLiteral("--no-fork"), QStringLiteral("-x"), folder.filePath(".notes-agent.lock"),
                                           QStringLiteral("sleep"), QStringLiteral("30")});
    ASSERT_TRUE(holder.waitForStarted());
    test::spin(200);
    MarkdownTextView* editor = window->editorPane()->markdownEditor();
    QTextCursor end = editor->textCursor();
    end.movePosition(QTextCursor::End);
    editor->setTextCursor(end);
    QTest::keyClicks(editor, QStringLiteral("word"));

    int asked = 0;
    test::TemporaryNotesFolder rescue;
    QuitPrompts prompts;
    prompts.askAboutUnsaved = [&](const QuitPreparation& preparation, bool) {
        ++asked;
        EXPECT_EQ(preparation.unsaved.size(), 1u);
        EXPECT_EQ(preparation.unsaved.at(0).reason, Error::busy().description());
        return UnsavedQuitChoice::saveElsewhere;
    };
    prompts.chooseFolder = [&] { return rescue.path(); };
    prompts.showError = [](const QString& message) { ADD_FAILURE() << message.toStdString(); };
    EXPECT_TRUE(finishWorkBeforeQuit(*store, prompts, true, 500ms));
    EXPECT_EQ(asked, 1);
    EXPECT_TRUE(rescue.read(QStringLiteral("a.md")).endsWith("# A\nword"));

    // Once the other writer lets go, the word reaches the note too.
    holder.kill();
    holder.waitForFinished();
    ASSERT_TRUE(store->flushPendingSaves(2s));
    EXPECT_EQ(bodyOnDisk(QStringLiteral("a.md")), QStringLiteral("# A\nword"));
}

}  // namespace
}  // namespace mossly
