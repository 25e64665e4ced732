#pragma once

#include <QString>
#include <optional>

namespace mossly::meeting {

// Where the speech model stands. `installed` carries the verified file's path,
// `failed` the description of what went wrong.
struct WhisperModelState {
    enum class Kind { notInstalled, downloading, installed, failed };

    static WhisperModelState notInstalled() { return {Kind::notInstalled, {}}; }
    static WhisperModelState downloading() { return {Kind::downloading, {}}; }
    static WhisperModelState installed(QString path) { return {Kind::installed, std::move(path)}; }
    static WhisperModelState failed(QString description) { return {Kind::failed, std::move(description)}; }

    Kind kind = Kind::notInstalled;
    QString detail;  // the model path when installed, the error's description when failed

    bool isInstalled() const { return kind == Kind::installed; }
    bool operator==(const WhisperModelState&) const = default;
};

// Why a download or removal failed; each case carries the text shown to the user.
class WhisperModelError {
  public:
    enum class Code { httpStatus, transfer, checksumMismatch, file };

    static WhisperModelError httpStatus(long status);
    static WhisperModelError transfer(const QString& detail);
    static WhisperModelError checksumMismatch();
    static WhisperModelError file(const QString& detail);

    Code code() const { return code_; }
    const QString& description() const { return description_; }

  private:
    WhisperModelError(Code code, QString description) : code_(code), description_(std::move(description)) {}
    Code code_;
    QString description_;
};

// The names the recorder and the settings page show for the model.
namespace whisper_model_texts {
inline constexpr const char* displayName = "Whisper Base (multilingual)";
inline constexpr const char* sizeNote =
    "About 142 MB. Downloaded from the official whisper.cpp model repository and checksum verified.";
// The settings page's status line; with a known progress the percentage follows.
QString settingsStatus(const WhisperModelState& state, std::optional<double> progress);
// The recorder's headline for the model.
QString recorderStatus(const WhisperModelState& state);
}  // namespace whisper_model_texts

}  // namespace mossly::meeting
