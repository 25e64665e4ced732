#include "MeetingSession.h"

namespace mossly::meeting {

bool MeetingSession::allows(MeetingSessionPhase from, MeetingSessionPhase to) {
    using enum MeetingSessionPhase;
    if (to == failed) return true;
    switch (from) {
    case idle: return to == requestingPermissions;
    case requestingPermissions: return to == preparing;
    case preparing: return to == recording;
    case recording: return to == paused || to == finalizing;
    case paused: return to == recording || to == finalizing;
    case finalizing: return to == summarizing || to == completed;
    case summarizing: return to == completed;
    case completed: return to == summarizing;
    case failed: return false;
    }
    return false;
}

std::expected<void, MeetingSessionError> MeetingSession::transition(MeetingSessionPhase to) {
    if (!allows(state_.phase, to)) return std::unexpected(MeetingSessionError::invalidTransition(state_.phase, to));
    state_.phase = to;
    return {};
}

void MeetingSession::append(const QList<MeetingTranscriptSegment>& segments) {
    if (segments.isEmpty()) return;
    state_.segments += segments;
    sortSegments(state_.segments);
}

}  // namespace mossly::meeting
