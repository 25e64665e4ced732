#include "AppSession.h"

#include <QDir>
#include <QFileInfo>
#include <QMessageBox>
#include <QPushButton>
#include <QStatusBar>
#include <QTimer>

#include "AppIcon.h"
#include "AppLifecycle.h"
#include "DesktopLook.h"
#include "Diagnostics.h"
#include "EditorPane.h"
#include "MainWindow.h"
#include "MeetingRecorder.h"
#include "NoteLink.h"
#include "NotePathPolicy.h"
#include "NoteStore.h"
#include "PulseDevices.h"
#include "QuitFlow.h"
#include "SingleInstance.h"

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
    SingleInstance instance;
    std::expected<std::unique_ptr<meeting::MicrophoneWatcher>, meeting::MeetingSessionError> microphoneWatcher;

    explicit Parts(const QString& directory)
        : store((followDesktopLook(), directory), storeOptions()),
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
    QObject::connect(&p.instance, &SingleInstance::filesReceived, &p.window, [this](const QStringList& files) {
        window().show();
        window().raise();
        window().activateWindow();
        openFiles(files);
    });
    p.lifecycle.setTerminationHandler(
        [&store = p.store, &recorder = p.recorder, &window = p.window,
         prompts = dialogQuitPrompts(&p.window)](bool mayCancel) {
            recorder.checkpointBeforeQuit();  // a running meeting is kept, to be recovered next time
            for (EditorPane* pane : window.findChildren<EditorPane*>()) pane->flushWebEdits();
            return finishWorkBeforeQuit(store, prompts, mayCancel);
        });
}

AppSession::~AppSession() = default;

namespace {

// The file a mossly:// link names, when it is a note file inside `library`.
Result<QString> noteForLink(const QString& link, const QDir& library) {
    auto identifier = NoteLink::identifier(link);
    if (!identifier) return fail(identifier.error());
    auto path = NotePathPolicy().url(*identifier, library.absolutePath());
    if (!path) return fail(path.error());
    // Symbolic links are never followed: neither the note nor a folder on the way may lead elsewhere.
    const QFileInfo file(*path);
    const QString inside = QDir(library.canonicalPath()).relativeFilePath(file.canonicalFilePath());
    if (!file.isFile() || file.isSymLink() || file.canonicalFilePath().isEmpty() || inside != *identifier) {
        return fail(Error::notFound(*identifier));
    }
    return *path;
}

}  // namespace

void AppSession::openFiles(const QStringList& paths) {
    if (paths.isEmpty()) return;
    NoteStore& notes = store();
    if (notes.isLoadingInitialNotes() || notes.isReadingNoteDetails()) {
        // The library is still being read: open them once it is.
        auto* waiting = new QTimer(&window());
        QObject::connect(waiting, &QTimer::timeout, &window(), [this, paths, waiting] {
            if (store().isLoadingInitialNotes() || store().isReadingNoteDetails()) return;
            waiting->deleteLater();
            openFiles(paths);
        });
        waiting->start(100);
        return;
    }
    const QDir library(notes.directory());
    QStringList toImport;
    QStringList refused;
    for (const QString& request : paths) {
        QString path = request;
        if (NoteLink::isNoteLink(request)) {
            // Links are untrusted: they open a note of this library, or only say why not.
            auto note = noteForLink(request, library);
            if (!note) {
                refused.append(QObject::tr("Link not opened: ") + note.error().description());
                continue;
            }
            path = *note;
        }
        const QFileInfo file(path);
        if (!file.isFile()) {
            refused.append(QObject::tr("\u201C%1\u201D was not found.").arg(path));
        } else if (!noteContentTypeForFileName(file.fileName())) {
            refused.append(QObject::tr("\u201C%1\u201D is not a Markdown, HTML or sketch file.").arg(file.fileName()));
        } else if (const QString inside = library.relativeFilePath(file.absoluteFilePath()); !inside.startsWith(u"..")) {
            if (!notes.note(library.filePath(inside))) (void)notes.reloadFromDiskPreservingSelection();  // just written
            if (const auto url = notes.resolveNoteID(QDir::cleanPath(library.filePath(inside)))) notes.select(*url);
        } else {
            toImport.append(file.absoluteFilePath());
        }
    }
    if (!refused.isEmpty()) window().statusBar()->showMessage(refused.join(u' '), 15000);
    if (toImport.isEmpty()) return;
    auto* question = new QMessageBox(
        QMessageBox::Question, QObject::tr("Import Notes"),
        QObject::tr("Import %n file(s) into your notes? Mossly copies them; the files stay where they are, unchanged.",
                    nullptr, static_cast<int>(toImport.size())),
        QMessageBox::Cancel, &window());
    question->setObjectName(QStringLiteral("importOpenedFiles"));
    question->setInformativeText(toImport.join(u'\n'));
    QPushButton* import = question->addButton(QObject::tr("Import"), QMessageBox::AcceptRole);
    question->setDefaultButton(import);
    question->setAttribute(Qt::WA_DeleteOnClose);
    QObject::connect(question, &QMessageBox::buttonClicked, &window(), [this, import, toImport](QAbstractButton* chosen) {
        if (chosen == import) store().importNoteFiles(toImport);
    });
    question->open();
}

NoteStore& AppSession::store() const { return parts_->store; }
MainWindow& AppSession::window() const { return parts_->window; }
MeetingRecorder& AppSession::recorder() const { return parts_->recorder; }
AppLifecycle& AppSession::lifecycle() const { return parts_->lifecycle; }

}  // namespace mossly
