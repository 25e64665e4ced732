#include <QLabel>
#include <QListWidget>
#include <QStatusBar>
#include <QPushButton>
#include <QSpinBox>
#include <QTabBar>
#include <QTabWidget>
#include <QTextBrowser>

#include "AgentChangeBanner.h"
#include "EditorPane.h"
#include <QDir>
#include "Journey.h"
#include "MarkdownTextView.h"
#include "NoteHistory.h"
#include "NoteHistoryWindow.h"
#include "NoteRepository.h"
#include "SettingsWindow.h"

namespace mossly::test {
namespace {

const NoteEditor claude = NoteEditor::agent(QStringLiteral("claude"));

class HistoryJourney : public Journey {
protected:
    AgentChangeBanner* banner() const { return window().findChild<AgentChangeBanner*>(); }
    MarkdownTextView* editor() const { return window().editorPane()->markdownEditor(); }
    // An agent writing the note from outside the app, through the repository as mossly-agent does.
    void agentWrites(const QString& identifier, const QString& body) const {
        const NoteRepository agent(folder.path());
        auto note = agent.read(identifier);
        ASSERT_TRUE(note);
        ASSERT_TRUE(agent.update(identifier, note->document.revision(), body, claude));
    }
    NoteHistoryWindow* historyWindow() const { return window().findChild<NoteHistoryWindow*>(); }
};

// An agent rewrites the open note: a banner says who, and Undo brings the user's words back.
TEST_F(HistoryJourney, AnAgentsEditIsUndoneFromTheBanner) {
    folder.write(QStringLiteral("Plan.md"), "# Plan\nmy own words");
    launch();
    QTest::mouseClick(editor()->viewport(), Qt::LeftButton, {}, QPoint(40, 20));
    press(Qt::Key_End, Qt::ControlModifier);
    type(QStringLiteral(" and more"));
    settle();
    ASSERT_EQ(bodyOnDisk(QStringLiteral("Plan.md")), QStringLiteral("# Plan\nmy own words and more"));

    agentWrites(QStringLiteral("Plan.md"), QStringLiteral("# Plan\nthe agent's rewrite"));
    ASSERT_TRUE(waitUntil([&] { return banner()->isVisible(); }, 10000));
    EXPECT_EQ(banner()->message()->text(), QStringLiteral("claude changed this note."));
    ASSERT_TRUE(waitUntil([&] { return editor()->toPlainText().contains(QStringLiteral("the agent's rewrite")); }));
    screenshot(QStringLiteral("history-agent-banner"), &window());

    // Show Changes opens the history on the version before the agent's edit.
    QTest::mouseClick(banner()->showChangesButton(), Qt::LeftButton);
    ASSERT_TRUE(waitUntil([&] { return historyWindow() && historyWindow()->isLoaded(); }));
    QListWidget* list = historyWindow()->versionList();
    ASSERT_GE(list->currentRow(), 1);
    EXPECT_TRUE(list->currentItem()->text().startsWith(QStringLiteral("You \u2014")));
    ASSERT_TRUE(waitUntil([&] { return historyWindow()->comparison()->toPlainText().contains(QStringLiteral("rewrite")); }));
    historyWindow()->close();
    ASSERT_TRUE(waitUntil([&] { return !historyWindow(); }));

    QTest::mouseClick(banner()->undoButton(), Qt::LeftButton);
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Plan.md")), QStringLiteral("# Plan\nmy own words and more"));
    ASSERT_TRUE(waitUntil([&] { return editor()->toPlainText().contains(QStringLiteral("my own words and more")); }));
    EXPECT_FALSE(banner()->isVisible());
    // The agent's text is not lost either: it is the newest kept version.
    auto versions = noteTimeline(NoteRepository(folder.path()), QStringLiteral("Plan.md"));
    ASSERT_TRUE(versions);
    ASSERT_GE(versions->size(), 2u);
    EXPECT_EQ((*versions)[1].editedBy, claude);
}

// Undo never writes over a change made after the one it undoes: it says so instead.
TEST_F(HistoryJourney, UndoRefusesWhenTheNoteChangedAgain) {
    folder.write(QStringLiteral("Plan.md"), "# Plan\nmine");
    launch();
    agentWrites(QStringLiteral("Plan.md"), QStringLiteral("# Plan\nfirst edit"));
    ASSERT_TRUE(waitUntil([&] { return banner()->isVisible(); }, 10000));
    agentWrites(QStringLiteral("Plan.md"), QStringLiteral("# Plan\nsecond edit"));
    QTest::mouseClick(banner()->undoButton(), Qt::LeftButton);  // before the app has seen the second edit
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Plan.md")), QStringLiteral("# Plan\nsecond edit"));
    EXPECT_TRUE(banner()->message()->text().startsWith(QStringLiteral("The note changed again since")));
    EXPECT_FALSE(banner()->undoButton()->isEnabled());
    screenshot(QStringLiteral("history-undo-refused"), &window());
}

// Show History lists who saved each version, compares one with the current text word by word, and restores it.
TEST_F(HistoryJourney, ShowHistoryComparesAndRestoresAVersion) {
    folder.write(QStringLiteral("Trip.md"), "# Trip\nfly to Lisbon on Monday");
    launch();
    agentWrites(QStringLiteral("Trip.md"), QStringLiteral("# Trip\nfly to Porto on Monday, then train"));
    ASSERT_TRUE(waitUntil([&] { return editor()->toPlainText().contains(QStringLiteral("Porto")); }, 10000));

    press(QKeySequence(QStringLiteral("Ctrl+Shift+H")));
    ASSERT_TRUE(waitUntil([&] { return historyWindow() && historyWindow()->isLoaded(); }));
    NoteHistoryWindow* history = historyWindow();
    QListWidget* list = history->versionList();
    ASSERT_EQ(list->count(), 2);
    EXPECT_TRUE(list->item(0)->text().startsWith(QStringLiteral("Current text \u2014 claude")));
    EXPECT_TRUE(list->item(1)->text().startsWith(QStringLiteral("You \u2014")));
    QTest::mouseClick(list->viewport(), Qt::LeftButton, {}, list->visualItemRect(list->item(1)).center());
    ASSERT_TRUE(waitUntil([&] { return history->comparison()->toHtml().contains(QStringLiteral("line-through")); }));
    const QString shown = history->comparison()->toPlainText();
    EXPECT_TRUE(shown.contains(QStringLiteral("Lisbon")) && shown.contains(QStringLiteral("Porto"))) << shown.toStdString();
    screenshot(QStringLiteral("history-window"), history);

    QTest::mouseClick(history->restoreButton(), Qt::LeftButton);
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Trip.md")), QStringLiteral("# Trip\nfly to Lisbon on Monday"));
    ASSERT_TRUE(waitUntil([&] { return editor()->toPlainText().contains(QStringLiteral("Lisbon")); }));
    ASSERT_TRUE(waitUntil([&] { return history->isLoaded() && list->count() == 3; }));
    EXPECT_TRUE(history->status()->text().startsWith(QStringLiteral("Restored")));
    history->close();
}

// A history that cannot be written costs no save: the words are on disk and the status bar says so, once.
TEST_F(HistoryJourney, AHistoryThatCannotBeWrittenCostsNoSaveAndIsToldOnce) {
    folder.write(QStringLiteral("Diary.md"), "# Diary\nMonday");
    // Where the history's file should be, a folder: SQLite cannot open it.
    ASSERT_TRUE(QDir().mkpath(NoteHistory::defaultPath(folder.path())));
    launch();
    QStringList shown;
    QObject::connect(window().statusBar(), &QStatusBar::messageChanged, window().statusBar(),
                     [&](const QString& message) { if (!message.isEmpty()) shown.append(message); });
    QTest::mouseClick(editor()->viewport(), Qt::LeftButton, {}, QPoint(40, 20));
    press(Qt::Key_End, Qt::ControlModifier);
    type(QStringLiteral(", rain"));
    settle();
    agentWrites(QStringLiteral("Diary.md"), QStringLiteral("# Diary\nMonday, rain. Sunny later."));
    ASSERT_TRUE(waitUntil([&] { return editor()->toPlainText().contains(QStringLiteral("Sunny")); }, 10000));
    ASSERT_TRUE(waitUntil([&] { return banner()->isVisible(); }));
    press(Qt::Key_End, Qt::ControlModifier);
    type(QStringLiteral(" Or not."));
    settle();
    EXPECT_FALSE(banner()->isVisible()) << "typing in the note ends the offer to undo the agent's edit";
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Diary.md")), QStringLiteral("# Diary\nMonday, rain. Sunny later. Or not."));
    ASSERT_TRUE(waitUntil([&] { return !shown.isEmpty(); }));
    screenshot(QStringLiteral("history-unavailable"), &window());
    EXPECT_EQ(shown.filter(NoteHistory::failedNoticePrefix).size(), 1) << shown.join(u'|').toStdString();
}

// Settings ▸ History sets how long versions are kept; every process writing the library follows it.
TEST_F(HistoryJourney, SettingsSetHowLongVersionsAreKept) {
    folder.write(QStringLiteral("Plan.md"), "# Plan\nwords");
    launch();
    press(QKeySequence(QStringLiteral("Ctrl+,")));
    SettingsWindow* settings = nullptr;
    ASSERT_TRUE(waitUntil([&] { return (settings = window().findChild<SettingsWindow*>()) != nullptr; }));
    auto* tabs = settings->findChild<QTabWidget*>(QStringLiteral("settingsTabs"));
    int historyTab = -1;
    for (int i = 0; i < tabs->count(); ++i) {
        if (tabs->tabText(i) == QStringLiteral("History")) historyTab = i;
    }
    ASSERT_GE(historyTab, 0);
    QTest::mouseClick(tabs->tabBar(), Qt::LeftButton, {}, tabs->tabBar()->tabRect(historyTab).center());
    auto* days = settings->findChild<QSpinBox*>(QStringLiteral("historyDays"));
    ASSERT_TRUE(waitUntil([&] { return days->isEnabled() && days->value() == NoteHistoryRetention::defaultMaximumAgeDays; }));
    QTest::mouseClick(days, Qt::LeftButton, {}, QPoint(10, days->height() / 2));
    press(QKeySequence::SelectAll);
    type(QStringLiteral("30"));
    press(Qt::Key_Return);
    const auto history = NoteRepository(folder.path()).history();
    ASSERT_TRUE(waitUntil([&] { return history->retention() && history->retention()->maximumAgeDays == 30; }));
    screenshot(QStringLiteral("history-settings"), settings);
    settings->close();
}

}  // namespace
}  // namespace mossly::test
