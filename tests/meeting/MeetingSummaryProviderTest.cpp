#include <gtest/gtest.h>

#include <QFile>

#include "ProcessTestSupport.h"
#include "MeetingSummaryProvider.h"

using namespace mossly::meeting;
using namespace std::chrono_literals;
using mossly::meeting::test::FakeExecutables;

namespace {

ClaudeCodeSummaryProvider providerFor(const FakeExecutables& programs, std::chrono::milliseconds timeout = 10s) {
    auto connection = ProviderCLIConnection::claudeCode();
    connection.searchPath = programs.path();
    connection.timeout = timeout;
    return ClaudeCodeSummaryProvider(connection);
}

// A `claude` that prints `output` and exits with `status`.
void addClaude(const FakeExecutables& programs, const QByteArray& output, int status = 0) {
    programs.add("claude", "cat <<'JSON'\n" + output + "\nJSON\nexit " + QByteArray::number(status) + "\n");
}

const QByteArray validResult =
    R"({"type":"result","is_error":false,"structured_output":{"title":"Launch sync","summary":"We agreed to ship.",)"
    R"("decisions":["Ship Friday"],"actionItems":["Ana writes notes","Bo tests"],"openQuestions":[]}})";

std::optional<MeetingSummaryProviderError::Code> failureCode(const FakeExecutables& programs) {
    auto summary = providerFor(programs).summarize("[00:01] You: hello");
    if (summary) return std::nullopt;
    return summary.error().code();
}

}  // namespace

TEST(MeetingClaudeCodeSummaryProvider, SendsThePromptAndTranscriptWithTheExactArguments) {
    FakeExecutables programs;
    const QByteArray argumentsFile = programs.filePath("arguments").toUtf8();
    const QByteArray inputFile = programs.filePath("input").toUtf8();
    programs.add("claude", "printf '%s\\0' \"$@\" > '" + argumentsFile + "'\n" +  //
                               "cat > '" + inputFile + "'\ncat <<'JSON'\n" +
                               validResult + "\nJSON\n");
    auto summary = providerFor(programs).summarize("[00:01] You: hello\n[00:04] System: hi");
    ASSERT_TRUE(summary) << summary.error().description().toStdString();
    EXPECT_EQ(*summary, (MeetingSummary{"Launch sync", "We agreed to ship.", {"Ship Friday"},
                                        {"Ana writes notes", "Bo tests"}, {}}));

    QFile arguments(QString::fromUtf8(argumentsFile));
    ASSERT_TRUE(arguments.open(QIODevice::ReadOnly));
    QList<QByteArray> passed = arguments.readAll().split('\0');
    passed.removeLast();  // after the final terminator
    const QList<QByteArray> expected{
        "-p", "--safe-mode", "--no-session-persistence", "--setting-sources", "", "--strict-mcp-config",
        "--mcp-config", R"({"mcpServers":{}})", "--tools", "", "--permission-mode", "dontAsk", "--max-turns", "1",
        "--output-format", "json", "--json-schema",
        R"({"type":"object","additionalProperties":false,"properties":{"title":{"type":"string"},)"
        R"("summary":{"type":"string"},"decisions":{"type":"array","items":{"type":"string"}},)"
        R"("actionItems":{"type":"array","items":{"type":"string"}},)"
        R"("openQuestions":{"type":"array","items":{"type":"string"}}},)"
        R"("required":["title","summary","decisions","actionItems","openQuestions"]})"};
    EXPECT_EQ(passed, expected);

    QFile input(QString::fromUtf8(inputFile));
    ASSERT_TRUE(input.open(QIODevice::ReadOnly));
    EXPECT_EQ(input.readAll(),
              "Summarize only facts supported by this meeting transcript. Return a concise title and summary, plus "
              "decisions, actionItems, and openQuestions. Do not use tools. If a section has no supported items, "
              "return an empty array.\n\nTRANSCRIPT\n[00:01] You: hello\n[00:04] System: hi");
}

TEST(MeetingClaudeCodeSummaryProvider, RejectsEveryOutputThatIsNotAStructuredSummary) {
    using Code = MeetingSummaryProviderError::Code;
    FakeExecutables programs;
    addClaude(programs, "this is not JSON");
    EXPECT_EQ(failureCode(programs), Code::invalidOutput);
    addClaude(programs, "[1, 2]");
    EXPECT_EQ(failureCode(programs), Code::invalidOutput);
    addClaude(programs, R"({"is_error":true,"structured_output":{"title":"t","summary":"s","decisions":[],)"
                        R"("actionItems":[],"openQuestions":[]}})");
    EXPECT_EQ(failureCode(programs), Code::invalidOutput);
    addClaude(programs, R"({"is_error":false,"result":"Here is your summary"})");
    EXPECT_EQ(failureCode(programs), Code::invalidOutput);
    addClaude(programs, R"({"structured_output":{"title":"t","summary":"s","decisions":[],"actionItems":[]}})");
    EXPECT_EQ(failureCode(programs), Code::invalidOutput);
    addClaude(programs, R"({"structured_output":{"title":"t","summary":"s","decisions":[3],"actionItems":[],)"
                        R"("openQuestions":[]}})");
    EXPECT_EQ(failureCode(programs), Code::invalidOutput);
    EXPECT_EQ(MeetingSummaryProviderError::invalidOutput().description(),
              "The summary provider returned invalid structured output.");
}

TEST(MeetingClaudeCodeSummaryProvider, ANonZeroExitFailsWithItsStatusEvenWithValidOutput) {
    FakeExecutables programs;
    programs.add("claude", "echo 'API error: overloaded' >&2\ncat <<'JSON'\n" + validResult + "\nJSON\nexit 2\n");
    auto summary = providerFor(programs).summarize("x");
    ASSERT_FALSE(summary);
    EXPECT_EQ(summary.error().code(), MeetingSummaryProviderError::Code::failed);
    EXPECT_EQ(summary.error().description(), "The summary provider exited with status 2");
    ASSERT_TRUE(summary.error().result());
    EXPECT_EQ(summary.error().result()->stderr, "API error: overloaded\n");
}

TEST(MeetingClaudeCodeSummaryProvider, MissingAndHangingProgramsFailWithTheirTexts) {
    FakeExecutables programs;
    EXPECT_EQ(providerFor(programs).summarize("x").error().description(), "The provider CLI is not installed.");
    EXPECT_EQ(providerFor(programs).connectionState(), ProviderConnectionState::notInstalled());
    programs.add("claude", "sleep 300\n");
    EXPECT_EQ(providerFor(programs, 300ms).summarize("x").error().description(), "The summary provider timed out.");
    EXPECT_EQ(providerFor(programs, 300ms).connectionState(),
              ProviderConnectionState::failed("The summary provider timed out."));
}

TEST(MeetingClaudeCodeSummaryProvider, ConnectionStateReadsAuthStatus) {
    FakeExecutables programs;
    const QByteArray argumentsFile = programs.filePath("arguments").toUtf8();
    programs.add("claude", "echo \"$@\" > '" + argumentsFile + "'\n" +
                               R"(echo '{"loggedIn":true,"authMethod":"claude.ai","provider":"firstParty"}')" + "\n");
    EXPECT_EQ(providerFor(programs).connectionState(), ProviderConnectionState::connected());
    QFile arguments(QString::fromUtf8(argumentsFile));
    ASSERT_TRUE(arguments.open(QIODevice::ReadOnly));
    EXPECT_EQ(arguments.readAll(), "auth status --json\n");

    const QList<QByteArray> notSignedIn{
        R"({"loggedIn":true,"authMethod":"apiKey","provider":"bedrock"})",
        R"({"loggedIn":false,"provider":"firstParty"})",
        R"({"loggedIn":false,"authMethod":null,"provider":"firstParty"})",
        "Not logged in. Run claude login.",
    };
    for (const QByteArray& output : notSignedIn) {
        addClaude(programs, output, 1);
        EXPECT_EQ(providerFor(programs).connectionState(), ProviderConnectionState::needsLogin()) << output.data();
    }
}

TEST(MeetingClaudeCodeSummaryProvider, UsesAnInjectedRunner) {
    QStringList seenArguments;
    ClaudeCodeSummaryProvider provider(ProviderCLIConnection::claudeCode(),
                                       [&](const QStringList& arguments, const QByteArray&) {
                                           seenArguments = arguments;
                                           return std::expected<ProviderCLIResult, MeetingSummaryProviderError>(
                                               ProviderCLIResult{validResult, {}, 0});
                                       });
    auto summary = provider.summarize("x");
    ASSERT_TRUE(summary);
    EXPECT_EQ(summary->title, "Launch sync");
    EXPECT_EQ(seenArguments, ClaudeCodeSummaryProvider::summaryArguments());
    EXPECT_EQ(seenArguments.size(), 18);
}

TEST(MeetingCodexCLISummaryProvider, AlwaysRefuses) {
    const QString refusal =
        QString::fromUtf8("Codex CLI cannot yet satisfy Notes’ verified no-tools/no-file-access contract.");
    CodexCLISummaryProvider codex;
    EXPECT_EQ(codex.connectionState(), ProviderConnectionState::unavailable(refusal));
    auto summary = codex.summarize("[00:00] You: hello");
    ASSERT_FALSE(summary);
    EXPECT_EQ(summary.error().code(), MeetingSummaryProviderError::Code::unavailable);
    EXPECT_EQ(summary.error().description(), refusal);
}
