#include <gtest/gtest.h>

#include <QLineEdit>
#include <QPushButton>

#include "AppTestSupport.h"
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

}  // namespace
}  // namespace mossly
