#pragma once

#include <QString>
#include <vector>

#include "MeetingAudioChunk.h"

namespace mossly::test {

struct SoundFile {
    std::vector<float> samples;  // interleaved
    double sampleRate = 0;
    int channelCount = 0;
    qsizetype frames() const { return qsizetype(samples.size()) / channelCount; }
};

// A spoken sentence from espeak-ng (22,050 Hz mono), made once per test run,
// and sox conversions of it. Paths live in a private temporary folder.
QString synthesisedSpeech();
QString convertedSpeech(int sampleRate, int channelCount);

SoundFile readSoundFile(const QString& path);

// The file cut into chunks of `milliseconds` as a capture back-end would deliver them.
std::vector<meeting::MeetingAudioChunk> captureChunks(const SoundFile& sound,
                                                      meeting::MeetingCaptureSource source, double startTime,
                                                      int milliseconds);

// Pearson correlation over the common length.
double correlation(const std::vector<float>& first, const std::vector<float>& second);

}  // namespace mossly::test
