#include "MeetingRecorder.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>

#include "Diagnostics.h"
#include "MeetingRecorderWindow.h"
#include "MeetingSessionController.h"
#include "NoteStore.h"

namespace mossly {

using namespace meeting;

namespace {

// The recorder's reports go to the app's diagnostics centre.
class DiagnosticsCenterSink final : public MeetingDiagnostics {
public:
    void event(const QString& name, const MeetingDiagnosticFields& fields) override {
        DiagnosticsCenter::shared().event(name, convert(fields));
    }
    void span(const QString& name, double durationMs, const MeetingDiagnosticFields& fields) override {
        DiagnosticFields converted = convert(fields);
        converted.emplace_back(QStringLiteral("durationMs"), durationMs);
        DiagnosticsCenter::shared().event(name, converted);
    }

private:
    static DiagnosticFields convert(const MeetingDiagnosticFields& fields) {
        DiagnosticFields converted;
        for (const auto& [key, value] : fields) converted.emplace_back(key, value);
        return converted;
    }
};

}  // namespace

MeetingRecorder::MeetingRecorder(NoteStore& store, MeetingSessionServices services, MicrophoneList microphones,
                                 QObject* parent)
    : QObject(parent), store_(store), preferences_(preferencesFile_), settings_(preferences_), models_({}),
      microphones_(std::move(microphones)) {
    if (!services.model) services.model = std::make_shared<WhisperModelManagerLocator>(models_);
    if (!services.notesDirectory) services.notesDirectory = [this] { return store_.directory(); };
    if (!services.diagnostics) services.diagnostics = std::make_shared<DiagnosticsCenterSink>();
    providers_ = std::make_unique<MeetingProviderStatus>(services.providerFactory);
    controller_ = std::make_unique<MeetingSessionController>(settings_, std::move(services));
    connect(controller_.get(), &MeetingSessionController::phaseChanged, this,
            [this] { emit recordingChanged(isRecording()); });
    // Each write shows at once in the list and in an open editor, merged with what the user types there.
    const auto patchNote = [this] {
        const QUrl url = controller_->noteURL();
        if (url.isLocalFile()) store_.patchMeetingNote(url.toLocalFile());
    };
    connect(controller_.get(), &MeetingSessionController::noteURLChanged, this, patchNote);
    connect(controller_.get(), &MeetingSessionController::noteWritten, this, patchNote);
    connect(controller_.get(), &MeetingSessionController::phaseChanged, this, patchNote);
}

MeetingRecorder::~MeetingRecorder() {
    delete window_;
}

bool MeetingRecorder::isRecording() const {
    const MeetingSessionPhase phase = controller_->phase();
    return phase == MeetingSessionPhase::recording || phase == MeetingSessionPhase::paused;
}

MeetingRecorderWindow* MeetingRecorder::showWindow() {
    if (!window_) {
        window_ = new MeetingRecorderWindow(*controller_, settings_, models_, *providers_, microphones_);
        window_->setAttribute(Qt::WA_DeleteOnClose);
        connect(window_, &MeetingRecorderWindow::openNoteRequested, this, &MeetingRecorder::openNoteRequested);
    }
    window_->show();
    window_->raise();
    window_->activateWindow();
    return window_;
}

void MeetingRecorder::microphonesChanged() {
    // A plug-in arrives as a burst of server events: list the inputs once it settles.
    if (!microphoneRefresh_) {
        microphoneRefresh_ = new QTimer(this);
        microphoneRefresh_->setSingleShot(true);
        connect(microphoneRefresh_, &QTimer::timeout, this, [this] {
            if (window_) window_->refreshMicrophones();
        });
    }
    microphoneRefresh_->start(microphoneRefreshDelayMs);
}

void MeetingRecorder::finishStoppedMeetingBeforeQuit() {
    const auto finishing = [this] {
        const MeetingSessionPhase phase = controller_->phase();
        return !controller_->canRetryFinalWrite() &&
               (phase == MeetingSessionPhase::finalizing || phase == MeetingSessionPhase::summarizing);
    };
    if (!finishing()) return;
    // Not modal and no event loop of its own: the wait below keeps every window responsive.
    // No parent: the recorder window may be closed (and deleted) meanwhile.
    QMessageBox box(QMessageBox::Information, tr("Finishing the Meeting"), QString(), QMessageBox::NoButton);
    box.setObjectName(quitDialogName);
    box.setWindowModality(Qt::NonModal);
    QPushButton* stopSummary = box.addButton(tr("Stop Summary and Quit"), QMessageBox::DestructiveRole);
    stopSummary->setObjectName(QStringLiteral("meetingQuitStopSummary"));
    connect(stopSummary, &QPushButton::clicked, this, [this] { controller_->stopSummary(); });
    box.setEscapeButton(static_cast<QAbstractButton*>(nullptr));
    const auto show = [this, &box, stopSummary] {
        const bool summarizing = controller_->phase() == MeetingSessionPhase::summarizing;
        box.setText(summarizing ? tr("The transcript is saved in the meeting note. Mossly quits once the summary is "
                                     "written; stop the summary to quit now.")
                                : tr("Saving the meeting transcript… Mossly quits once every word is in the "
                                     "meeting note."));
        stopSummary->setVisible(summarizing);
    };
    show();
    const auto shown = connect(controller_.get(), &MeetingSessionController::phaseChanged, &box, show);
    box.show();
    // Finalizing ends when every word is written (or the write fails and is kept for the
    // retry below); a summary ends by the provider's time limit at the latest.
    QEventLoop waiting;
    const auto check = [&waiting, finishing] {
        if (!finishing()) waiting.quit();
    };
    connect(controller_.get(), &MeetingSessionController::phaseChanged, &waiting, check);
    connect(controller_.get(), &MeetingSessionController::finalWritePendingChanged, &waiting, check);
    if (finishing()) waiting.exec();
    disconnect(shown);
}

void MeetingRecorder::checkpointBeforeQuit(int timeoutMs) {
    finishStoppedMeetingBeforeQuit();
    // A stopped meeting whose final write failed gets one more try as well.
    if (!isRecording() && !controller_->canRetryFinalWrite()) return;
    bool done = false;
    controller_->checkpointForTermination([&done] { done = true; });
    // Quitting waits for the transcript to be durable; the app does nothing else meanwhile.
    QElapsedTimer timer;
    timer.start();
    while (!done && timer.elapsed() < timeoutMs) QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
}

}  // namespace mossly
