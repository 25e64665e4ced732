#include <QDir>
#include <QLabel>
#include <QPushButton>
#include <QTextBrowser>

#include "EditorPane.h"
#include "Journey.h"
#include "MarkdownTextView.h"
#include "SyncConflictBanner.h"

namespace mossly::test {
namespace {

// Notes changed on two machines, as three sync engines leave them: each copy
// is shown above its note with the differences, and a click (or the keyboard)
// decides which text stays.
class SyncConflictJourney : public Journey {
protected:
    SyncConflictBanner* banner() const { return window().editorPane()->syncConflictBanner(); }
    QPushButton* button(const QString& text) const {
        for (QPushButton* candidate : banner()->findChildren<QPushButton*>()) {
            if (candidate->text() == text) return candidate;
        }
        return nullptr;
    }
    QString shownText() const { return window().editorPane()->markdownEditor()->toPlainText(); }
};

TEST_F(SyncConflictJourney, EachConflictIsResolvedAsChosen) {
    folder.write(QStringLiteral("Plan.md"), "# Plan\nBuy milk and bread today");
    folder.write(QStringLiteral("Plan.sync-conflict-20261124-093012-ABCDEFG.md"), "# Plan\nBuy oat milk and eggs today");
    folder.write(QStringLiteral("Trip.md"), "# Trip\nTrain at nine");
    folder.write(QStringLiteral("Trip (conflicted copy 2026-11-24 093012).md"), "# Trip\nTrain at ten");
    folder.write(QStringLiteral("List.md"), "# List\nmy list");
    folder.write(QStringLiteral("List (Ana's conflicted copy 2026-11-24).md"), "# List\nAna's list");
    launch();
    ASSERT_EQ(noteList().model()->rowCount(), 3) << "the copies are not notes of their own";

    // Keep Other: the note takes the other machine's words, the copy goes to the Trash.
    ASSERT_TRUE(clickRow(QStringLiteral("Plan")));
    ASSERT_TRUE(waitUntil([&] { return banner()->isVisible(); }));
    const QString diff = banner()->findChild<QTextBrowser*>()->toPlainText();
    EXPECT_TRUE(diff.contains(QStringLiteral("bread")) && diff.contains(QStringLiteral("oat"))) << diff.toStdString();
    EXPECT_TRUE(banner()->findChild<QLabel*>()->text().contains(QStringLiteral("Syncthing")));
    screenshot(QStringLiteral("sync-conflict-banner"), &window());
    QTest::mouseClick(button(QStringLiteral("Keep Other")), Qt::LeftButton);
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Plan.md")), QStringLiteral("# Plan\nBuy oat milk and eggs today"));
    EXPECT_FALSE(folder.exists(QStringLiteral("Plan.sync-conflict-20261124-093012-ABCDEFG.md")));
    EXPECT_TRUE(shownText().contains(QStringLiteral("oat milk")));
    EXPECT_FALSE(banner()->isVisible());

    // Keep This: the note stays as it is.
    ASSERT_TRUE(clickRow(QStringLiteral("Trip")));
    ASSERT_TRUE(waitUntil([&] { return banner()->isVisible(); }));
    EXPECT_TRUE(banner()->findChild<QLabel*>()->text().contains(QStringLiteral("Nextcloud")));
    QTest::mouseClick(button(QStringLiteral("Keep This")), Qt::LeftButton);
    EXPECT_EQ(bodyOnDisk(QStringLiteral("Trip.md")), QStringLiteral("# Trip\nTrain at nine"));
    EXPECT_FALSE(folder.exists(QStringLiteral("Trip (conflicted copy 2026-11-24 093012).md")));
    EXPECT_FALSE(banner()->isVisible());

    // Keep Both, from the keyboard: the other version becomes a conflict copy beside the note.
    ASSERT_TRUE(clickRow(QStringLiteral("List")));
    ASSERT_TRUE(waitUntil([&] { return banner()->isVisible(); }));
    auto* browser = banner()->findChild<QTextBrowser*>();
    QTest::mouseClick(browser->viewport(), Qt::LeftButton, {}, QPoint(10, 10));
    QPushButton* keepBoth = button(QStringLiteral("Keep Both"));
    for (int i = 0; i < 6 && focused() != keepBoth; ++i) press(Qt::Key_Tab);
    ASSERT_EQ(focused(), keepBoth);
    press(Qt::Key_Space);
    EXPECT_EQ(bodyOnDisk(QStringLiteral("List.md")), QStringLiteral("# List\nmy list"));
    const QStringList copies = QDir(folder.path()).entryList({QStringLiteral("List (Conflict *).md")}, QDir::Files);
    ASSERT_EQ(copies.size(), 1);
    EXPECT_EQ(bodyOnDisk(copies.front()), QStringLiteral("# List\nAna's list"));
    EXPECT_FALSE(folder.exists(QStringLiteral("List (Ana's conflicted copy 2026-11-24).md")));
    ASSERT_TRUE(waitUntil([&] { return noteList().model()->rowCount() == 4; }));
    bool listed = false;
    for (int row = 0; row < 4; ++row) {
        listed |= noteList().model()->index(row, 0).data().toString().startsWith(QStringLiteral("List (Conflict copy, "));
    }
    EXPECT_TRUE(listed) << "the kept version is listed as a conflict copy of List";
    screenshot(QStringLiteral("sync-conflict-resolved"), &window());
}

}  // namespace
}  // namespace mossly::test
