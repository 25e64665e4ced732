#pragma once

#include <QString>
#include <chrono>

#include "MeetingTypes.h"

// What capture tells the user when the audio server or a device lets it down.
namespace mossly::meeting::captureErrors {

inline MeetingSessionError noAudioServer() {
    return MeetingSessionError::captureFailed(
        QStringLiteral("No audio server is running, so meeting audio cannot be captured."));
}
inline MeetingSessionError serverNotAnswering() {
    return MeetingSessionError::captureFailed(QStringLiteral("The audio server did not answer in time."));
}
inline MeetingSessionError serverStopped() {
    return MeetingSessionError::captureFailed(QStringLiteral("The audio server stopped."));
}
inline MeetingSessionError microphoneGone() {
    return MeetingSessionError::captureFailed(QStringLiteral("The selected microphone is no longer available."));
}
inline MeetingSessionError noMicrophone() {
    return MeetingSessionError::captureFailed(QStringLiteral("No microphone is available."));
}
inline MeetingSessionError noSpeakers() {
    return MeetingSessionError::captureFailed(
        QStringLiteral("No speakers or other audio output is available for system audio capture."));
}
inline MeetingSessionError streamFailed(const QString& reason) {
    return MeetingSessionError::captureFailed(QStringLiteral("The audio server refused the recording: %1.").arg(reason));
}
inline QString seconds(std::chrono::milliseconds limit) {
    const auto count = limit.count() / 1000.0;
    return count == 1 ? QStringLiteral("1 second") : QStringLiteral("%1 seconds").arg(count);
}
inline MeetingSessionError nothingArrived(MeetingCaptureSource source, std::chrono::milliseconds limit) {
    const QString what = source == MeetingCaptureSource::system ? QStringLiteral("system") : QStringLiteral("microphone");
    return MeetingSessionError::captureFailed(QStringLiteral("No %1 audio has arrived for %2.").arg(what, seconds(limit)));
}
inline MeetingSessionError onlySilence(std::chrono::milliseconds limit) {
    return MeetingSessionError::captureFailed(
        QStringLiteral("Nothing is playing on the speakers: system audio has been silent for %1 while the "
                       "microphone hears speech.")
            .arg(seconds(limit)));
}

}  // namespace mossly::meeting::captureErrors
