#include <QLineEdit>
#include <QMenuBar>
#include <QPlainTextEdit>
#include <QSettings>

#include "FakeGranola.h"
#include "GranolaImportDialog.h"
#include "Journey.h"

namespace mossly::test {
namespace {

using GranolaJourney = Journey;

// File ▸ Import from Granola…, the key typed in, Return: the meetings become
// notes on disk, through libcurl loaded when the import first runs.
TEST_F(GranolaJourney, ImportingMeetingsFromTheFileMenu) {
    FakeGranola granola;
    TestHttpServer server([&](const TestHttpServer::Request& request) { return granola.answer(request); });
    granola.add("not_a", "Budget review", "2026-11-20T10:00:00Z", "Travel over plan");
    QSettings().setValue(QStringLiteral("import.granola.baseURL"), QStringLiteral("http://127.0.0.1:%1").arg(server.port()));
    folder.write(QStringLiteral("Diary.md"), "# Diary\nMonday");
    launch();

    QMenuBar* bar = window().menuBar();
    QAction* fileMenu = nullptr;
    for (QAction* action : bar->actions()) {
        if (action->text() == QStringLiteral("&File")) fileMenu = action;
    }
    ASSERT_TRUE(fileMenu);
    whenShown([] { return chooseMenuItem(QStringLiteral("Import from Granola…")); });
    QTest::mouseClick(bar, Qt::LeftButton, {}, bar->actionGeometry(fileMenu).center());
    GranolaImportDialog* dialog = nullptr;
    ASSERT_TRUE(waitUntil([&] {
        dialog = window().findChild<GranolaImportDialog*>();
        return dialog && dialog->isVisible();
    }));
    dialog->activateWindow();
    QTest::mouseClick(dialog->keyField(), Qt::LeftButton);
    ASSERT_TRUE(waitUntil([&] { return QApplication::focusWidget() == dialog->keyField(); }));
    type(QStringLiteral("grn_good"));
    press(Qt::Key_Return);

    ASSERT_TRUE(waitUntil([&] { return dialog->reportText().startsWith(QStringLiteral("1 note(s) imported")); }, 20000))
        << dialog->reportText().toStdString();
    const QStringList files = noteFiles();
    EXPECT_EQ(files.size(), 2) << files.join(u' ').toStdString();
    bool imported = false;
    for (const QString& file : files) imported = imported || bodyOnDisk(file).contains(QStringLiteral("Travel over plan"));
    EXPECT_TRUE(imported);
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Diary.md")), QStringLiteral("# Diary\nMonday"));
    screenshot(QStringLiteral("granola-imported"), dialog);
    // The app then closes with the dialog still open (the fixture's end): that once crashed.
}

}  // namespace
}  // namespace mossly::test
