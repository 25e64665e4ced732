#pragma once

#include <chrono>
#include <expected>
#include <functional>
#include <memory>
#include <vector>

#include "MeetingAudioCapture.h"
#include "PulseClient.h"

namespace mossly::meeting {

// The server's sources that are not monitors, in the server's order.
std::expected<std::vector<MicrophoneDevice>, MeetingSessionError> listMicrophones(
    std::chrono::milliseconds timeout = defaultServerTimeout);

// Tells when sources come, go or change, or the default changes (a headset
// plugged in): `onChange` runs on the watcher's own thread, and never after the
// watcher is destroyed. Read listMicrophones() again then.
class MicrophoneWatcher {
public:
    static std::expected<std::unique_ptr<MicrophoneWatcher>, MeetingSessionError> start(
        std::function<void()> onChange, std::chrono::milliseconds timeout = defaultServerTimeout);

private:
    explicit MicrophoneWatcher(std::unique_ptr<PulseClient> client) : client_(std::move(client)) {}
    std::unique_ptr<PulseClient> client_;
};

// A source can be recorded when a server answers and has it: a microphone that
// is no monitor, a default sink with a monitor for system audio.
class PulseMeetingPermissions final : public MeetingPermissions {
public:
    explicit PulseMeetingPermissions(std::chrono::milliseconds timeout = defaultServerTimeout) : timeout_(timeout) {}
    std::expected<void, MeetingSessionError> microphoneAccess() override;
    std::expected<void, MeetingSessionError> systemAudioAccess() override;

private:
    std::chrono::milliseconds timeout_;
};

// A MeetingCaptureFactory: the captures it makes share one SpeechActivity, so
// system capture can tell when the microphone hears speech.
std::unique_ptr<MeetingAudioCapture> makePulseCapture(MeetingCaptureSource source);

}  // namespace mossly::meeting
