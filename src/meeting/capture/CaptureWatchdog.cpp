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
    reportedNothing_ = reportedSilence_ = false;
}

void CaptureWatchdog::chunkArrived(float level) {
    lastChunk_ = clock_();
    reportedNothing_ = false;
    if (level > digitalSilence) {
        lastSound_ = lastChunk_;
        reportedSilence_ = false;
    }
}

std::optional<MeetingSessionError> CaptureWatchdog::check() {
    const auto now = clock_();
    if (now - lastChunk_ >= limit_) {
        if (reportedNothing_) return std::nullopt;
        reportedNothing_ = true;
        return captureErrors::nothingArrived(source_, limit_);
    }
    if (source_ != MeetingCaptureSource::system || !speech_ || reportedSilence_) return std::nullopt;
    const auto speech = speech_->lastSpeech();
    // Speech heard during the silent stretch, and the stretch long enough.
    if (speech && *speech > lastSound_ && now - lastSound_ >= limit_) {
        reportedSilence_ = true;
        return captureErrors::onlySilence(limit_);
    }
    return std::nullopt;
}

}  // namespace mossly::meeting
