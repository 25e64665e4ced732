#include "MeetingSummaryProvider.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace mossly::meeting {

const QString ClaudeCodeSummaryProvider::prompt = QStringLiteral(
    "Summarize only facts supported by this meeting transcript. Return a concise title and summary, plus "
    "decisions, actionItems, and openQuestions. Do not use tools. If a section has no supported items, return an "
    "empty array.\n\nTRANSCRIPT\n");

const QString ClaudeCodeSummaryProvider::outputSchema = QStringLiteral(
    R"({"type":"object","additionalProperties":false,"properties":{"title":{"type":"string"},)"
    R"("summary":{"type":"string"},"decisions":{"type":"array","items":{"type":"string"}},)"
    R"("actionItems":{"type":"array","items":{"type":"string"}},)"
    R"("openQuestions":{"type":"array","items":{"type":"string"}}},)"
    R"("required":["title","summary","decisions","actionItems","openQuestions"]})");

const QString CodexCLISummaryProvider::refusal =
    QStringLiteral(u"Codex CLI cannot yet satisfy Notes’ verified no-tools/no-file-access contract.");

QStringList ClaudeCodeSummaryProvider::summaryArguments() {
    return {
        QStringLiteral("-p"),
        QStringLiteral("--safe-mode"),
        QStringLiteral("--no-session-persistence"),
        QStringLiteral("--setting-sources"),
        QString(),
        QStringLiteral("--strict-mcp-config"),
        QStringLiteral("--mcp-config"),
        QStringLiteral(R"({"mcpServers":{}})"),
        QStringLiteral("--tools"),
        QString(),
        QStringLiteral("--permission-mode"),
        QStringLiteral("dontAsk"),
        QStringLiteral("--max-turns"),
        QStringLiteral("1"),
        QStringLiteral("--output-format"),
        QStringLiteral("json"),
        QStringLiteral("--json-schema"),
        outputSchema,
    };
}

ClaudeCodeSummaryProvider::ClaudeCodeSummaryProvider(ProviderCLIConnection connection, ProviderCLIRunner runner)
    : connection_(std::move(connection)), runner_(std::move(runner)) {}

std::expected<ProviderCLIResult, MeetingSummaryProviderError> ClaudeCodeSummaryProvider::run(
    const QStringList& arguments, const QByteArray& input, std::stop_token stop) const {
    return runner_ ? runner_(arguments, input) : connection_.run(arguments, input, std::move(stop));
}

ProviderConnectionState ClaudeCodeSummaryProvider::connectionState(std::stop_token stop) const {
    if (!connection_.executableURL()) return ProviderConnectionState::notInstalled();
    auto result = run({QStringLiteral("auth"), QStringLiteral("status"), QStringLiteral("--json")}, {}, std::move(stop));
    if (!result) return ProviderConnectionState::failed(result.error().description());
    const QJsonObject status = QJsonDocument::fromJson(result->stdout).object();
    const QJsonValue method = status.value(QStringLiteral("authMethod"));
    const bool signedIn = method.isString() && !method.toString().isEmpty() &&
                          status.value(QStringLiteral("provider")).toString() == QLatin1String("firstParty");
    return signedIn ? ProviderConnectionState::connected() : ProviderConnectionState::needsLogin();
}

std::expected<MeetingSummary, MeetingSummaryProviderError> ClaudeCodeSummaryProvider::summarize(
    const QString& transcript, std::stop_token stop) const {
    auto result = run(summaryArguments(), (prompt + transcript).toUtf8(), std::move(stop));
    if (!result) return std::unexpected(result.error());
    if (result->exitCode != 0) return std::unexpected(MeetingSummaryProviderError::failed(std::move(*result)));
    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(result->stdout, &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject()) {
        return std::unexpected(MeetingSummaryProviderError::invalidOutput());
    }
    const QJsonObject output = document.object();
    const QJsonValue structured = output.value(QStringLiteral("structured_output"));
    if (output.value(QStringLiteral("is_error")).toBool(false) || !structured.isObject()) {
        return std::unexpected(MeetingSummaryProviderError::invalidOutput());
    }
    auto summary = MeetingSummary::fromJson(structured.toObject());
    if (!summary) return std::unexpected(MeetingSummaryProviderError::invalidOutput());
    return *summary;
}

std::unique_ptr<MeetingSummaryProvider> makeSummaryProvider(MeetingSummaryProviderKind kind) {
    switch (kind) {
    case MeetingSummaryProviderKind::none: return nullptr;
    case MeetingSummaryProviderKind::claudeCode: return std::make_unique<ClaudeCodeSummaryProvider>();
    case MeetingSummaryProviderKind::codexCLI: return std::make_unique<CodexCLISummaryProvider>();
    }
    return nullptr;
}

}  // namespace mossly::meeting
