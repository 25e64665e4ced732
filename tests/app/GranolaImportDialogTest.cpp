#include <gtest/gtest.h>

#include <QFileInfo>
#include <QLineEdit>
#include <QPushButton>
#include <QTest>

#include "AppTestSupport.h"
#include "EditorPane.h"
#include "MarkdownTextView.h"
#include "FakeGranola.h"
#include "GranolaImportDialog.h"
#include "NoteStore.h"
#include "TestSupport.h"

namespace mossly {
namespace {

TEST(GranolaImportDialogTest, ImportsIntoTheLibraryAndAGranolaFolder) {
    test::FakeGranola granola;
    test::TestHttpServer server([&](const test::TestHttpServer::Request& request) { return granola.answer(request); });
    granola.add("not_a", "Budget review", "2026-11-20T10:00:00Z", "Travel over plan");
    test::TemporaryNotesFolder folder;
    NoteStore store(folder.path(), {.createsWelcomeNote = false, .loadsNotesSynchronously = true, .welcomeIconPng = {}});
    auto keys = std::make_shared<SessionKeyStore>();
    GranolaImportDialog dialog(store, keys, QStringLiteral("http://127.0.0.1:%1").arg(server.port()));
    std::optional<GranolaImportReport> report;
    QObject::connect(&dialog, &GranolaImportDialog::finished, [&](const GranolaImportReport& r) { report = r; });

    dialog.keyField()->setText(QStringLiteral("grn_wrong"));
    dialog.importButton()->click();
    ASSERT_TRUE(test::waitUntil([&] { return report.has_value(); }, 10000));
    EXPECT_TRUE(dialog.reportText().contains(GranolaError(GranolaError::Code::badKey).description()));
    EXPECT_TRUE(store.notes().empty());

    report.reset();
    dialog.keyField()->setText(QStringLiteral("grn_good"));
    dialog.importButton()->click();
    ASSERT_TRUE(test::waitUntil([&] { return report.has_value(); }, 10000));
    EXPECT_EQ(keys->key(), QStringLiteral("grn_good"));
    ASSERT_EQ(store.notes().size(), 1u);
    EXPECT_EQ(store.notes()[0].title, QStringLiteral("Budget review"));
    const auto folderId = store.folderOf(store.notes()[0].url);
    ASSERT_TRUE(folderId);
    const NoteFolder* team = store.folderMetadata().folder(*folderId);
    ASSERT_TRUE(team);
    EXPECT_EQ(team->name, QStringLiteral("Team"));
    EXPECT_EQ(team->sourceIdentifier, QStringLiteral("granola-folder:fol_1"));
    ASSERT_TRUE(team->parentID);
    EXPECT_EQ(store.folderMetadata().folder(*team->parentID)->sourceIdentifier, QStringLiteral("granola-root"));
    EXPECT_TRUE(dialog.reportText().startsWith(QStringLiteral("1 note(s) imported, 0 updated.")));
}

// A note open in the editor is re-imported with Granola's newer text: the
// editor shows it, and the next keystroke is saved on top of it, never the old
// text over the new file.
TEST(GranolaImportDialogTest, AReimportedNoteOpenInTheEditorShowsTheNewTextAndTypingKeepsIt) {
    test::FakeGranola granola;
    test::TestHttpServer server([&](const test::TestHttpServer::Request& request) { return granola.answer(request); });
    granola.add("not_a", "Budget review", "2026-11-20T10:00:00Z", "Travel over plan");
    test::TemporaryNotesFolder folder;
    NoteStore store(folder.path(), {.createsWelcomeNote = false, .loadsNotesSynchronously = true, .welcomeIconPng = {}});
    EditorPane pane(store);
    pane.resize(600, 400);
    pane.show();
    GranolaImportDialog dialog(store, std::make_shared<SessionKeyStore>(),
                               QStringLiteral("http://127.0.0.1:%1").arg(server.port()));
    std::optional<GranolaImportReport> report;
    QObject::connect(&dialog, &GranolaImportDialog::finished, [&](const GranolaImportReport& r) { report = r; });
    dialog.keyField()->setText(QStringLiteral("grn_good"));
    dialog.importButton()->click();
    ASSERT_TRUE(test::waitUntil([&] { return report.has_value(); }, 10000));
    ASSERT_EQ(store.notes().size(), 1u);
    const QString url = store.notes()[0].url;
    store.select(url);
    MarkdownTextView* editor = pane.markdownEditor();
    ASSERT_TRUE(editor->markdown().contains(QStringLiteral("Travel over plan")));

    granola.add("not_a", "Budget review", "2026-11-21T10:00:00Z", "Travel under plan after the new quotes");
    report.reset();
    dialog.importButton()->click();
    ASSERT_TRUE(test::waitUntil([&] { return report.has_value(); }, 10000));
    ASSERT_EQ(report->updated.size(), 1);
    EXPECT_TRUE(editor->markdown().contains(QStringLiteral("Travel under plan"))) << "the editor shows the new text";

    editor->setFocus();
    QTextCursor end = editor->textCursor();
    end.movePosition(QTextCursor::End);
    editor->setTextCursor(end);
    QTest::keyClicks(editor, QStringLiteral(" Agreed."));
    ASSERT_TRUE(store.flushPendingSaves());
    const QString onDisk = QString::fromUtf8(folder.read(QFileInfo(url).fileName()));
    EXPECT_TRUE(onDisk.contains(QStringLiteral("Travel under plan after the new quotes"))) << onDisk.toStdString();
    EXPECT_FALSE(onDisk.contains(QStringLiteral("Travel over plan"))) << onDisk.toStdString();
    EXPECT_TRUE(onDisk.contains(QStringLiteral("Agreed."))) << onDisk.toStdString();
}

}  // namespace
}  // namespace mossly
