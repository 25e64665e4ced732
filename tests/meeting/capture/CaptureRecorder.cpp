#include "CaptureRecorder.h"

namespace mossly::meeting::test {

MeetingAudioCapture::ChunkHandler CaptureRecorder::chunkHandler() {
    return [this](MeetingAudioChunk chunk) {
        std::lock_guard lock(mutex_);
        if (!firstArrival_) firstArrival_ = std::chrono::steady_clock::now();
        chunks_.push_back(std::move(chunk));
        changed_.notify_all();
    };
}

MeetingAudioCapture::FailureHandler CaptureRecorder::failureHandler() {
    return [this](const MeetingSessionError& error) {
        std::lock_guard lock(mutex_);
        failures_.push_back(error.description());
        changed_.notify_all();
    };
}

MeetingAudioCapture::WarningHandler CaptureRecorder::warningHandler() {
    return [this](const std::optional<MeetingSessionError>& warning) {
        std::lock_guard lock(mutex_);
        warnings_.push_back(warning ? warning->description() : QString());
        changed_.notify_all();
    };
}

bool CaptureRecorder::waitUntil(const std::function<bool(const CaptureRecorder&)>& done,
                                std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return done(*this); });
}

bool CaptureRecorder::waitForFailure(std::chrono::milliseconds timeout) {
    return waitUntil([](const CaptureRecorder& self) { return !self.failures_.empty(); }, timeout);
}

bool CaptureRecorder::waitForWarnings(size_t count, std::chrono::milliseconds timeout) {
    return waitUntil([count](const CaptureRecorder& self) { return self.warnings_.size() >= count; }, timeout);
}

bool CaptureRecorder::waitForChunks(size_t count, std::chrono::milliseconds timeout) {
    return waitUntil([count](const CaptureRecorder& self) { return self.chunks_.size() >= count; }, timeout);
}

std::vector<MeetingAudioChunk> CaptureRecorder::chunks() const {
    std::lock_guard lock(mutex_);
    return chunks_;
}

std::vector<QString> CaptureRecorder::failures() const {
    std::lock_guard lock(mutex_);
    return failures_;
}

std::vector<QString> CaptureRecorder::warnings() const {
    std::lock_guard lock(mutex_);
    return warnings_;
}

std::optional<std::chrono::steady_clock::time_point> CaptureRecorder::firstArrival() const {
    std::lock_guard lock(mutex_);
    return firstArrival_;
}

size_t CaptureRecorder::chunkCount() const {
    std::lock_guard lock(mutex_);
    return chunks_.size();
}

std::vector<float> CaptureRecorder::monoSamples() const {
    std::lock_guard lock(mutex_);
    std::vector<float> samples;
    for (const auto& chunk : chunks_) {
        const auto mono = mixToMono(chunk.samples, chunk.channelCount);
        samples.insert(samples.end(), mono.begin(), mono.end());
    }
    return samples;
}

}  // namespace mossly::meeting::test
