#include <gtest/gtest.h>

#include <QBuffer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "AgentAccess.h"
#include "AgentCommand.h"
#include "AgentRun.h"
#include "TestSupport.h"

namespace mossly::agent {
namespace {

using Outcome = test::AgentOutcome;

class HistoryCommandTest : public ::testing::Test {
protected:
    test::TemporaryNotesFolder folder;

    Outcome run(QStringList arguments) {
        arguments << QStringLiteral("--notes-dir") << folder.path();
        return test::runAgentCommand(arguments);
    }
    void TearDown() override { ASSERT_TRUE(AgentAccess::setEnabled(true)); }
};

TEST_F(HistoryCommandTest, HistoryReadAVersionAndRestoreIt) {
    const QJsonObject created = run({"create", "--title", "Plan", "--body", "mine", "--agent", "codex"}).json();
    const QString first = created["revision"].toString();
    const Outcome updated = run({"update", "Plan.md", "--expected-revision", first, "--body", "rewritten", "--agent", "claude"});
    ASSERT_EQ(updated.exitCode, success) << updated.err.toStdString();
    const QString second = updated.json()["revision"].toString();

    const Outcome history = run({"history", "Plan.md"});
    ASSERT_EQ(history.exitCode, success) << history.err.toStdString();
    EXPECT_TRUE(history.out.startsWith(QStringLiteral("{\"identifier\":\"Plan.md\",\"versions\":[{\"revision\":")))
        << "documented key order";
    const QJsonArray versions = history.json()["versions"].toArray();
    ASSERT_EQ(versions.size(), 2);
    EXPECT_EQ(versions[0]["revision"].toString(), second);
    EXPECT_EQ(versions[0]["editedBy"].toString(), QStringLiteral("agent:claude"));
    EXPECT_EQ(versions[1]["revision"].toString(), first);
    EXPECT_EQ(versions[1]["editedBy"].toString(), QStringLiteral("agent:codex"));
    EXPECT_GT(versions[1]["size"].toInteger(), 4);
    EXPECT_TRUE(versions[1]["savedAt"].toString().endsWith(u'Z'));

    const Outcome old = run({"read", "Plan.md", "--version", first});
    ASSERT_EQ(old.exitCode, success) << old.err.toStdString();
    EXPECT_EQ(old.json()["body"].toString(), QStringLiteral("mine"));
    EXPECT_EQ(old.json()["revision"].toString(), first);

    const Outcome stale = run({"restore", "Plan.md", "--version", first, "--expected-revision", first, "--agent", "claude"});
    EXPECT_EQ(stale.exitCode, failure);
    EXPECT_EQ(stale.err, QStringLiteral("The note changed after it was read. Fetch it again before editing.\n"));

    const Outcome restored = run({"restore", "Plan.md", "--version", first, "--expected-revision", second, "--agent", "claude"});
    ASSERT_EQ(restored.exitCode, success) << restored.err.toStdString();
    EXPECT_EQ(restored.json()["body"].toString(), QStringLiteral("mine"));
    EXPECT_EQ(restored.json()["lastEditedBy"].toString(), QStringLiteral("agent:claude"));
    EXPECT_EQ(run({"history", "Plan.md"}).json()["versions"].toArray().size(), 3);

    // A trashed note's history stays: its last text is the newest kept version.
    ASSERT_EQ(run({"trash", "Plan.md", "--agent", "claude"}).exitCode, success);
    const QJsonArray kept = run({"history", "Plan.md"}).json()["versions"].toArray();
    ASSERT_EQ(kept.size(), 3);
    EXPECT_EQ(kept[0]["revision"].toString(), restored.json()["revision"].toString());
    EXPECT_EQ(run({"read", "Plan.md", "--version", first}).json()["body"].toString(), QStringLiteral("mine"));
}

TEST_F(HistoryCommandTest, FailuresAndUsage) {
    EXPECT_EQ(run({"history", "Nothing.md"}).err, QStringLiteral("No note exists at Nothing.md\n"));
    run({"create", "--title", "Plan", "--body", "x", "--agent", "codex"});
    const Outcome unknown = run({"read", "Plan.md", "--version", QString(64, u'0')});
    EXPECT_EQ(unknown.exitCode, failure);
    EXPECT_TRUE(unknown.err.startsWith(QStringLiteral("No version 0000"))) << unknown.err.toStdString();
    EXPECT_EQ(run({"restore", "Plan.md", "--version", "x"}).exitCode, usageError) << "needs --expected-revision and --agent";
    EXPECT_EQ(run({"history"}).exitCode, usageError);
    ASSERT_TRUE(AgentAccess::setEnabled(false));
    EXPECT_EQ(run({"history", "Plan.md"}).err, Error::agentAccessOff().description() + u'\n');
}

}  // namespace
}  // namespace mossly::agent
