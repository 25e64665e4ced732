#include "WhisperModelState.h"

#include <cmath>

namespace mossly::meeting {

WhisperModelError WhisperModelError::httpStatus(long status) {
    return {Code::httpStatus, QStringLiteral("The model download failed (HTTP %1).").arg(status)};
}

WhisperModelError WhisperModelError::transfer(const QString& detail) {
    return {Code::transfer, QStringLiteral("The model download was interrupted: ") + detail};
}

WhisperModelError WhisperModelError::checksumMismatch() {
    return {Code::checksumMismatch,
            QStringLiteral("The downloaded model did not match its checksum. Download it again.")};
}

WhisperModelError WhisperModelError::file(const QString& detail) {
    return {Code::file, QStringLiteral("The model file could not be saved: ") + detail};
}

namespace whisper_model_texts {

QString settingsStatus(const WhisperModelState& state, std::optional<double> progress) {
    switch (state.kind) {
        case WhisperModelState::Kind::installed:
            return QStringLiteral("Model installed and verified");
        case WhisperModelState::Kind::notInstalled:
            return QStringLiteral("Model not installed");
        case WhisperModelState::Kind::failed:
            return state.detail;
        case WhisperModelState::Kind::downloading:
            break;
    }
    QString text = QStringLiteral("Downloading and verifying…");
    if (progress) text += QStringLiteral(" %1%").arg(static_cast<int>(std::floor(*progress * 100)));
    return text;
}

QString recorderStatus(const WhisperModelState& state) {
    switch (state.kind) {
        case WhisperModelState::Kind::installed:
            return QStringLiteral("Local Whisper base model ready");
        case WhisperModelState::Kind::downloading:
            return QStringLiteral("Downloading and verifying local model…");
        case WhisperModelState::Kind::notInstalled:
        case WhisperModelState::Kind::failed:
            break;
    }
    return QStringLiteral("Local Whisper model required");
}

}  // namespace whisper_model_texts

}  // namespace mossly::meeting
