#include "MeetingRecorder.h"

#include <QCoreApplication>
#include <QElapsedTimer>
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

void MeetingRecorder::checkpointBeforeQuit(int timeoutMs) {
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
