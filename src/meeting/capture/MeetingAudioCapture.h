#pragma once

#include <QString>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "MeetingAudioChunk.h"
#include "MeetingTypes.h"

// What the meeting controller needs from a capture back-end, and nothing more:
// the controller is tested with fakes, the app runs it on the audio server.
namespace mossly::meeting {

// An input device the user can pick for the microphone.
struct MicrophoneDevice {
    QString id;    // stable across restarts (the server's source name)
    QString name;  // for people
    bool operator==(const MicrophoneDevice&) const = default;
};

// One source of meeting audio. `onChunk` and `onFailure` are called on the
// capture's own thread, never after stop() has returned.
class MeetingAudioCapture {
public:
    using ChunkHandler = std::function<void(MeetingAudioChunk chunk)>;
    using FailureHandler = std::function<void(const MeetingSessionError& error)>;
    // Trouble that does not stop the capture (nothing arrives, only silence): called
    // with it, and with nothing once it is over. Same thread and lifetime as onChunk.
    using WarningHandler = std::function<void(const std::optional<MeetingSessionError>& warning)>;

    virtual ~MeetingAudioCapture() = default;
    virtual MeetingCaptureSource source() const = 0;
    // Starts delivering chunks (times from the first chunk). `deviceUID` picks the
    // microphone (absent: the default input); system audio ignores it. An error
    // that prevents starting is returned; later trouble goes to `onFailure`.
    virtual std::expected<void, MeetingSessionError> start(const std::optional<QString>& deviceUID,
                                                           ChunkHandler onChunk, FailureHandler onFailure) = 0;
    virtual void stop() = 0;
    // Set before start(); a capture that has no warnings never calls it.
    void setWarningHandler(WarningHandler onWarning) { onWarning_ = std::move(onWarning); }

protected:
    void warn(const std::optional<MeetingSessionError>& warning) const {
        if (onWarning_) onWarning_(warning);
    }

private:
    WarningHandler onWarning_;
};

// Makes the capture for a source; the controller owns what it returns.
using MeetingCaptureFactory = std::function<std::unique_ptr<MeetingAudioCapture>(MeetingCaptureSource source)>;

// Can a source be recorded before the meeting starts? On Linux the audio server
// grants access to every local client, so the answer is what is missing: the
// server itself, a microphone, an output device whose sound could be recorded.
class MeetingPermissions {
public:
    virtual ~MeetingPermissions() = default;
    virtual std::expected<void, MeetingSessionError> microphoneAccess() = 0;
    virtual std::expected<void, MeetingSessionError> systemAudioAccess() = 0;
};

}  // namespace mossly::meeting
