#include <gtest/gtest.h>

#include "MeetingSummaryService.h"

using namespace mossly::meeting;

namespace {

MeetingTranscriptSegment segment(MeetingCaptureSource source, double start, QString text, bool stable = true) {
    return {QUuid::createUuid(), source, start, start + 2, std::move(text), stable};
}

}  // namespace

TEST(MeetingSummaryService, TranscriptLinesCarryMinutesSecondsAndSpeaker) {
    const QList<MeetingTranscriptSegment> segments{
        segment(MeetingCaptureSource::microphone, 0.4, "Hello everyone."),
        segment(MeetingCaptureSource::system, 61.99, "Hi, can you hear me?"),
        segment(MeetingCaptureSource::microphone, 70, "still being decoded", false),
        segment(MeetingCaptureSource::system, 75 * 60 + 3.5, "Two\nlines"),
    };
    EXPECT_EQ(MeetingSummaryService::transcript(segments),
              "[00:00] You: Hello everyone.\n"
              "[01:01] System: Hi, can you hear me?\n"
              "[75:03] System: Two lines");
    EXPECT_EQ(MeetingSummaryService::transcript({}), "");
    EXPECT_EQ(speakerLabel(MeetingCaptureSource::microphone), "You");
    EXPECT_EQ(speakerLabel(MeetingCaptureSource::system), "System");
}

TEST(MeetingSummaryService, RendersTheSummaryBlockExactly) {
    const MeetingSummary summary{"Launch", "We agreed to ship.", {"Ship Friday", "Keep scope"}, {}, {"Who demos?"}};
    EXPECT_EQ(MeetingSummaryService::render(summary),
              "<!-- notes:meeting-summary:start -->\n"
              "## Summary\n\nWe agreed to ship.\n\n"
              "## Decisions\n\n- Ship Friday\n- Keep scope\n\n"
              "## Action items\n\n_None recorded._\n\n"
              "## Open questions\n\n- Who demos?\n"
              "<!-- notes:meeting-summary:end -->");
}

TEST(MeetingSummaryService, ReplacesAnExistingSummaryBlockOrAppendsOne) {
    const QString block = "<!-- notes:meeting-summary:start -->\nNEW\n<!-- notes:meeting-summary:end -->";
    const QString withOld = "# Sync\n\nmy notes\n<!-- notes:meeting-summary:start -->\nOLD\n"
                            "<!-- notes:meeting-summary:end -->\nafter";
    EXPECT_EQ(MeetingSummaryService::replacingGeneratedSummary(withOld, block),
              "# Sync\n\nmy notes\n" + block + "\nafter");
    EXPECT_EQ(MeetingSummaryService::replacingGeneratedSummary("# Sync", block), "# Sync\n\n" + block);
    EXPECT_EQ(MeetingSummaryService::replacingGeneratedSummary("# Sync\n", block), "# Sync\n\n" + block);
    EXPECT_EQ(MeetingSummaryService::replacingGeneratedSummary("", block), block);
    // A start marker without its end is not a block: nothing after it is thrown away.
    const QString broken = "<!-- notes:meeting-summary:start -->\nkept";
    EXPECT_EQ(MeetingSummaryService::replacingGeneratedSummary(broken, block), broken + "\n\n" + block);
}

TEST(MeetingSummaryService, SummarizesTheStableTranscriptThroughItsProvider) {
    class EchoProvider final : public MeetingSummaryProvider {
    public:
        MeetingSummaryProviderKind kind() const override { return MeetingSummaryProviderKind::claudeCode; }
        ProviderConnectionState connectionState(std::stop_token = {}) const override {
            return ProviderConnectionState::connected();
        }
        std::expected<MeetingSummary, MeetingSummaryProviderError> summarize(const QString& transcript,
                                                                             std::stop_token = {}) const override {
            return MeetingSummary{"t", transcript, {}, {}, {}};
        }
    };
    MeetingSummaryService service(std::make_shared<EchoProvider>());
    auto summary = service.summarize({segment(MeetingCaptureSource::microphone, 3, "Yes."),
                                      segment(MeetingCaptureSource::system, 4, "maybe", false)});
    ASSERT_TRUE(summary);
    EXPECT_EQ(summary->summary, "[00:03] You: Yes.");
}
