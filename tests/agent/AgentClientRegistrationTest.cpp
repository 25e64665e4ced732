#include <gtest/gtest.h>

#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

#include "AgentClientRegistration.h"
#include "AgentCommandInstall.h"
#include "TestSupport.h"

namespace mossly {
namespace {

class AgentClientRegistrationTest : public ::testing::Test {
protected:
    test::TemporaryNotesFolder home;  // a fake home folder
    std::optional<QString> claudeProgram;
    QList<QStringList> ran;
    int programExit = 0;

    AgentClientRegistration clients() {
        AgentClientEnvironment environment;
        environment.home = home.path();
        environment.configHome = home.filePath(".config");
        environment.findProgram = [this](const QString&) { return claudeProgram; };
        environment.runProgram = [this](const QString&, const QStringList& arguments) {
            ran.append(arguments);
            return AgentClientEnvironment::ProgramResult{programExit, QStringLiteral("said by the fake")};
        };
        return {environment, QStringLiteral("/opt/mossly/bin/mossly-agent")};
    }
    const QJsonObject json(const QString& relative) { return QJsonDocument::fromJson(home.read(relative)).object(); }
};

TEST_F(AgentClientRegistrationTest, ClaudeDesktopKeepsEveryOtherSettingAndABackup) {
    const QString file = QStringLiteral(".config/Claude/claude_desktop_config.json");
    const QByteArray original = R"({"globalShortcut":"Ctrl+Space","mcpServers":{"files":{"command":"fs-server"}}})";
    home.write(file, original);
    ASSERT_TRUE(clients().registerClient(AgentClient::claudeDesktop));
    EXPECT_EQ(json(file)["globalShortcut"].toString(), QStringLiteral("Ctrl+Space"));
    EXPECT_EQ(json(file)["mcpServers"]["files"]["command"].toString(), QStringLiteral("fs-server"));
    EXPECT_EQ(json(file)["mcpServers"]["mossly"]["command"].toString(), QStringLiteral("/opt/mossly/bin/mossly-agent"));
    EXPECT_EQ(json(file)["mcpServers"]["mossly"]["args"][0].toString(), QStringLiteral("mcp"));
    EXPECT_EQ(home.read(file + ".mossly-backup"), original);
    EXPECT_EQ(clients().isRegistered(AgentClient::claudeDesktop).value(), true);

    ASSERT_TRUE(clients().unregisterClient(AgentClient::claudeDesktop));
    EXPECT_FALSE(json(file)["mcpServers"].toObject().contains("mossly"));
    EXPECT_EQ(json(file)["mcpServers"]["files"]["command"].toString(), QStringLiteral("fs-server"));
    EXPECT_EQ(clients().isRegistered(AgentClient::claudeDesktop).value(), false);

    // A file it cannot parse is left exactly as it is, with a message saying so.
    home.write(file, "{\"mcpServers\": {,}");
    auto refused = clients().registerClient(AgentClient::claudeDesktop);
    ASSERT_FALSE(refused);
    EXPECT_TRUE(refused.error().description().contains(QStringLiteral("left"))) << refused.error().description().toStdString();
    EXPECT_EQ(home.read(file), "{\"mcpServers\": {,}");
    EXPECT_FALSE(clients().isRegistered(AgentClient::claudeDesktop));
}

TEST_F(AgentClientRegistrationTest, CodexKeepsCommentsAndOtherTablesToTheLetter) {
    const QString file = QStringLiteral(".codex/config.toml");
    const QByteArray original = "# my model settings\nmodel = \"o4\"\n\n[mcp_servers.files]\n# the file server\n"
                                "command = \"fs-server\"\n\n[profiles.work]\nmodel = \"o3\"\n";
    home.write(file, original);
    ASSERT_TRUE(clients().registerClient(AgentClient::codex));
    const QByteArray once = home.read(file);
    EXPECT_TRUE(once.startsWith(original)) << once.toStdString();
    EXPECT_TRUE(once.endsWith("[mcp_servers.mossly]\ncommand = \"/opt/mossly/bin/mossly-agent\"\nargs = [\"mcp\"]\n"));
    EXPECT_EQ(clients().isRegistered(AgentClient::codex).value(), true);
    // Registering again replaces our table instead of adding a second one.
    ASSERT_TRUE(clients().registerClient(AgentClient::codex));
    EXPECT_EQ(home.read(file), once);

    ASSERT_TRUE(clients().unregisterClient(AgentClient::codex));
    EXPECT_EQ(home.read(file), original);
    EXPECT_EQ(clients().isRegistered(AgentClient::codex).value(), false);

    // Broken TOML, or our server defined in a form a line edit cannot change safely: refused, untouched.
    for (const QByteArray& untouchable : {QByteArray("model = \n[x"),
                                          QByteArray("mcp_servers = { mossly = { command = \"old\" } }\n")}) {
        home.write(file, untouchable);
        EXPECT_FALSE(clients().registerClient(AgentClient::codex));
        EXPECT_EQ(home.read(file), untouchable);
    }
}

TEST_F(AgentClientRegistrationTest, ClaudeCodeUsesItsOwnProgramWhenThereIsOne) {
    claudeProgram = QStringLiteral("/usr/bin/claude");
    ASSERT_TRUE(clients().registerClient(AgentClient::claudeCode));
    ASSERT_EQ(ran.size(), 2);
    EXPECT_EQ(ran[1], (QStringList{"mcp", "add", "--scope", "user", "mossly", "--", "/opt/mossly/bin/mossly-agent", "mcp"}));
    programExit = 1;
    auto failed = clients().registerClient(AgentClient::claudeCode);
    ASSERT_FALSE(failed);
    EXPECT_TRUE(failed.error().description().contains(QStringLiteral("said by the fake")));

    // Without it, its user file is edited like Claude Desktop's.
    claudeProgram.reset();
    home.write(QStringLiteral(".claude.json"), R"({"numStartups":12})");
    ASSERT_TRUE(clients().registerClient(AgentClient::claudeCode));
    EXPECT_EQ(json(QStringLiteral(".claude.json"))["numStartups"].toInt(), 12);
    EXPECT_EQ(json(QStringLiteral(".claude.json"))["mcpServers"]["mossly"]["type"].toString(), QStringLiteral("stdio"));
}

TEST_F(AgentClientRegistrationTest, InstallingTheCommandLinksItAndSaysWhetherItIsOnThePath) {
    const QString program = QStringLiteral("/bin/sh");  // any program will do
    auto installed = installAgentCommand(program, home.path(), QStringLiteral("/usr/bin:") + home.filePath(".local/bin"));
    ASSERT_TRUE(installed);
    EXPECT_TRUE(installed->folderOnPath);
    EXPECT_EQ(QFileInfo(installed->linkPath).symLinkTarget(), program);
    EXPECT_EQ(preferredAgentCommand(QStringLiteral("/elsewhere"), home.path()), installed->linkPath);
    EXPECT_FALSE(installAgentCommand(program, home.path(), QStringLiteral("/usr/bin"))->folderOnPath);
    // A real program of the user's at that place is never replaced.
    QFile::remove(installed->linkPath);
    home.write(QStringLiteral(".local/bin/mossly-agent"), "#!/bin/sh\n");
    EXPECT_FALSE(installAgentCommand(program, home.path(), {}));
    EXPECT_EQ(home.read(QStringLiteral(".local/bin/mossly-agent")), "#!/bin/sh\n");
}

}  // namespace
}  // namespace mossly
