#pragma once

#include <QString>
#include <QJsonObject>
#include <QStringList>
#include <functional>
#include <optional>

#include "Error.h"

namespace mossly {

// The AI agents whose configuration Mossly can register its MCP server in.
enum class AgentClient { claudeDesktop, claudeCode, codex };

inline constexpr AgentClient allAgentClients[] = {AgentClient::claudeDesktop, AgentClient::claudeCode,
                                                  AgentClient::codex};
QString agentClientName(AgentClient client);   // "claude-desktop", "claude-code", "codex"
QString agentClientTitle(AgentClient client);  // "Claude Desktop", …
std::optional<AgentClient> agentClientFromName(const QString& name);

// Where the clients keep their files, and how programs are found and run;
// tests point it at fixtures and fake programs.
struct AgentClientEnvironment {
    QString home;
    QString configHome;  // $XDG_CONFIG_HOME
    struct ProgramResult {
        int exitCode = -1;
        QString output;
    };
    std::function<std::optional<QString>(const QString& program)> findProgram;
    std::function<ProgramResult(const QString& program, const QStringList& arguments)> runProgram;

    static AgentClientEnvironment system();
};

// Registers `mossly-agent mcp` with an agent client, or removes it, editing
// only Mossly's own entry: every other key (and, in TOML, every comment) of
// the client's file stays as it was, the file is replaced atomically, the old
// one is kept beside it as "<name>.mossly-backup", and a file that cannot be
// parsed is never touched.
class AgentClientRegistration {
public:
    AgentClientRegistration(AgentClientEnvironment environment, QString agentCommand);

    Result<void> registerClient(AgentClient client) const;
    Result<void> unregisterClient(AgentClient client) const;
    Result<bool> isRegistered(AgentClient client) const;
    // The file (or, for Claude Code with its own program, the command) that holds the entry.
    QString location(AgentClient client) const;

    static inline const QString serverName = QStringLiteral("mossly");

private:
    std::optional<QString> claudeProgram(AgentClient client) const;
    Result<void> editJson(const QString& path, bool add, const QJsonObject& entry) const;
    Result<void> editToml(const QString& path, bool add) const;

    AgentClientEnvironment environment_;
    QString agentCommand_;
};

}  // namespace mossly
