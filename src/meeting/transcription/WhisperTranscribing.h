#pragma once

#include <QList>
#include <expected>
#include <span>

#include "MeetingTypes.h"

namespace mossly::meeting {

// Turns a block of 16 kHz mono float samples into time-stamped segments.
// `offset` is the recording time of the first sample; segment times are
// recording times. Tests put a scripted transcriber behind this.
class WhisperTranscribing {
  public:
    virtual ~WhisperTranscribing() = default;
    virtual std::expected<QList<MeetingTranscriptSegment>, MeetingSessionError> transcribe(
        std::span<const float> samples, MeetingCaptureSource source, double offset) = 0;
};

}  // namespace mossly::meeting
