#include <gtest/gtest.h>

#include <QElapsedTimer>

#include "MeetingProviderStatus.h"
#include "MeetingSessionFakes.h"

namespace mossly::meeting {
namespace {

using namespace test;
using Kind = MeetingSummaryProviderKind;

// The settings page asks this when it is shown and on Test; a probe must never
// hold the main thread, and a provider that can only fail is said to be so.
TEST(MeetingProviderStatus, ProbesInTheBackgroundAndTellsWhichChoicesCanWork) {
    auto claude = std::make_shared<FakeProvider>();
    claude->setConnection(ProviderConnectionState::needsLogin());
    claude->holdProbe = true;
    MeetingProviderStatus status([claude](Kind kind) -> std::shared_ptr<const MeetingSummaryProvider> {
        if (kind == Kind::claudeCode) return claude;
        if (kind == Kind::codexCLI) return std::make_shared<CodexCLISummaryProvider>();
        return nullptr;
    });
    EXPECT_EQ(status.state(Kind::claudeCode), std::nullopt);

    status.probeAll();
    EXPECT_EQ(status.state(Kind::claudeCode), ProviderConnectionState::running());
    status.probe(Kind::claudeCode);  // the running probe answers for both
    ASSERT_TRUE(waitFor([&] { return status.state(Kind::codexCLI) != ProviderConnectionState::running(); }));
    const auto codex = *status.state(Kind::codexCLI);
    EXPECT_FALSE(MeetingProviderStatus::canSummarize(codex));
    EXPECT_EQ(MeetingProviderStatus::describe(codex), CodexCLISummaryProvider::refusal);
    EXPECT_EQ(status.state(Kind::claudeCode), ProviderConnectionState::running()) << "still asking its program";

    claude->holdProbe = false;
    ASSERT_TRUE(waitFor([&] { return status.state(Kind::claudeCode) == ProviderConnectionState::needsLogin(); }));
    EXPECT_EQ(claude->probes, 1);
    EXPECT_TRUE(MeetingProviderStatus::canSummarize(ProviderConnectionState::needsLogin())) << "a sign-in away";

    // Signed in meanwhile: Test asks again.
    claude->setConnection(ProviderConnectionState::connected());
    status.probe(Kind::claudeCode);
    ASSERT_TRUE(waitFor([&] { return status.state(Kind::claudeCode) == ProviderConnectionState::connected(); }));
    EXPECT_EQ(claude->probes, 2);

    EXPECT_FALSE(MeetingProviderStatus::canSummarize(ProviderConnectionState::notInstalled()));
    EXPECT_EQ(MeetingProviderStatus::describe(ProviderConnectionState::notInstalled()),
              "The provider CLI is not installed.");
    EXPECT_EQ(MeetingProviderStatus::describe(ProviderConnectionState::failed("Exit status 2")),
              "The connection check failed: Exit status 2");
}

// Leaving the settings while a provider's program hangs does not wait for its time limit.
TEST(MeetingProviderStatus, GoingAwayStopsAProbeThatHangs) {
    auto claude = std::make_shared<FakeProvider>();
    claude->holdProbe = true;
    auto status = std::make_unique<MeetingProviderStatus>(
        [claude](Kind) -> std::shared_ptr<const MeetingSummaryProvider> { return claude; });
    status->probe(Kind::claudeCode);
    ASSERT_TRUE(waitFor([&] { return claude->probes == 1; }));
    QElapsedTimer timer;
    timer.start();
    status.reset();
    EXPECT_LT(timer.elapsed(), 1000);
}

// A real provider whose program is missing everywhere is found out by the probe.
TEST(MeetingProviderStatus, AMissingProgramIsReportedAsNotInstalled) {
    ProviderCLIConnection connection = ProviderCLIConnection::claudeCode();
    connection.executableName = QStringLiteral("mossly-no-such-assistant");
    auto missing = std::make_shared<ClaudeCodeSummaryProvider>(connection);
    MeetingProviderStatus status(
        [missing](Kind) -> std::shared_ptr<const MeetingSummaryProvider> { return missing; });
    status.probe(Kind::claudeCode);
    ASSERT_TRUE(waitFor([&] { return status.state(Kind::claudeCode) == ProviderConnectionState::notInstalled(); }));
}

}  // namespace
}  // namespace mossly::meeting
