#pragma once

#include <QWidget>
#include <functional>
#include <vector>

#include "MeetingAudioCapture.h"

class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QProgressBar;
class QPushButton;

namespace mossly {

namespace meeting {
class MeetingProviderStatus;
class MeetingSessionController;
struct MicrophoneDevice;
class MeetingSettings;
class WhisperModelManager;
}  // namespace meeting

// Items of a provider choice hold the provider's raw name. One whose summary
// could only fail (refused, program missing) is disabled with the reason as its tip.
void showProviderStates(QComboBox& choice, const meeting::MeetingProviderStatus& providers);

// The meeting recorder: what to record and whether everything is ready before,
// the live transcript with levels, backlog and time while recording, and the
// result after. Everything it shows comes from the controller's published
// state; every button is one controller call.
class MeetingRecorderWindow : public QWidget {
    Q_OBJECT
public:
    // `microphones` lists the inputs to choose from (empty: only the default input).
    MeetingRecorderWindow(meeting::MeetingSessionController& controller, meeting::MeetingSettings& settings,
                          meeting::WhisperModelManager& models, meeting::MeetingProviderStatus& providers,
                          std::function<std::vector<meeting::MicrophoneDevice>()> microphones = {},
                          QWidget* parent = nullptr);
    QComboBox* microphonePicker() const { return microphonePicker_; }
    QComboBox* providerChoice() const { return provider_; }
    QCheckBox* keepAudioBox() const { return keepAudio_; }
    QProgressBar* downloadProgress() const { return downloadProgress_; }
    // Reads the inputs again (one was plugged in or removed). The chosen one stays
    // chosen; if it is gone it stays listed as disconnected rather than silently
    // becoming the default input.
    void refreshMicrophones();

    QPushButton* recordButton() const { return record_; }
    QPushButton* stopButton() const { return stop_; }
    QPlainTextEdit* transcriptView() const { return transcript_; }
    QLabel* statusLabel() const { return status_; }
    QLabel* warningLabel() const { return warning_; }
    QLabel* errorLabel() const { return error_; }

signals:
    void openNoteRequested(const QString& path);

private:
    void showPhase();
    void showTranscript();
    void showModel();
    void showTimes();
    void takeConfiguration();
    // The settings page changed a default between meetings: the choices show it.
    void showConfiguration();
    void showProviders();

    meeting::MeetingSessionController& controller_;
    meeting::MeetingSettings& settings_;
    meeting::WhisperModelManager& models_;
    meeting::MeetingProviderStatus& providers_;
    std::function<std::vector<meeting::MicrophoneDevice>()> microphones_;
    QLineEdit* title_;
    QCheckBox* microphone_;
    QComboBox* microphonePicker_;
    QCheckBox* system_;
    QCheckBox* keepAudio_;
    QCheckBox* consent_;
    QComboBox* provider_;
    QLabel* model_;
    QPushButton* download_;
    QProgressBar* downloadProgress_;
    QProgressBar* microphoneLevel_;
    QProgressBar* systemLevel_;
    QPlainTextEdit* transcript_;
    QLabel* times_;
    QLabel* status_;
    QLabel* warning_;
    QLabel* error_;
    QPushButton* record_;
    QPushButton* pause_;
    QPushButton* stop_;
    QPushButton* retrySummary_;
    QPushButton* saveTranscript_;
    QPushButton* openNote_;
    QPushButton* newMeeting_;
};

}  // namespace mossly
