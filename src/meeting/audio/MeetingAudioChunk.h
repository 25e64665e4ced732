#pragma once

#include <span>
#include <vector>

#include "MeetingTypes.h"

namespace mossly::meeting {

// One delivery of audio from a capture source. Capture back-ends hand chunks
// in whatever format the device uses (interleaved channels, any rate); the
// audio pipeline turns them into the transcription format: 16,000 Hz, one
// channel, 32-bit float.
struct MeetingAudioChunk {
    MeetingCaptureSource source = MeetingCaptureSource::microphone;
    double startTime = 0;        // seconds from the start of the recording
    std::vector<float> samples;  // interleaved when channelCount > 1
    double sampleRate = 0;       // Hz
    int channelCount = 1;
    float level = 0;  // meter level: RMS of the samples

    // A chunk as a capture back-end builds it, level included.
    static MeetingAudioChunk captured(MeetingCaptureSource source, double startTime,
                                      std::vector<float> samples, double sampleRate, int channelCount = 1);

    qsizetype frameCount() const { return channelCount > 0 ? qsizetype(samples.size()) / channelCount : 0; }
    double duration() const { return sampleRate > 0 ? double(frameCount()) / sampleRate : 0; }

    bool operator==(const MeetingAudioChunk&) const = default;
};

inline constexpr double transcriptionSampleRate = 16000;

// Square root of the mean of the squared samples; 0 for no samples.
float rmsLevel(std::span<const float> samples);

// The channels averaged into one, frame by frame.
std::vector<float> mixToMono(std::span<const float> interleaved, int channelCount);

}  // namespace mossly::meeting
