#include <gtest/gtest.h>

#include <QJsonArray>

#include "MeetingTypes.h"

using namespace mossly::meeting;

TEST(MeetingTypes, SegmentsSortByStartWithTheMicrophoneFirstAtATie) {
    MeetingTranscriptSegment late{QUuid::createUuid(), MeetingCaptureSource::microphone, 5, 6, "late", true};
    MeetingTranscriptSegment systemAtTwo{QUuid::createUuid(), MeetingCaptureSource::system, 2, 3, "sys", true};
    MeetingTranscriptSegment micAtTwo{QUuid::createUuid(), MeetingCaptureSource::microphone, 2, 4, "mic", true};
    MeetingTranscriptSegment secondSystemAtTwo{QUuid::createUuid(), MeetingCaptureSource::system, 2, 5, "sys2", true};
    QList<MeetingTranscriptSegment> segments{late, systemAtTwo, micAtTwo, secondSystemAtTwo};
    sortSegments(segments);
    QStringList texts;
    for (const auto& segment : segments) texts << segment.text;
    EXPECT_EQ(texts, (QStringList{"mic", "sys", "sys2", "late"}));  // stable among equals
}

TEST(MeetingTypes, SegmentAndSummaryJsonRoundTripAndRejectMissingKeys) {
    MeetingTranscriptSegment segment{QUuid::createUuid(), MeetingCaptureSource::system, 1.25, 3.5, "Hello", false};
    EXPECT_EQ(MeetingTranscriptSegment::fromJson(segment.toJson()), segment);
    EXPECT_EQ(segment.toJson().keys(), (QStringList{"endTime", "id", "isStable", "source", "startTime", "text"}));
    auto broken = segment.toJson();
    broken.insert("source", "speakers");
    EXPECT_FALSE(MeetingTranscriptSegment::fromJson(broken));

    MeetingSummary summary{"Plan", "We met.", {"Ship"}, {"Write docs"}, {}};
    EXPECT_EQ(MeetingSummary::fromJson(summary.toJson()), summary);
    auto noQuestions = summary.toJson();
    noQuestions.remove("openQuestions");
    EXPECT_FALSE(MeetingSummary::fromJson(noQuestions));
    auto numberInList = summary.toJson();
    numberInList.insert("decisions", QJsonArray{1});
    EXPECT_FALSE(MeetingSummary::fromJson(numberInList));
}

TEST(MeetingTypes, ErrorTextsAndRawValues) {
    EXPECT_EQ(MeetingSessionError::invalidTransition(MeetingSessionPhase::idle, MeetingSessionPhase::completed)
                  .description(),
              "Cannot move a meeting from idle to completed.");
    EXPECT_EQ(MeetingSessionError::missingModel().description(), "Download the local Whisper model before recording.");
    EXPECT_EQ(MeetingSessionError::noCaptureSource().description(), "Select at least one audio source.");
    EXPECT_EQ(MeetingSessionError::captureFailed("No microphone.").description(), "No microphone.");
    EXPECT_EQ(rawValue(MeetingSessionPhase::requestingPermissions), "requestingPermissions");
    EXPECT_EQ(providerKindFromRaw("codexCLI"), MeetingSummaryProviderKind::codexCLI);
    EXPECT_FALSE(providerKindFromRaw("ClaudeCode"));
    EXPECT_EQ(captureSourceFromRaw("system"), MeetingCaptureSource::system);
}
