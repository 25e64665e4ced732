#include "AppSession.h"

#include "AppIcon.h"
#include "AppLifecycle.h"
#include "Diagnostics.h"
#include "EditorPane.h"
#include "MainWindow.h"
#include "MeetingRecorder.h"
#include "NoteStore.h"
#include "PulseDevices.h"
#include "QuitFlow.h"

namespace mossly {

namespace {

NoteStore::Options storeOptions() {
    NoteStore::Options options{.createsWelcomeNote = true, .loadsNotesSynchronously = false,
                               .welcomeIconPng = appIconPng()};
    options.usesNoteListCache = true;
    return options;
}

meeting::MeetingSessionServices pulseMeetingServices() {
    // Meetings record from the desktop's audio server (PulseAudio, or PipeWire's).
    meeting::MeetingSessionServices services;
    services.captureFactory = meeting::makePulseCapture;
    services.permissions = std::make_shared<meeting::PulseMeetingPermissions>();
    return services;
}

}  // namespace

struct AppSession::Parts {
    NoteStore store;
    AppLifecycle lifecycle;
    MainWindow window;
    MeetingRecorder recorder;
    std::expected<std::unique_ptr<meeting::MicrophoneWatcher>, meeting::MeetingSessionError> microphoneWatcher;

    explicit Parts(const QString& directory)
        : store(directory, storeOptions()),
          window(store),
          recorder(store, pulseMeetingServices(), [] {
              return meeting::listMicrophones().value_or(std::vector<meeting::MicrophoneDevice>{});
          }) {}
};

AppSession::AppSession(const QString& notesDirectory) : parts_(std::make_unique<Parts>(notesDirectory)) {
    Parts& p = *parts_;
    // Reading the list starts now; it is shown from the event loop.
    p.store.loadInitialNotes();
    DiagnosticsCenter::shared().event(QStringLiteral("Application initialized"));
    p.window.setMeetingRecorder(&p.recorder);
    // Headsets come and go: the recorder's input list follows (no audio server: no list to follow).
    MeetingRecorder* recorder = &p.recorder;
    p.microphoneWatcher = meeting::MicrophoneWatcher::start([recorder] {
        QMetaObject::invokeMethod(recorder, &MeetingRecorder::microphonesChanged, Qt::QueuedConnection);
    });
    p.recorder.controller().recoverInterruptedMeetings();  // meetings the last run could not finish
    p.lifecycle.watchMainWindow(&p.window);
    p.lifecycle.setTerminationHandler(
        [&store = p.store, &recorder = p.recorder, &window = p.window,
         prompts = dialogQuitPrompts(&p.window)](bool mayCancel) {
            recorder.checkpointBeforeQuit();  // a running meeting is kept, to be recovered next time
            for (EditorPane* pane : window.findChildren<EditorPane*>()) pane->flushWebEdits();
            return finishWorkBeforeQuit(store, prompts, mayCancel);
        });
}

AppSession::~AppSession() = default;

NoteStore& AppSession::store() const { return parts_->store; }
MainWindow& AppSession::window() const { return parts_->window; }
MeetingRecorder& AppSession::recorder() const { return parts_->recorder; }
AppLifecycle& AppSession::lifecycle() const { return parts_->lifecycle; }

}  // namespace mossly
