#include <QFile>
#include <QStatusBar>
#include <QUrl>

#include "EditorPane.h"
#include "Journey.h"
#include "MarkdownTextView.h"
#include "NoteSearch.h"

namespace mossly::test {
namespace {

class DeepLinkJourney : public Journey {
protected:
    // `mossly LINK` while Mossly runs, as the desktop starts it when a link is clicked.
    int launchSecond(const QString& link) {
        QProcess second;
        second.start(QStringLiteral(MOSSLY_APP_PATH), {link});
        // This Mossly's event loop keeps going meanwhile: it is the one that answers.
        return waitUntil([&] { return second.state() == QProcess::NotRunning; }, 15000) ? second.exitCode()
                                                                                        : -1;
    }
    QString editorText() const { return window().editorPane()->markdownEditor()->toPlainText(); }
    QString statusMessage() const { return window().statusBar()->currentMessage(); }
};

// An agent printed a search result's openURL; clicking it opens the note in the Mossly already running.
TEST_F(DeepLinkJourney, ALinkAnAgentPrintedOpensTheNoteInTheRunningMossly) {
    folder.write(QStringLiteral("Projects/Q3 budget #2.md"), "# Q3 budget\nTravel is over plan.");
    spin(20);
    folder.write(QStringLiteral("Newer.md"), "# Newer\nsomething else");
    launch();
    ASSERT_TRUE(waitUntil([&] { return store().selection().has_value(); }));
    ASSERT_NE(store().selection(),
              QDir::cleanPath(folder.filePath(QStringLiteral("Projects/Q3 budget #2.md"))));

    const QString link = NoteSearch::openURL(QStringLiteral("Projects/Q3 budget #2.md"));
    EXPECT_EQ(link, QStringLiteral("mossly://note/Projects/Q3%20budget%20%232.md"));
    EXPECT_EQ(launchSecond(link), 0) << "the second launch hands the link over and ends";
    ASSERT_TRUE(waitUntil([&] {
        return store().selection() ==
               QDir::cleanPath(folder.filePath(QStringLiteral("Projects/Q3 budget #2.md")));
    }));
    ASSERT_TRUE(waitUntil([&] { return editorText().contains(QStringLiteral("Travel is over plan.")); }));
    EXPECT_TRUE(window().isVisible());
    screenshot(QStringLiteral("deep-link-opened"));

    // The desktop entry's %U hands files over as file:// URLs.
    EXPECT_EQ(launchSecond(QUrl::fromLocalFile(folder.filePath(QStringLiteral("Newer.md"))).toString()), 0);
    ASSERT_TRUE(waitUntil(
        [&] { return store().selection() == QDir::cleanPath(folder.filePath(QStringLiteral("Newer.md"))); }));
    ASSERT_TRUE(waitUntil([&] { return editorText().contains(QStringLiteral("something else")); }));
}

// Links are untrusted: one that leaves the notes folder, names no note, or is no note link at all
// only says so; nothing is opened, imported or written.
TEST_F(DeepLinkJourney, ABadLinkOnlyShowsAMessage) {
    folder.write(QStringLiteral("Diary.md"), "# Diary\nMonday");
    TemporaryNotesFolder elsewhere;
    elsewhere.write(QStringLiteral("Secret.md"), "# Secret");
    QFile::link(elsewhere.filePath(QStringLiteral("Secret.md")),
                folder.filePath(QStringLiteral("Linked.md")));
    launch();
    ASSERT_TRUE(waitUntil([&] { return store().selection().has_value(); }));
    const auto selected = store().selection();
    const QStringList before = noteFiles();

    const QString outside =
        QDir(folder.path()).relativeFilePath(elsewhere.filePath(QStringLiteral("Secret.md")));
    ASSERT_TRUE(outside.startsWith(u"../"));
    const struct {
        QString link;
        QString message;
    } bad[] = {
        {NoteSearch::openURL(outside), QStringLiteral("Invalid note identifier: ") + outside},
        {QStringLiteral("mossly://note/Missing.md"), QStringLiteral("No note exists at Missing.md")},
        {QStringLiteral("mossly://note/Linked.md"), QStringLiteral("No note exists at Linked.md")},
        {QStringLiteral("mossly://note/.notes-agent.lock"),
         QStringLiteral("Invalid note identifier: .notes-agent.lock")},
        {QStringLiteral("mossly://settings/reset"),
         QStringLiteral("\u201Cmossly://settings/reset\u201D is not a link to a note.")},
    };
    for (const auto& [link, message] : bad) {
        EXPECT_EQ(launchSecond(link), 0) << link.toStdString();
        ASSERT_TRUE(waitUntil([&] {
            return statusMessage() == QStringLiteral("Link not opened: ") + message;
        })) << statusMessage().toStdString();
        if (link.contains(u"Missing")) screenshot(QStringLiteral("deep-link-refused"));
        EXPECT_EQ(store().selection(), selected);
        EXPECT_EQ(editorText(), QStringLiteral("# Diary\nMonday"));
        window().statusBar()->clearMessage();
    }
    EXPECT_EQ(noteFiles(), before) << "nothing was imported or written";
    EXPECT_EQ(elsewhere.read(QStringLiteral("Secret.md")), "# Secret");
}

}  // namespace
}  // namespace mossly::test
