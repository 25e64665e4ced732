#pragma once

#include <QObject>
#include <QPointer>
#include <QTimer>
#include <QSettings>
#include <memory>

#include "MeetingProviderStatus.h"
#include "MeetingSessionController.h"
#include "MeetingSessionServices.h"
#include "MeetingSettings.h"
#include "WhisperModelManager.h"

namespace mossly {

class MeetingRecorderWindow;
class NoteStore;

// The app's meeting recorder: its settings, the speech model, the one session
// controller, and its window, for the life of the app. Meetings are written
// into the store's notes folder; the store sees them as notes changed on disk.
class MeetingRecorder : public QObject {
    Q_OBJECT
public:
    // `services` brings capture and permissions (the audio server in the app, fakes in tests);
    // the model, the notes folder and diagnostics are filled in here unless set.
    using MicrophoneList = std::function<std::vector<meeting::MicrophoneDevice>()>;
    MeetingRecorder(NoteStore& store, meeting::MeetingSessionServices services, MicrophoneList microphones = {},
                    QObject* parent = nullptr);
    ~MeetingRecorder() override;

    meeting::MeetingSessionController& controller() const { return *controller_; }
    meeting::MeetingSettings& settings() { return settings_; }
    meeting::WhisperModelManager& models() { return models_; }
    // The summary providers' connection states, for the recorder window and the settings page.
    meeting::MeetingProviderStatus& providers() { return *providers_; }
    bool isRecording() const;

    // Opens (or raises) the "Meeting Recorder" window.
    MeetingRecorderWindow* showWindow();
    // Before the app quits: a running meeting is checkpointed and left to be
    // recovered at the next launch (waits at most `timeoutMs`). A stopped meeting
    // still being finalized or summarized is waited for with the app responsive and
    // a box saying so, in which the user may stop the summary.
    void checkpointBeforeQuit(int timeoutMs = 15000);

    static inline const QString quitDialogName = QStringLiteral("meetingQuitDialog");

    static constexpr int microphoneRefreshDelayMs = 300;

public slots:
    // An input was plugged in or removed: the open window lists them again.
    void microphonesChanged();

signals:
    void recordingChanged(bool recording);
    void openNoteRequested(const QString& path);

private:
    void finishStoppedMeetingBeforeQuit();

    NoteStore& store_;
    QSettings preferencesFile_;
    meeting::QSettingsMeetingPreferences preferences_;
    meeting::MeetingSettings settings_;
    meeting::WhisperModelManager models_;
    std::unique_ptr<meeting::MeetingSessionController> controller_;
    std::unique_ptr<meeting::MeetingProviderStatus> providers_;
    MicrophoneList microphones_;
    QTimer* microphoneRefresh_ = nullptr;
    QPointer<MeetingRecorderWindow> window_;
};

}  // namespace mossly
