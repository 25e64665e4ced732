#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

#include "AgentClientRegistration.h"
#include "AgentCommand.h"
#include "AgentCommandInstall.h"
#include "JsonWriter.h"

namespace mossly::agent {

namespace {

AgentClientRegistration registration() {
    const QString program = QCoreApplication::applicationFilePath();
    return {AgentClientEnvironment::system(), preferredAgentCommand(program, QDir::homePath())};
}

QString statusJson(const AgentClientRegistration& clients, AgentClient client) {
    const auto registered = clients.isRegistered(client);
    JsonObjectWriter json;
    json.add(QStringLiteral("client"), agentClientName(client))
        .add(QStringLiteral("location"), clients.location(client));
    if (registered) {
        json.add(QStringLiteral("registered"), *registered);
    } else {
        json.add(QStringLiteral("error"), registered.error().description());
    }
    return json.text();
}

}  // namespace

// "mossly-agent register|unregister CLIENT" and "mossly-agent clients".
int runRegister(const QStringList& arguments, AgentIo& io, bool add) {
    const QString usage = QStringLiteral("Usage: mossly-agent %1 claude-desktop|claude-code|codex")
                              .arg(add ? QStringLiteral("register") : QStringLiteral("unregister"));
    if (arguments.size() != 1) return printUsage(io, {usage});
    const auto client = agentClientFromName(arguments.front());
    if (!client) return printUsage(io, {usage});
    const AgentClientRegistration clients = registration();
    auto done = add ? clients.registerClient(*client) : clients.unregisterClient(*client);
    if (!done) return printError(io, done.error());
    return printJson(io, statusJson(clients, *client));
}

int runClients(const QStringList& arguments, AgentIo& io) {
    if (!arguments.isEmpty()) return printUsage(io, {QStringLiteral("clients takes no arguments")});
    const AgentClientRegistration clients = registration();
    QStringList entries;
    for (const AgentClient client : allAgentClients) entries.append(statusJson(clients, client));
    return printJson(io, JsonObjectWriter().addRaw(QStringLiteral("clients"), jsonArray(entries)).text());
}

int runInstall(const QStringList& arguments, AgentIo& io) {
    if (!arguments.isEmpty()) return printUsage(io, {QStringLiteral("install takes no arguments")});
    auto installed = installAgentCommand(QCoreApplication::applicationFilePath(), QDir::homePath(),
                                         qEnvironmentVariable("PATH"));
    if (!installed) return printError(io, installed.error());
    if (!installed->folderOnPath) {
        io.err << QStringLiteral("%1 is not on your PATH; add it to use mossly-agent by name.\n")
                      .arg(QFileInfo(installed->linkPath).path());
        io.err.flush();
    }
    return printJson(io, JsonObjectWriter()
                             .add(QStringLiteral("installed"), installed->linkPath)
                             .add(QStringLiteral("onPath"), installed->folderOnPath)
                             .text());
}

}  // namespace mossly::agent
