#include <gtest/gtest.h>

#include <QBuffer>
#include <QDir>
#include <QProcess>
#include <QStandardPaths>

#include "AgentAccess.h"
#include "AgentCommand.h"
#include "AgentRun.h"
#include "TestSupport.h"

namespace mossly::agent {
namespace {

using Outcome = test::AgentOutcome;

Outcome run(const QStringList& arguments) { return test::runAgentCommand(arguments); }

// Help must work before anything is set up: agent access off, no notes folder.
class AgentHelpTest : public ::testing::Test {
protected:
    test::TemporaryNotesFolder folder;
    void SetUp() override { ASSERT_TRUE(AgentAccess::setEnabled(false)); }
    void TearDown() override { ASSERT_TRUE(AgentAccess::setEnabled(true)); }
};

TEST_F(AgentHelpTest, EverySubcommandAnswersHelpWithItsUsageAndDoesNothingElse) {
    ASSERT_FALSE(agentSubcommands().empty());
    for (const AgentSubcommand& command : agentSubcommands()) {
        const std::string name = command.name.toStdString();
        // Also with the arguments a real call would carry: help wins, nothing runs.
        for (const QStringList& arguments :
             {QStringList{command.name, "--help"}, QStringList{command.name, "-h"},
              QStringList{"help", command.name},
              QStringList{command.name, "--title", "x", "--agent", "a", "--help", "--notes-dir",
                          folder.path()}}) {
            const Outcome outcome = run(arguments);
            EXPECT_EQ(outcome.exitCode, success) << arguments.join(' ').toStdString();
            EXPECT_TRUE(outcome.err.isEmpty()) << name << ": " << outcome.err.toStdString();
            EXPECT_TRUE(outcome.out.startsWith(QStringLiteral("Usage: mossly-agent ") + command.name + u' '))
                << name;
            EXPECT_TRUE(outcome.out.contains(command.synopsis)) << name;
            EXPECT_TRUE(outcome.out.contains(QStringLiteral("Exit codes:"))) << name;
        }
    }
    EXPECT_TRUE(
        QDir(folder.path()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::Hidden).isEmpty());
}

TEST_F(AgentHelpTest, TheOverviewListsEveryCommandAndUnknownOnesAreUsageErrors) {
    for (const QStringList& arguments : {QStringList{"--help"}, QStringList{"help"}, QStringList{"-h"}}) {
        const Outcome overview = run(arguments);
        EXPECT_EQ(overview.exitCode, success);
        for (const AgentSubcommand& command : agentSubcommands()) {
            EXPECT_TRUE(overview.out.contains(QStringLiteral("\n  ") + command.name))
                << command.name.toStdString();
            EXPECT_TRUE(overview.out.contains(command.summary)) << command.name.toStdString();
        }
    }
    for (const QStringList& arguments :
         {QStringList{"help", "frobnicate"}, QStringList{"frobnicate", "--help"}}) {
        const Outcome unknown = run(arguments);
        EXPECT_EQ(unknown.exitCode, usageError);
        EXPECT_TRUE(unknown.out.isEmpty());
        EXPECT_TRUE(unknown.err.contains(QStringLiteral("Unknown command: frobnicate")));
    }
}

TEST_F(AgentHelpTest, HelpAfterADoubleDashIsAnArgumentAndAccessStillApplies) {
    const Outcome outcome = run({"read", "--", "--help", "--notes-dir", folder.path()});
    EXPECT_EQ(outcome.exitCode, failure);
    EXPECT_TRUE(outcome.out.isEmpty());
    EXPECT_TRUE(outcome.err.contains(QStringLiteral("Agent access to your notes is turned off")));
}

// Runs `script` with `commandLine` as the words being completed; returns what bash offers.
QStringList bashCompletions(const QString& script, const QStringList& words) {
    QProcess bash;
    QStringList quoted;
    for (const QString& word : words) quoted.append(u'\'' + word + u'\'');
    const QString program = script + QStringLiteral(
                                         "\nCOMP_WORDS=(%1); COMP_CWORD=%2; _mossly_agent; "
                                         "printf '%s\\n' \"${COMPREPLY[@]}\"\n")
                                         .arg(quoted.join(u' '))
                                         .arg(words.size() - 1);
    bash.start(QStringLiteral("bash"), {QStringLiteral("--norc"), QStringLiteral("-c"), program});
    bash.waitForFinished(10000);
    EXPECT_EQ(bash.exitCode(), 0) << bash.readAllStandardError().toStdString();
    return QString::fromUtf8(bash.readAllStandardOutput()).split(u'\n', Qt::SkipEmptyParts);
}

TEST_F(AgentHelpTest, BashCompletesEverySubcommandItsOptionsAndTheirValues) {
    const Outcome script = run({"completion", "bash"});
    ASSERT_EQ(script.exitCode, success);
    for (const AgentSubcommand& command : agentSubcommands()) {
        EXPECT_TRUE(
            bashCompletions(script.out, {"mossly-agent", command.name.left(3)}).contains(command.name))
            << command.name.toStdString();
        const QStringList options = bashCompletions(script.out, {"mossly-agent", command.name, "--"});
        for (const QString& option : subcommandOptions(command)) {
            EXPECT_TRUE(options.contains(option))
                << command.name.toStdString() << ' ' << option.toStdString();
        }
        EXPECT_TRUE(options.contains(QStringLiteral("--help")));
    }
    EXPECT_EQ(bashCompletions(script.out, {"mossly-agent", "create", "--type", ""}),
              (QStringList{"markdown", "html", "sketch"}));
    EXPECT_EQ(bashCompletions(script.out, {"mossly-agent", "access", ""}),
              (QStringList{"on", "off", "status"}));
    EXPECT_TRUE(bashCompletions(script.out, {"mossly-agent", "create", "--title", ""}).isEmpty());
    const QString folderPrefix = folder.path() + QStringLiteral("/su");
    QDir(folder.path()).mkdir(QStringLiteral("sub"));
    EXPECT_EQ(bashCompletions(script.out, {"mossly-agent", "list", "--notes-dir", folderPrefix}),
              QStringList{folder.path() + QStringLiteral("/sub")});
}

TEST_F(AgentHelpTest, ZshCompletionIsValidZshAndNamesEverySubcommand) {
    const Outcome script = run({"completion", "zsh"});
    ASSERT_EQ(script.exitCode, success);
    EXPECT_TRUE(script.out.startsWith(QStringLiteral("#compdef mossly-agent\n")));
    for (const AgentSubcommand& command : agentSubcommands()) {
        EXPECT_TRUE(script.out.contains(QStringLiteral("    (") + command.name + u')'))
            << command.name.toStdString();
    }
    const QString zsh = QStandardPaths::findExecutable(QStringLiteral("zsh"));
    ASSERT_FALSE(zsh.isEmpty()) << "zsh is installed by scripts/bootstrap";
    QProcess check;
    check.start(zsh, {QStringLiteral("-n"), QStringLiteral("-c"), script.out});
    check.waitForFinished(10000);
    EXPECT_EQ(check.exitCode(), 0) << check.readAllStandardError().toStdString();
    EXPECT_EQ(run({"completion", "fish"}).exitCode, usageError);
}

}  // namespace
}  // namespace mossly::agent
