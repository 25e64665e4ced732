#pragma once

#include <QString>
#include <atomic>
#include <expected>
#include <memory>
#include <mutex>
#include <optional>

#include "WhisperTranscribing.h"

struct whisper_context;

namespace mossly::meeting {

// One loaded whisper.cpp model, used through its C interface.
//
// Thread safety: `transcribe` calls run one at a time; `cancel` may be called
// from any thread. Failures of the library (a null context, a non-zero result,
// a C++ exception from inside it) come back as `transcriptionFailed`.
class WhisperTranscriber : public WhisperTranscribing {
  public:
    struct Options {
        int threads = defaultThreadCount();
        // For tests and benchmarks on random-weight models, whose decoder would
        // otherwise emit hundreds of empty timestamp segments per window; absent
        // or false keeps the library's defaults.
        std::optional<int> maxTokens;
        std::optional<float> temperatureIncrement;
        bool singleSegment = false;
    };

    // The active cores minus two (left for capture and the interface), 1 to 8.
    static int defaultThreadCount();

    // Checks the file's structure, then loads it.
    static std::expected<std::unique_ptr<WhisperTranscriber>, MeetingSessionError> load(
        const QString& modelPath, Options options);
    ~WhisperTranscriber() override;

    std::expected<QList<MeetingTranscriptSegment>, MeetingSessionError> transcribe(
        std::span<const float> samples, MeetingCaptureSource source, double offset) override;

    // Milliseconds whisper.cpp's encoder took in the last inference (its own timing).
    double lastEncodeMilliseconds() const { return lastEncodeMs_; }

    // Ends the running (or the next) inference early; it then fails. Whisper
    // checks this after its encoder step, so it is not instant.
    void cancel() { cancelled_ = true; }

  private:
    struct FreeContext {
        void operator()(whisper_context* context) const;
    };
    WhisperTranscriber(whisper_context* context, Options options) : context_(context), options_(options) {}

    std::unique_ptr<whisper_context, FreeContext> context_;
    Options options_;
    std::mutex mutex_;
    std::atomic<bool> cancelled_{false};
    std::atomic<double> lastEncodeMs_{0};
};

}  // namespace mossly::meeting
