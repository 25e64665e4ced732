#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "MeetingTypes.h"

namespace mossly::meeting {

using CaptureClock = std::function<std::chrono::steady_clock::time_point()>;

inline constexpr std::chrono::milliseconds defaultWatchdogLimit{5000};
inline constexpr float speechThreshold = 0.002f;  // RMS level: the transcription's silence threshold

// When the microphone last heard speech; shared between the two captures of a
// meeting so that system capture can tell "nothing plays" from "nobody talks".
class SpeechActivity {
public:
    void heard(float level, std::chrono::steady_clock::time_point now) {
        if (level > speechThreshold) lastSpeech_.store(now.time_since_epoch().count());
    }
    std::optional<std::chrono::steady_clock::time_point> lastSpeech() const {
        const auto ticks = lastSpeech_.load();
        if (ticks == never) return std::nullopt;
        return std::chrono::steady_clock::time_point(std::chrono::steady_clock::duration(ticks));
    }

private:
    static constexpr std::chrono::steady_clock::rep never = std::numeric_limits<std::chrono::steady_clock::rep>::min();
    std::atomic<std::chrono::steady_clock::rep> lastSpeech_{never};
};

// What the watchdog has to say: a warning to show, or (none) that the one shown is over.
struct CaptureWatchdogReport {
    std::optional<MeetingSessionError> warning;
};

// Notices a capture that has gone quiet in a way that is a fault, not a pause:
// no audio at all for `limit`, or (system audio) nothing but digital silence
// for `limit` while the microphone hears speech. Capture goes on meanwhile, so
// these are warnings: each is reported once, and its end once audio returns.
class CaptureWatchdog {
public:
    CaptureWatchdog(MeetingCaptureSource source, std::chrono::milliseconds limit, CaptureClock clock,
                    std::shared_ptr<const SpeechActivity> speech);

    void started();
    void chunkArrived(float level);
    // A change to report now, if any.
    std::optional<CaptureWatchdogReport> check();

private:
    std::optional<MeetingSessionError> currentFault(std::chrono::steady_clock::time_point now) const;

    MeetingCaptureSource source_;
    std::chrono::milliseconds limit_;
    CaptureClock clock_;
    std::shared_ptr<const SpeechActivity> speech_;
    std::chrono::steady_clock::time_point lastChunk_;
    std::chrono::steady_clock::time_point lastSound_;
    std::optional<QString> shown_;  // the warning reported last and not yet over
};

}  // namespace mossly::meeting
