#include <gtest/gtest.h>

#include <QBuffer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "AgentCommand.h"
#include "AgentRun.h"
#include "McpServer.h"
#include "TestSupport.h"

namespace mossly::agent {
namespace {

// Notes synchronised by a sync engine, as mossly-agent sees them.
class SyncConflictCommandTest : public ::testing::Test {
protected:
    test::TemporaryNotesFolder folder;
    test::TemporaryNotesFolder caches;

    QJsonObject run(QStringList arguments, int expectedExit = success) {
        arguments << QStringLiteral("--notes-dir") << folder.path() << QStringLiteral("--catalog")
                  << caches.filePath("catalog.sqlite");
        const test::AgentOutcome outcome = test::runAgentCommand(arguments);
        EXPECT_EQ(outcome.exitCode, expectedExit);
        EXPECT_TRUE(outcome.err.isEmpty()) << outcome.err.toStdString();
        return outcome.json();
    }
};

TEST_F(SyncConflictCommandTest, ListAndReadSayWhichNoteACopyBelongsTo) {
    folder.write(QStringLiteral("Plan.md"), "mine");
    folder.write(QStringLiteral("Plan.sync-conflict-20261124-093012-ABCDEFG.md"), "theirs");
    folder.write(QStringLiteral("Gone (conflicted copy 2026-11-24 093012).md"), "its note is gone");

    QHash<QString, QJsonObject> listed;
    for (const QJsonValue& note : run({"list"})["notes"].toArray()) {
        listed.insert(note.toObject()["identifier"].toString(), note.toObject());
    }
    ASSERT_EQ(listed.size(), 3);
    EXPECT_FALSE(listed["Plan.md"].contains(u"conflictOf"));
    EXPECT_EQ(listed["Plan.sync-conflict-20261124-093012-ABCDEFG.md"]["conflictOf"].toString(), QStringLiteral("Plan.md"));
    EXPECT_EQ(listed["Plan.sync-conflict-20261124-093012-ABCDEFG.md"]["syncEngine"].toString(), QStringLiteral("Syncthing"));
    EXPECT_FALSE(listed["Gone (conflicted copy 2026-11-24 093012).md"].contains(u"conflictOf"))
        << "a copy whose note is gone is a note of its own";

    const QJsonObject copy = run({"read", "Plan.sync-conflict-20261124-093012-ABCDEFG.md"});
    EXPECT_EQ(copy["body"].toString(), QStringLiteral("theirs"));
    EXPECT_EQ(copy["conflictOf"].toString(), QStringLiteral("Plan.md"));
    EXPECT_FALSE(run({"read", "Plan.md"}).contains(u"conflictOf"));
    EXPECT_FALSE(run({"read", "Gone (conflicted copy 2026-11-24 093012).md"}).contains(u"conflictOf"));
}

TEST_F(SyncConflictCommandTest, TheMcpToolsMarkCopiesToo) {
    folder.write(QStringLiteral("Plan.md"), "mine");
    folder.write(QStringLiteral("Plan (conflicted copy 2026-11-24 093012).md"), "theirs");
    McpServer server{NoteRepository(folder.path()), {caches.filePath("catalog.sqlite"), std::nullopt}};
    const auto call = [&](const QString& name, const QJsonObject& arguments) {
        return server.handle({{"jsonrpc", "2.0"}, {"id", 1}, {"method", "tools/call"},
                              {"params", QJsonObject{{"name", name}, {"arguments", arguments}}}})
            ->value("result")["structuredContent"]
            .toObject();
    };
    QStringList marked;
    for (const QJsonValue& note : call("list_notes", {})["notes"].toArray()) {
        if (note["conflictOf"].toString() == QStringLiteral("Plan.md")) marked.append(note["identifier"].toString());
    }
    EXPECT_EQ(marked, QStringList{QStringLiteral("Plan (conflicted copy 2026-11-24 093012).md")});
    const QJsonObject copy = call("read_note", {{"identifier", "Plan (conflicted copy 2026-11-24 093012).md"}});
    EXPECT_EQ(copy["conflictOf"].toString(), QStringLiteral("Plan.md"));
    EXPECT_EQ(copy["syncEngine"].toString(), QStringLiteral("Nextcloud"));
}

TEST_F(SyncConflictCommandTest, InASyncthingFolderTheLockIsKeptOffTheOtherMachines) {
    folder.write(QStringLiteral(".stfolder"), "");
    folder.write(QStringLiteral(".stignore"), "// the user's own\n*.bak\n");
    run({"create", "--title", "Plan", "--body", "x", "--agent", "codex"});
    const QString ignores = QString::fromUtf8(folder.read(QStringLiteral(".stignore")));
    EXPECT_TRUE(ignores.startsWith(QStringLiteral("// the user's own\n*.bak\n")));
    EXPECT_TRUE(ignores.contains(QStringLiteral("(?d)/.notes-agent.lock\n")));
    EXPECT_TRUE(ignores.contains(QStringLiteral("(?d)/.mossly-search.sqlite\n")));
}

}  // namespace
}  // namespace mossly::agent
