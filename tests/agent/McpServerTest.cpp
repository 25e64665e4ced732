#include <gtest/gtest.h>

#include <QBuffer>
#include <QDir>
#include <QJsonArray>
#include <QJsonObject>
#include <QJsonDocument>
#include <chrono>
#include <thread>

#include "AgentAccess.h"
#include "AgentCommand.h"
#include "McpServer.h"
#include "NoteDocument.h"
#include "TestSupport.h"

namespace mossly::agent {
namespace {

// One mossly-agent command in process: exit code, standard output, standard error.
struct Ran {
    int code;
    QString out;
    QString err;
    const QJsonObject json() const { return QJsonDocument::fromJson(out.toUtf8()).object(); }
};

Ran runCommand(const QStringList& arguments) {
    Ran ran{0, {}, {}};
    QTextStream outStream(&ran.out), errStream(&ran.err);
    QBuffer in;
    in.open(QIODevice::ReadOnly);
    AgentIo io{outStream, errStream, in};
    ran.code = runAgent(arguments, io);
    outStream.flush();
    errStream.flush();
    return ran;
}

// The protocol edges; the whole session runs against the official client in mcp-client.mjs.
class McpServerTest : public ::testing::Test {
protected:
    test::TemporaryNotesFolder folder;
    test::TemporaryNotesFolder caches;
    McpServer server{NoteRepository(folder.path()), {caches.filePath("catalog.sqlite"), std::nullopt}};

    QJsonObject request(int id, const QString& method, const QJsonObject& params = {}) {
        return *server.handle({{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", params}});
    }
    void TearDown() override { ASSERT_TRUE(AgentAccess::setEnabled(true)); }
};

TEST_F(McpServerTest, NegotiatesTheProtocolVersion) {
    for (const QString& version : McpServer::supportedProtocolVersions()) {
        EXPECT_EQ(request(1, "initialize", {{"protocolVersion", version}}).value("result")["protocolVersion"], version);
    }
    // A version we do not speak gets our newest; the client decides whether to go on.
    EXPECT_EQ(request(2, "initialize", {{"protocolVersion", "2099-01-01"}}).value("result")["protocolVersion"],
              McpServer::supportedProtocolVersions().front());
}

TEST_F(McpServerTest, ProtocolErrorsAreJsonRpcErrorsAndNotificationsGetNoAnswer) {
    EXPECT_EQ(request(1, "resources/subscribe").value("error")["code"], -32601);
    EXPECT_EQ(request(2, "tools/call", {{"name", "format_disk"}}).value("error")["code"], -32602);
    EXPECT_EQ(server.handle({{"id", 3}, {"method", "ping"}})->value("error")["code"], -32600) << "no jsonrpc";
    EXPECT_EQ(McpServer::parseError().value("error")["code"], -32700);
    EXPECT_FALSE(server.handle({{"jsonrpc", "2.0"}, {"method", "notifications/initialized"}}));
    EXPECT_FALSE(server.handle({{"jsonrpc", "2.0"}, {"id", 9}, {"result", QJsonObject{}}})) << "a stray response";
    // A request the client cancelled before we reached it is dropped.
    EXPECT_FALSE(server.handle({{"jsonrpc", "2.0"},
                                {"method", "notifications/cancelled"},
                                {"params", QJsonObject{{"requestId", 7}}}}));
    EXPECT_FALSE(server.handle({{"jsonrpc", "2.0"}, {"id", 7}, {"method", "ping"}}));
    EXPECT_TRUE(request(8, "ping").contains("result"));
}

// Syncthing renames its download over the note just after the agent's update:
// the agent is told, and its text is in a conflict copy.
TEST_F(McpServerTest, AnUpdateSyncthingReplacedIsAnErrorAndTheTextIsKept) {
    folder.write(QStringLiteral(".stfolder"), "");
    folder.write(QStringLiteral("Plan.md"), "first");
    std::jthread syncthing([&](std::stop_token stop) {
        while (!stop.stop_requested() && !folder.read(QStringLiteral("Plan.md")).contains("added by the agent")) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        if (!stop.stop_requested()) folder.write(QStringLiteral("Plan.md"), "first\nfrom the other machine");
    });
    const QJsonObject result =
        request(1, "tools/call",
                {{"name", "update_note"},
                 {"arguments", QJsonObject{{"identifier", "Plan.md"},
                                           {"expectedRevision", NoteDocument::revision(QByteArray("first"))},
                                           {"body", "first\nadded by the agent"}}}})
            .value("result")
            .toObject();
    syncthing.request_stop();
    EXPECT_TRUE(result.value("isError").toBool());
    const QStringList copies = QDir(folder.path()).entryList({QStringLiteral("Plan (Conflict *).md")}, QDir::Files);
    ASSERT_EQ(copies.size(), 1);
    EXPECT_TRUE(folder.read(copies.front()).contains("added by the agent"));
    EXPECT_TRUE(QJsonDocument(result).toJson().contains(copies.front().toUtf8()));
}

TEST_F(McpServerTest, ToolFailuresAreResultsTheAgentCanRead) {
    const auto call = [&](const QString& name, const QJsonObject& arguments) {
        return request(1, "tools/call", {{"name", name}, {"arguments", arguments}}).value("result").toObject();
    };
    EXPECT_TRUE(call("read_note", {{"identifier", "../etc/passwd"}}).value("isError").toBool());
    EXPECT_TRUE(call("update_note", {{"identifier", "a.md"}}).value("isError").toBool());
    EXPECT_TRUE(call("create_note", {{"title", "T"}, {"fields", QJsonObject{{"x", QJsonObject{}}}}}).value("isError").toBool());
    EXPECT_TRUE(call("list_notes", {{"cursor", "-3"}}).value("isError").toBool());
    const QJsonObject created = call("create_note", {{"title", "T"}, {"fields", QJsonObject{{"tags", QJsonArray{"a", "b"}}}}});
    ASSERT_FALSE(created.value("isError").toBool());
    EXPECT_TRUE(QString::fromUtf8(folder.read(QStringLiteral("T.md"))).contains(QStringLiteral("tags: [\"a\",\"b\"]")));

    // Turned off while the agent runs: every call says so and nothing is written.
    ASSERT_TRUE(AgentAccess::setEnabled(false));
    const QJsonObject refused = call("create_note", {{"title", "Sneaky"}});
    EXPECT_TRUE(refused.value("isError").toBool());
    EXPECT_EQ(refused.value("content")[0]["text"].toString(), Error::agentAccessOff().description());
    EXPECT_FALSE(folder.exists(QStringLiteral("Sneaky.md")));
}

TEST(AgentAccessTest, CommandsAreRefusedWhileAccessIsOff) {
    test::TemporaryNotesFolder folder;
    const Ran off = runCommand({"access", "off"});
    EXPECT_EQ(off.code, 0);
    EXPECT_EQ(off.out.trimmed(), QStringLiteral("{\"enabled\":false}"));
    const Ran refused = runCommand({"list", "--notes-dir", folder.path()});
    EXPECT_EQ(refused.code, 1);
    EXPECT_EQ(refused.err.trimmed(), Error::agentAccessOff().description());
    EXPECT_TRUE(refused.out.isEmpty());
    EXPECT_EQ(runCommand({"access", "maybe"}).code, 2);
    EXPECT_EQ(runCommand({"access", "on"}).code, 0);
    const Ran allowed = runCommand({"list", "--notes-dir", folder.path()});
    EXPECT_EQ(allowed.code, 0) << allowed.err.toStdString();
    // A record that cannot be read counts as off.
    QFile record(AgentAccess::recordPath());
    ASSERT_TRUE(record.open(QIODevice::WriteOnly));
    record.write("{broken");
    record.close();
    EXPECT_FALSE(AgentAccess::isEnabled());
    ASSERT_TRUE(AgentAccess::setEnabled(true));
}

}  // namespace
}  // namespace mossly::agent

namespace mossly::agent {
namespace {

TEST(AgentNotesFolderTest, ARelativeNotesFolderWorksForEveryCommand) {
    test::TemporaryNotesFolder folder;
    folder.write(QStringLiteral("sub/Plan.md"), "# Plan\nbudget");
    const QString previous = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(folder.filePath("sub")));
    const QString catalog = folder.filePath("catalog.sqlite");
    for (const QString& directory : {QStringLiteral(".."), QStringLiteral("../sub/..")}) {
        const Ran read = runCommand({"read", "sub/Plan.md", "--notes-dir", directory});
        EXPECT_EQ(read.code, 0) << read.err.toStdString();
        const Ran search = runCommand({"search", "budget", "--notes-dir", directory, "--catalog", catalog});
        EXPECT_EQ(search.code, 0) << search.err.toStdString();
        EXPECT_TRUE(search.out.contains(QStringLiteral("sub\\/Plan.md"))) << search.out.toStdString();
    }
    QDir::setCurrent(previous);
}

}  // namespace
}  // namespace mossly::agent

namespace mossly::agent {
namespace {

Ran runIn(const test::TemporaryNotesFolder& folder, QStringList arguments) {
    arguments << QStringLiteral("--notes-dir") << folder.path() << QStringLiteral("--catalog")
              << folder.filePath(".catalog.sqlite");
    return runCommand(arguments);
}

TEST(AgentFieldsTest, AnAgentSeesTheFieldsItSetAndUpdatingOneReplacesIt) {
    test::TemporaryNotesFolder folder;
    const Ran created = runIn(folder, {"create", "--title", "Plan", "--field", "status=draft", "--agent", "codex"});
    ASSERT_EQ(created.code, 0) << created.err.toStdString();
    EXPECT_EQ(created.json()["frontMatter"]["status"].toString(), QStringLiteral("draft"));
    const QString revision = created.json()["revision"].toString();
    const Ran updated = runIn(folder, {"update", "Plan.md", "--expected-revision", revision, "--field", "status=final",
                                       "--agent", "codex"});
    ASSERT_EQ(updated.code, 0) << updated.err.toStdString();
    EXPECT_EQ(QString::fromUtf8(folder.read(QStringLiteral("Plan.md"))).count(QStringLiteral("status:")), 1);
    EXPECT_EQ(runIn(folder, {"read", "Plan.md"}).json()["frontMatter"]["status"].toString(), QStringLiteral("final"));
}

TEST(AgentFieldsTest, ExcerptsCountCharactersNotCodeUnits) {
    test::TemporaryNotesFolder folder;
    QString emoji;
    for (int i = 0; i < 300; ++i) emoji += QString::fromUtf8("\U0001F600");
    folder.write(QStringLiteral("Smiles.md"), ("# Smiles\nsmile " + emoji).toUtf8());
    const Ran found = runIn(folder, {"search", "smile"});
    ASSERT_EQ(found.code, 0) << found.err.toStdString();
    const QString excerpt = found.json()["results"][0]["excerpt"].toString();
    EXPECT_FALSE(excerpt.contains(QChar::ReplacementCharacter));
    EXPECT_TRUE(excerpt.endsWith(QStringLiteral("…")));
    EXPECT_LE(excerpt.toUcs4().size(), 238);
    for (const QChar c : excerpt) EXPECT_FALSE(c.isSurrogate() && excerpt.toUcs4().contains(c.unicode()));
}

}  // namespace
}  // namespace mossly::agent
