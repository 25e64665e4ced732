#pragma once

#include <QString>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

#include "MeetingAudioCapture.h"

namespace mossly::meeting::test {

// Collects what a capture delivers on its thread, for the test thread to wait on.
class CaptureRecorder {
public:
    MeetingAudioCapture::ChunkHandler chunkHandler();
    MeetingAudioCapture::FailureHandler failureHandler();
    // Warnings as their text; the end of a warning as an empty text.
    MeetingAudioCapture::WarningHandler warningHandler();

    // Waits until `done` holds (checked under the lock) or the timeout passes.
    bool waitUntil(const std::function<bool(const CaptureRecorder&)>& done, std::chrono::milliseconds timeout);
    bool waitForFailure(std::chrono::milliseconds timeout);
    bool waitForWarnings(size_t count, std::chrono::milliseconds timeout);
    bool waitForChunks(size_t count, std::chrono::milliseconds timeout);

    std::vector<MeetingAudioChunk> chunks() const;
    std::vector<QString> failures() const;
    std::vector<QString> warnings() const;
    size_t chunkCount() const;
    // When the first chunk arrived; absent before.
    std::optional<std::chrono::steady_clock::time_point> firstArrival() const;
    // All samples so far, mixed to one channel.
    std::vector<float> monoSamples() const;

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<MeetingAudioChunk> chunks_;
    std::vector<QString> failures_;
    std::vector<QString> warnings_;
    std::optional<std::chrono::steady_clock::time_point> firstArrival_;
};

}  // namespace mossly::meeting::test
