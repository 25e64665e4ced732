#pragma once

#include <QDateTime>
#include <QList>
#include <QUuid>
#include <expected>

#include "MeetingTypes.h"

namespace mossly::meeting {

// The identity, configuration and state of the meeting being recorded, and
// the phase machine: idle → requestingPermissions → preparing → recording;
// recording ↔ paused; recording or paused → finalizing → (summarizing →)
// completed; completed → summarizing (a retried summary); any phase → failed.
//
// Not thread-safe: the controller owns it on the main thread.
class MeetingSession {
public:
    explicit MeetingSession(MeetingSessionConfiguration configuration, QUuid id = QUuid::createUuid())
        : id_(id), configuration_(std::move(configuration)) {}

    static bool allows(MeetingSessionPhase from, MeetingSessionPhase to);

    const QUuid& id() const { return id_; }
    const MeetingSessionConfiguration& configuration() const { return configuration_; }
    const MeetingSessionState& state() const { return state_; }

    // Refuses a move the machine does not allow, leaving the phase as it was.
    std::expected<void, MeetingSessionError> transition(MeetingSessionPhase to);
    // Keeps the segments ordered by start time, the microphone first at a tie.
    void append(const QList<MeetingTranscriptSegment>& segments);

    void setStartedAt(QDateTime at) { state_.startedAt = std::move(at); }
    void setEndedAt(QDateTime at) { state_.endedAt = std::move(at); }
    void setSummary(MeetingSummary summary) { state_.summary = std::move(summary); }
    void setFailureMessage(QString message) { state_.failureMessage = std::move(message); }

private:
    QUuid id_;
    MeetingSessionConfiguration configuration_;
    MeetingSessionState state_;
};

}  // namespace mossly::meeting
