#include <gtest/gtest.h>

#include <set>

#include "MeetingSession.h"

namespace mossly::meeting {
namespace {

using enum MeetingSessionPhase;

constexpr MeetingSessionPhase allPhases[] = {idle,      requestingPermissions, preparing, recording, paused,
                                             finalizing, summarizing,          completed, failed};

TEST(MeetingSession, AllowsExactlyTheMeetingLifecycle) {
    const std::set<std::pair<MeetingSessionPhase, MeetingSessionPhase>> allowed{
        {idle, requestingPermissions}, {requestingPermissions, preparing}, {preparing, recording},
        {recording, paused},           {paused, recording},                {recording, finalizing},
        {paused, finalizing},          {finalizing, summarizing},          {finalizing, completed},
        {summarizing, completed},      {completed, summarizing},
    };
    for (auto from : allPhases) {
        for (auto to : allPhases) {
            const bool expected = to == failed || allowed.contains({from, to});
            EXPECT_EQ(MeetingSession::allows(from, to), expected) << rawValue(from).toStdString() << " → "
                                                                  << rawValue(to).toStdString();
        }
    }
}

TEST(MeetingSession, RefusedTransitionNamesBothPhasesAndKeepsThePhase) {
    MeetingSession session({});
    auto moved = session.transition(recording);
    ASSERT_FALSE(moved);
    EXPECT_EQ(moved.error().code(), MeetingSessionError::Code::invalidTransition);
    EXPECT_EQ(moved.error().description(), "Cannot move a meeting from idle to recording.");
    EXPECT_EQ(session.state().phase, idle);

    ASSERT_TRUE(session.transition(requestingPermissions));
    ASSERT_TRUE(session.transition(failed));
    EXPECT_EQ(session.transition(idle).error().description(), "Cannot move a meeting from failed to idle.");
}

TEST(MeetingSession, KeepsSegmentsInStartOrderWithTheMicrophoneFirstAtATie) {
    const auto said = [](MeetingCaptureSource source, double start, const char* text) {
        MeetingTranscriptSegment segment;
        segment.source = source;
        segment.startTime = start;
        segment.text = QString::fromUtf8(text);
        return segment;
    };
    MeetingSession session({});
    session.append({said(MeetingCaptureSource::system, 5, "later"), said(MeetingCaptureSource::system, 1, "them")});
    session.append({said(MeetingCaptureSource::microphone, 1, "me"), said(MeetingCaptureSource::microphone, 3, "mid")});
    QStringList order;
    for (const auto& segment : session.state().segments) order.append(segment.text);
    EXPECT_EQ(order, (QStringList{"me", "them", "mid", "later"}));
}

}  // namespace
}  // namespace mossly::meeting
