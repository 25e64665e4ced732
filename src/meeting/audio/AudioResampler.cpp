#include "AudioResampler.h"

#include <soxr.h>

#include <cmath>
#include <new>

#include "MeetingAudioChunk.h"

namespace mossly::meeting {
namespace {

MeetingSessionError resamplingFailed() {
    return MeetingSessionError::captureFailed(QStringLiteral("Audio resampling failed."));
}

MeetingSessionError allocationFailed() {
    return MeetingSessionError::captureFailed(QStringLiteral("Unable to allocate normalized audio."));
}

}  // namespace

void AudioResampler::Release::operator()(soxr* handle) const {
    soxr_delete(handle);
}

std::expected<AudioResampler, MeetingSessionError> AudioResampler::create(double inputRate) {
    if (!(inputRate > 0) || !std::isfinite(inputRate)) {
        return std::unexpected(
            MeetingSessionError::captureFailed(QStringLiteral("Unable to create the audio resampler.")));
    }
    soxr_error_t error = nullptr;
    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
    soxr* handle = soxr_create(inputRate, transcriptionSampleRate, 1, &error, &io, &quality, nullptr);
    if (error || !handle) {
        soxr_delete(handle);
        return std::unexpected(
            MeetingSessionError::captureFailed(QStringLiteral("Unable to create the audio resampler.")));
    }
    return AudioResampler(handle, transcriptionSampleRate / inputRate);
}

std::expected<std::vector<float>, MeetingSessionError> AudioResampler::process(std::span<const float> mono) {
    std::vector<float> output;
    try {
        output.resize(size_t(std::ceil(double(mono.size()) * ratio_)) + 64);
    } catch (const std::bad_alloc&) {
        return std::unexpected(allocationFailed());
    }
    size_t produced = 0;
    size_t consumed = 0;
    while (consumed < mono.size()) {
        size_t used = 0;
        size_t made = 0;
        if (produced == output.size()) output.resize(output.size() * 2);
        if (soxr_process(handle_.get(), mono.data() + consumed, mono.size() - consumed, &used,
                         output.data() + produced, output.size() - produced, &made)) {
            return std::unexpected(resamplingFailed());
        }
        consumed += used;
        produced += made;
        if (used == 0 && made == 0) return std::unexpected(resamplingFailed());  // would loop forever
    }
    output.resize(produced);
    return output;
}

std::expected<std::vector<float>, MeetingSessionError> AudioResampler::drain() {
    std::vector<float> output;
    float block[1024];
    while (true) {
        size_t made = 0;
        if (soxr_process(handle_.get(), nullptr, 0, nullptr, block, std::size(block), &made)) {
            return std::unexpected(resamplingFailed());
        }
        if (made == 0) return output;
        output.insert(output.end(), block, block + made);
    }
}

}  // namespace mossly::meeting
