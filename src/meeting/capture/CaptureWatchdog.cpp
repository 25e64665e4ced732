#include "CaptureWatchdog.h"

#include "CaptureErrors.h"

namespace mossly::meeting {
namespace {

// Below this a chunk is digital silence: what a monitor delivers when nothing plays.
constexpr float digitalSilence = 1e-6f;

}  // namespace

CaptureWatchdog::CaptureWatchdog(MeetingCaptureSource source, std::chrono::milliseconds limit, CaptureClock clock,
                                 std::shared_ptr<const SpeechActivity> speech)
    : source_(source), limit_(limit), clock_(std::move(clock)), speech_(std::move(speech)) {
    started();
}

void CaptureWatchdog::started() {
    lastChunk_ = lastSound_ = clock_();
    shown_.reset();
}

void CaptureWatchdog::chunkArrived(float level) {
    lastChunk_ = clock_();
    if (level > digitalSilence) lastSound_ = lastChunk_;
}

std::optional<MeetingSessionError> CaptureWatchdog::currentFault(std::chrono::steady_clock::time_point now) const {
    if (now - lastChunk_ >= limit_) return captureErrors::nothingArrived(source_, limit_);
    if (source_ != MeetingCaptureSource::system || !speech_) return std::nullopt;
    const auto speech = speech_->lastSpeech();
    // Speech heard during the silent stretch, and the stretch long enough.
    if (speech && *speech > lastSound_ && now - lastSound_ >= limit_) return captureErrors::onlySilence(limit_);
    return std::nullopt;
}

std::optional<CaptureWatchdogReport> CaptureWatchdog::check() {
    auto fault = currentFault(clock_());
    const std::optional<QString> text = fault ? std::optional(fault->description()) : std::nullopt;
    if (text == shown_) return std::nullopt;
    shown_ = text;
    return CaptureWatchdogReport{std::move(fault)};
}

}  // namespace mossly::meeting
