#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <cstdio>
#include <unistd.h>

#include "AppIcon.h"
#include "AppLifecycle.h"
#include "Diagnostics.h"
#include "EditorPane.h"
#include "MainWindow.h"
#include "MeetingRecorder.h"
#include "PulseDevices.h"
#include "NoteStore.h"
#include "NotesLocation.h"
#include "QuitFlow.h"

using namespace mossly;

namespace {

// The folder from --notes-dir, else from the notes-location configuration.
Result<QString> notesDirectory(const QCommandLineParser& parser, const QCommandLineOption& option) {
    if (parser.isSet(option)) return QDir(parser.value(option)).absolutePath();
    auto resolution = resolveConfiguredNotesDirectory();
    if (!resolution) return fail(resolution.error());
    if (resolution->notice) DiagnosticsCenter::shared().event(*resolution->notice);
    return resolution->directory;
}

}  // namespace

int main(int argc, char** argv) {
    // HTML notes are shown in Qt WebEngine, which needs this before the application exists.
    QCoreApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
    // Chromium's sandbox cannot start as root; HTML notes are shown with scripts
    // off and every request refused but the note's own files either way.
    if (geteuid() == 0 && qEnvironmentVariableIsEmpty("QTWEBENGINE_DISABLE_SANDBOX")) {
        qputenv("QTWEBENGINE_DISABLE_SANDBOX", "1");
    }
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Mossly"));
    QApplication::setOrganizationDomain(QStringLiteral("com.bellam.notes"));
    QApplication::setDesktopFileName(QStringLiteral("mossly"));
    QApplication::setWindowIcon(appIcon());

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Mossly: local-first notes"));
    parser.addHelpOption();
    const QCommandLineOption notesDirOption(QStringLiteral("notes-dir"), QStringLiteral("Open the notes in DIR."),
                                            QStringLiteral("DIR"));
    parser.addOption(notesDirOption);
    if (!parser.parse(QApplication::arguments())) {  // parse(), not process(): tolerate platform flags
        std::fprintf(stderr, "%s\n", qPrintable(parser.errorText()));
        return 2;
    }
    if (parser.isSet(QStringLiteral("help"))) parser.showHelp();

    DiagnosticsCenter& diagnostics = DiagnosticsCenter::shared();
    diagnostics.setLogFile(defaultDiagnosticsLogPath());
    auto directory = notesDirectory(parser, notesDirOption);
    if (!directory) {
        std::fprintf(stderr, "%s\n", qPrintable(directory.error().description()));
        return 1;
    }

    NoteStore::Options options{.createsWelcomeNote = true, .loadsNotesSynchronously = false, .welcomeIconPng = appIconPng()};
    options.usesNoteListCache = true;
    NoteStore store(*directory, options);
    // Reading the list starts now, while the window is built; it is shown from the event loop.
    store.loadInitialNotes();
    AppLifecycle lifecycle;
    diagnostics.event(QStringLiteral("Application initialized"));

    MainWindow window(store);
    // Meetings record from the desktop's audio server (PulseAudio, or PipeWire's).
    meeting::MeetingSessionServices meetingServices;
    meetingServices.captureFactory = meeting::makePulseCapture;
    meetingServices.permissions = std::make_shared<meeting::PulseMeetingPermissions>();
    MeetingRecorder recorder(store, std::move(meetingServices),
                             [] { return meeting::listMicrophones().value_or(std::vector<meeting::MicrophoneDevice>{}); });
    window.setMeetingRecorder(&recorder);
    // Headsets come and go: the recorder's input list follows (no audio server: no list to follow).
    auto microphoneWatcher = meeting::MicrophoneWatcher::start([&recorder] {
        QMetaObject::invokeMethod(&recorder, &MeetingRecorder::microphonesChanged, Qt::QueuedConnection);
    });
    recorder.controller().recoverInterruptedMeetings();  // meetings the last run could not finish
    lifecycle.handleTerminationSignals();
    lifecycle.watchMainWindow(&window);
    lifecycle.setTerminationHandler([&store, &recorder, &window, prompts = dialogQuitPrompts(&window)](bool mayCancel) {
        recorder.checkpointBeforeQuit();  // a running meeting is kept, to be recovered next time
        for (EditorPane* pane : window.findChildren<EditorPane*>()) pane->flushWebEdits();
        return finishWorkBeforeQuit(store, prompts, mayCancel);
    });
    window.show();
    diagnostics.event(QStringLiteral("Application finished launching"));
    return QApplication::exec();
}
