#include "MeetingAudioChunk.h"

#include <cmath>

namespace mossly::meeting {

MeetingAudioChunk MeetingAudioChunk::captured(MeetingCaptureSource source, double startTime,
                                              std::vector<float> samples, double sampleRate,
                                              int channelCount) {
    const float level = rmsLevel(samples);
    return {source, startTime, std::move(samples), sampleRate, channelCount, level};
}

float rmsLevel(std::span<const float> samples) {
    if (samples.empty()) return 0;
    double sum = 0;  // double: a 20 s window of float squares loses precision in float
    for (const float sample : samples) sum += double(sample) * sample;
    return static_cast<float>(std::sqrt(sum / double(samples.size())));
}

std::vector<float> mixToMono(std::span<const float> interleaved, int channelCount) {
    if (channelCount <= 1) return {interleaved.begin(), interleaved.end()};
    const size_t frames = interleaved.size() / size_t(channelCount);
    std::vector<float> mono(frames);
    for (size_t frame = 0; frame < frames; ++frame) {
        float sum = 0;
        for (int channel = 0; channel < channelCount; ++channel)
            sum += interleaved[frame * channelCount + channel];
        mono[frame] = sum / float(channelCount);
    }
    return mono;
}

}  // namespace mossly::meeting
