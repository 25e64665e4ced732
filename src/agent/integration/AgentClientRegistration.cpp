#include "AgentClientRegistration.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QStringList>
#include <toml++/toml.h>

#include "AtomicFile.h"

namespace mossly {

namespace {

Error unreadable(const QString& path, const QString& detail) {
    return Error::agentClientConfiguration(
        QStringLiteral("Mossly left %1 unchanged because it could not be read (%2). Fix the file, then try again.")
            .arg(path, detail));
}

// Reads a client's file; a missing file is empty.
Result<QByteArray> readConfiguration(const QString& path) {
    auto bytes = AtomicFile::readAll(path);
    if (!bytes && bytes.error().systemErrno() == ENOENT) return QByteArray();
    return bytes;
}

// Keeps the old file beside the new one, then replaces it in one step.
Result<void> writeConfiguration(const QString& path, const QByteArray& old, const QByteArray& updated) {
    if (!QDir().mkpath(QFileInfo(path).path())) return fail(Error::system(EACCES, path));
    if (!old.isEmpty()) {
        if (auto backup = AtomicFile::replaceContents(path + QStringLiteral(".mossly-backup"), old); !backup) {
            return backup;
        }
    }
    return AtomicFile::replaceContents(path, updated);
}

std::optional<toml::table> parseToml(const QByteArray& text, QString& problem) {
    try {
        return toml::parse(std::string_view(text.constData(), static_cast<size_t>(text.size())));
    } catch (const toml::parse_error& error) {
        problem = QString::fromUtf8(error.description().data(), static_cast<qsizetype>(error.description().size()));
        return std::nullopt;
    }
}

QString tomlString(const QString& text) {
    QString escaped = text;
    escaped.replace(u'\\', QStringLiteral("\\\\")).replace(u'"', QStringLiteral("\\\""));
    return u'"' + escaped + u'"';
}

// Removes the lines of "[mcp_servers.mossly]" and its sub-tables, keeping everything else to the letter.
QByteArray withoutOurTable(const QByteArray& text) {
    const QByteArray header = "[mcp_servers." + AgentClientRegistration::serverName.toUtf8();
    QList<QByteArray> kept;
    bool inOurs = false;
    for (const QByteArray& line : text.split('\n')) {
        const QByteArray trimmed = line.trimmed();
        if (trimmed.startsWith('[')) {
            inOurs = trimmed.startsWith(header + "]") || trimmed.startsWith(header + ".");
        }
        if (!inOurs) kept.append(line);
    }
    while (kept.size() > 1 && kept.back().trimmed().isEmpty() && kept[kept.size() - 2].trimmed().isEmpty()) {
        kept.removeLast();
    }
    return kept.join('\n');
}

}  // namespace

QString agentClientName(AgentClient client) {
    switch (client) {
    case AgentClient::claudeDesktop: return QStringLiteral("claude-desktop");
    case AgentClient::claudeCode: return QStringLiteral("claude-code");
    case AgentClient::codex: return QStringLiteral("codex");
    }
    return {};
}

QString agentClientTitle(AgentClient client) {
    switch (client) {
    case AgentClient::claudeDesktop: return QStringLiteral("Claude Desktop");
    case AgentClient::claudeCode: return QStringLiteral("Claude Code");
    case AgentClient::codex: return QStringLiteral("Codex");
    }
    return {};
}

std::optional<AgentClient> agentClientFromName(const QString& name) {
    for (const AgentClient client : allAgentClients) {
        if (agentClientName(client) == name) return client;
    }
    return std::nullopt;
}

AgentClientEnvironment AgentClientEnvironment::system() {
    AgentClientEnvironment environment;
    environment.home = QDir::homePath();
    environment.configHome = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
    environment.findProgram = [](const QString& program) -> std::optional<QString> {
        const QString found = QStandardPaths::findExecutable(program);
        return found.isEmpty() ? std::nullopt : std::optional(found);
    };
    environment.runProgram = [](const QString& program, const QStringList& arguments) {
        QProcess process;
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(program, arguments);
        if (!process.waitForFinished(30000)) {
            process.kill();
            return ProgramResult{-1, QStringLiteral("%1 did not answer in time").arg(program)};
        }
        return ProgramResult{process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
                             QString::fromUtf8(process.readAll()).trimmed()};
    };
    return environment;
}

AgentClientRegistration::AgentClientRegistration(AgentClientEnvironment environment, QString agentCommand)
    : environment_(std::move(environment)), agentCommand_(std::move(agentCommand)) {}

std::optional<QString> AgentClientRegistration::claudeProgram(AgentClient client) const {
    if (client != AgentClient::claudeCode) return std::nullopt;
    return environment_.findProgram(QStringLiteral("claude"));
}

QString AgentClientRegistration::location(AgentClient client) const {
    switch (client) {
    case AgentClient::claudeDesktop: return environment_.configHome + QStringLiteral("/Claude/claude_desktop_config.json");
    case AgentClient::claudeCode:
        if (const auto program = claudeProgram(client)) return *program + QStringLiteral(" mcp (user scope)");
        return environment_.home + QStringLiteral("/.claude.json");
    case AgentClient::codex: return environment_.home + QStringLiteral("/.codex/config.toml");
    }
    return {};
}

Result<void> AgentClientRegistration::registerClient(AgentClient client) const {
    const QJsonObject entry{{"command", agentCommand_}, {"args", QJsonArray{"mcp"}}};
    switch (client) {
    case AgentClient::claudeDesktop: return editJson(location(client), true, entry);
    case AgentClient::claudeCode: {
        const auto program = claudeProgram(client);
        if (!program) {
            QJsonObject stdio = entry;
            stdio.insert(u"type", QStringLiteral("stdio"));
            return editJson(location(client), true, stdio);
        }
        // Its own program knows where it keeps servers; replace any older entry of ours.
        (void)environment_.runProgram(*program, {"mcp", "remove", "--scope", "user", serverName});
        const auto added =
            environment_.runProgram(*program, {"mcp", "add", "--scope", "user", serverName, "--", agentCommand_, "mcp"});
        if (added.exitCode != 0) return fail(Error::agentClientConfiguration(QStringLiteral("claude mcp add failed: ") + added.output));
        return {};
    }
    case AgentClient::codex: return editToml(location(client), true);
    }
    return {};
}

Result<void> AgentClientRegistration::unregisterClient(AgentClient client) const {
    switch (client) {
    case AgentClient::claudeDesktop: return editJson(location(client), false, {});
    case AgentClient::claudeCode: {
        const auto program = claudeProgram(client);
        if (!program) return editJson(location(client), false, {});
        const auto removed = environment_.runProgram(*program, {"mcp", "remove", "--scope", "user", serverName});
        if (removed.exitCode != 0 && isRegistered(client).value_or(true)) {
            return fail(Error::agentClientConfiguration(QStringLiteral("claude mcp remove failed: ") + removed.output));
        }
        return {};
    }
    case AgentClient::codex: return editToml(location(client), false);
    }
    return {};
}

Result<bool> AgentClientRegistration::isRegistered(AgentClient client) const {
    if (const auto program = claudeProgram(client)) {
        return environment_.runProgram(*program, {"mcp", "get", serverName}).exitCode == 0;
    }
    const QString path = location(client);
    auto text = readConfiguration(path);
    if (!text) return fail(text.error());
    if (client == AgentClient::codex) {
        QString problem;
        const auto table = parseToml(*text, problem);
        if (!table) return fail(unreadable(path, problem));
        return (*table)["mcp_servers"][serverName.toStdString()].is_table();
    }
    if (text->trimmed().isEmpty()) return false;
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(*text, &parseError);
    if (!document.isObject()) return fail(unreadable(path, parseError.errorString()));
    return document.object().value(u"mcpServers").toObject().contains(serverName);
}

Result<void> AgentClientRegistration::editJson(const QString& path, bool add, const QJsonObject& entry) const {
    auto old = readConfiguration(path);
    if (!old) return fail(old.error());
    QJsonObject root;
    if (!old->trimmed().isEmpty()) {
        QJsonParseError parseError;
        const QJsonDocument document = QJsonDocument::fromJson(*old, &parseError);
        if (!document.isObject()) {
            return fail(unreadable(path, parseError.error == QJsonParseError::NoError ? QStringLiteral("not a JSON object")
                                                                                     : parseError.errorString()));
        }
        root = document.object();
        if (root.contains(u"mcpServers") && !root.value(u"mcpServers").isObject()) {
            return fail(unreadable(path, QStringLiteral("\"mcpServers\" is not an object")));
        }
    }
    QJsonObject servers = root.value(u"mcpServers").toObject();
    if (add) {
        servers.insert(serverName, entry);
    } else if (!servers.contains(serverName)) {
        return {};  // nothing of ours there: the file stays untouched
    } else {
        servers.remove(serverName);
    }
    root.insert(u"mcpServers", servers);
    return writeConfiguration(path, *old, QJsonDocument(root).toJson(QJsonDocument::Indented));
}

Result<void> AgentClientRegistration::editToml(const QString& path, bool add) const {
    auto old = readConfiguration(path);
    if (!old) return fail(old.error());
    QString problem;
    const auto parsed = parseToml(*old, problem);
    if (!parsed) return fail(unreadable(path, problem));
    const bool present = (*parsed)["mcp_servers"][serverName.toStdString()].is_table();
    if (!add && !present) return {};
    QByteArray updated = withoutOurTable(*old);
    if (add) {
        if (!updated.isEmpty() && !updated.endsWith('\n')) updated += '\n';
        if (!updated.trimmed().isEmpty()) updated += '\n';
        updated += QStringLiteral("[mcp_servers.%1]\ncommand = %2\nargs = [\"mcp\"]\n")
                       .arg(serverName, tomlString(agentCommand_))
                       .toUtf8();
    }
    // The edit is checked with the TOML parser before anything is written.
    const auto check = parseToml(updated, problem);
    if (!check) return fail(unreadable(path, problem));
    const auto command = (*check)["mcp_servers"][serverName.toStdString()]["command"].value<std::string>();
    if (add != command.has_value() || (command && QString::fromStdString(*command) != agentCommand_)) {
        return fail(unreadable(path, QStringLiteral("it defines the \"%1\" server in a way Mossly cannot edit").arg(serverName)));
    }
    return writeConfiguration(path, *old, updated);
}

}  // namespace mossly
