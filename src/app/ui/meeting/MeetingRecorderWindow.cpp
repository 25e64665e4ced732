#include "MeetingRecorderWindow.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QScrollBar>
#include <QStandardItemModel>
#include <QSignalBlocker>
#include <QVBoxLayout>
#include <cmath>

#include "MeetingProviderStatus.h"
#include "MeetingSessionController.h"
#include "MeetingSettings.h"
#include "MeetingSummaryService.h"
#include "WhisperModelManager.h"

namespace mossly {

using namespace meeting;

namespace {

QString disconnectedSuffix() { return QStringLiteral(" (disconnected)"); }

QString clock(double seconds) {
    const int whole = static_cast<int>(seconds);
    return QStringLiteral("%1:%2").arg(whole / 60).arg(whole % 60, 2, 10, QLatin1Char('0'));
}

QProgressBar* levelMeter(QWidget* parent) {
    auto* meter = new QProgressBar(parent);
    meter->setRange(0, 100);
    meter->setTextVisible(false);
    meter->setMaximumHeight(8);
    return meter;
}

// RMS of speech sits around 0.01-0.3: a meter in decibels shows quiet voices too.
int meterValue(float level) {
    if (level <= 0.0001f) return 0;
    const double decibels = 20 * std::log10(static_cast<double>(level));
    return std::clamp(static_cast<int>((decibels + 60) / 60 * 100), 0, 100);
}

}  // namespace

void showProviderStates(QComboBox& choice, const MeetingProviderStatus& providers) {
    auto* items = qobject_cast<QStandardItemModel*>(choice.model());
    for (int index = 0; index < choice.count(); ++index) {
        const auto kind = providerKindFromRaw(choice.itemData(index).toString());
        if (!kind || *kind == MeetingSummaryProviderKind::none) continue;
        const auto state = providers.state(*kind);
        const bool usable = !state || MeetingProviderStatus::canSummarize(*state);
        if (items) items->item(index)->setEnabled(usable);
        choice.setItemData(index, state ? MeetingProviderStatus::describe(*state) : QString(), Qt::ToolTipRole);
    }
}

MeetingRecorderWindow::MeetingRecorderWindow(MeetingSessionController& controller, MeetingSettings& settings,
                                             WhisperModelManager& models, MeetingProviderStatus& providers,
                                             std::function<std::vector<MicrophoneDevice>()> microphones,
                                             QWidget* parent)
    : QWidget(parent, Qt::Window), controller_(controller), settings_(settings), models_(models),
      providers_(providers), microphones_(std::move(microphones)) {
    setObjectName(QStringLiteral("meetingRecorder"));
    setWindowTitle(tr("Meeting Recorder"));
    title_ = new QLineEdit(this);
    title_->setPlaceholderText(QStringLiteral("Meeting title (optional)"));
    microphone_ = new QCheckBox(tr("Microphone (You)"), this);
    microphonePicker_ = new QComboBox(this);
    refreshMicrophones();
    system_ = new QCheckBox(tr("System audio (what the speakers play)"), this);
    keepAudio_ = new QCheckBox(QStringLiteral("Keep separate microphone and system recordings"), this);
    consent_ = new QCheckBox(QStringLiteral("I\u2019m responsible for obtaining participant consent before recording."), this);
    provider_ = new QComboBox(this);
    provider_->addItem(tr("No summary"), rawValue(MeetingSummaryProviderKind::none));
    provider_->addItem(tr("Claude Code"), rawValue(MeetingSummaryProviderKind::claudeCode));
    provider_->addItem(QStringLiteral("Codex CLI \u2014 unavailable"), rawValue(MeetingSummaryProviderKind::codexCLI));
    model_ = new QLabel(this);
    download_ = new QPushButton(tr("Download"), this);
    downloadProgress_ = new QProgressBar(this);
    downloadProgress_->setRange(0, 1000);
    microphoneLevel_ = levelMeter(this);
    systemLevel_ = levelMeter(this);
    transcript_ = new QPlainTextEdit(this);
    transcript_->setObjectName(QStringLiteral("meetingTranscript"));
    transcript_->setReadOnly(true);
    transcript_->setPlaceholderText(tr("The transcript appears here while you talk."));
    times_ = new QLabel(this);
    status_ = new QLabel(this);
    // Capture goes on despite a warning (nothing arrives, only silence): amber, not red.
    warning_ = new QLabel(this);
    warning_->setObjectName(QStringLiteral("meetingWarning"));
    warning_->setWordWrap(true);
    warning_->setStyleSheet(QStringLiteral("color: #8a5a00"));
    warning_->setVisible(false);
    error_ = new QLabel(this);
    error_->setObjectName(QStringLiteral("meetingError"));
    error_->setWordWrap(true);
    error_->setStyleSheet(QStringLiteral("color: #b3261e"));
    record_ = new QPushButton(tr("Record"), this);
    pause_ = new QPushButton(tr("Pause"), this);
    stop_ = new QPushButton(tr("Stop"), this);
    retrySummary_ = new QPushButton(tr("Retry Summary"), this);
    saveTranscript_ = new QPushButton(tr("Save Transcript"), this);
    saveTranscript_->setObjectName(QStringLiteral("meetingSaveTranscript"));
    openNote_ = new QPushButton(tr("Open Meeting Note"), this);
    newMeeting_ = new QPushButton(tr("New Meeting"), this);

    auto* form = new QFormLayout;
    form->addRow(tr("Title"), title_);
    auto* microphoneRow = new QHBoxLayout;
    microphoneRow->addWidget(microphone_);
    microphoneRow->addWidget(microphonePicker_, 1);
    form->addRow(tr("Record"), microphoneRow);
    form->addRow(QString(), system_);
    form->addRow(QString(), keepAudio_);
    form->addRow(tr("Summary"), provider_);
    auto* modelRow = new QHBoxLayout;
    modelRow->addWidget(model_, 1);
    modelRow->addWidget(downloadProgress_);
    modelRow->addWidget(download_);
    form->addRow(tr("Speech model"), modelRow);
    form->addRow(QString(), consent_);
    auto* meters = new QFormLayout;
    meters->addRow(QStringLiteral("You"), microphoneLevel_);
    meters->addRow(QStringLiteral("System"), systemLevel_);
    auto* buttons = new QHBoxLayout;
    for (QPushButton* button : {record_, pause_, stop_, retrySummary_, saveTranscript_, openNote_, newMeeting_}) buttons->addWidget(button);
    buttons->addStretch(1);
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(form);
    layout->addLayout(meters);
    layout->addWidget(transcript_, 1);
    layout->addWidget(times_);
    layout->addWidget(status_);
    layout->addWidget(warning_);
    layout->addWidget(error_);
    layout->addLayout(buttons);
    resize(560, 640);

    // What the user chose last time.
    const MeetingSessionConfiguration configuration = controller_.configuration();
    title_->setText(configuration.title);
    microphone_->setChecked(configuration.sources.contains(MeetingCaptureSource::microphone));
    system_->setChecked(configuration.sources.contains(MeetingCaptureSource::system));
    showConfiguration();
    if (configuration.microphoneDeviceUID) {
        const int index = microphonePicker_->findData(*configuration.microphoneDeviceUID);
        if (index >= 0) microphonePicker_->setCurrentIndex(index);
    }

    connect(consent_, &QCheckBox::toggled, this, [this](bool on) { settings_.setHasAcknowledgedConsent(on); });
    connect(&controller_, &MeetingSessionController::configurationChanged, this, &MeetingRecorderWindow::showConfiguration);
    connect(&settings_, &MeetingSettings::changed, this, [this] {
        const QSignalBlocker quiet(consent_);
        consent_->setChecked(settings_.hasAcknowledgedConsent());
    });
    connect(&providers_, &MeetingProviderStatus::stateChanged, this, &MeetingRecorderWindow::showProviders);
    providers_.probeAll();
    connect(download_, &QPushButton::clicked, this, [this] { models_.download(); });
    connect(record_, &QPushButton::clicked, this, [this] {
        takeConfiguration();
        controller_.start();
    });
    connect(pause_, &QPushButton::clicked, this, [this] {
        if (controller_.phase() == MeetingSessionPhase::paused) {
            controller_.resume();
        } else {
            controller_.pause();
        }
    });
    connect(stop_, &QPushButton::clicked, this, [this] { controller_.stop(); });
    connect(retrySummary_, &QPushButton::clicked, this, [this] { controller_.retrySummary(); });
    connect(saveTranscript_, &QPushButton::clicked, this, [this] { controller_.retryFinalWrite(); });
    connect(&controller_, &MeetingSessionController::finalWritePendingChanged, this, &MeetingRecorderWindow::showPhase);
    connect(openNote_, &QPushButton::clicked, this, [this] {
        if (!controller_.noteURL().isEmpty()) emit openNoteRequested(controller_.noteURL().toLocalFile());
    });
    connect(newMeeting_, &QPushButton::clicked, this, [this] { controller_.reset(); });
    connect(&controller_, &MeetingSessionController::phaseChanged, this, &MeetingRecorderWindow::showPhase);
    connect(&controller_, &MeetingSessionController::phaseChanged, this, &MeetingRecorderWindow::showTimes);
    connect(&controller_, &MeetingSessionController::segmentsChanged, this, &MeetingRecorderWindow::showTranscript);
    connect(&controller_, &MeetingSessionController::elapsedChanged, this, &MeetingRecorderWindow::showTimes);
    connect(&controller_, &MeetingSessionController::backlogChanged, this, &MeetingRecorderWindow::showTimes);
    connect(&controller_, &MeetingSessionController::microphoneLevelChanged, this,
            [this] { microphoneLevel_->setValue(meterValue(controller_.microphoneLevel())); });
    connect(&controller_, &MeetingSessionController::systemLevelChanged, this,
            [this] { systemLevel_->setValue(meterValue(controller_.systemLevel())); });
    connect(&controller_, &MeetingSessionController::errorMessageChanged, this,
            [this] { error_->setText(controller_.errorMessage()); });
    connect(&controller_, &MeetingSessionController::warningMessageChanged, this, [this] {
        warning_->setText(controller_.warningMessage());
        warning_->setVisible(!controller_.warningMessage().isEmpty());
    });
    connect(&models_, &WhisperModelManager::stateChanged, this, &MeetingRecorderWindow::showModel);
    connect(&models_, &WhisperModelManager::downloadProgressChanged, this, &MeetingRecorderWindow::showModel);
    showModel();
    showPhase();
    showTranscript();
    showTimes();
    error_->setText(controller_.errorMessage());
}

void MeetingRecorderWindow::takeConfiguration() {
    MeetingSessionConfiguration configuration = controller_.configuration();
    configuration.title = title_->text().trimmed();
    configuration.sources.clear();
    if (microphone_->isChecked()) configuration.sources.insert(MeetingCaptureSource::microphone);
    if (system_->isChecked()) configuration.sources.insert(MeetingCaptureSource::system);
    configuration.retainAudio = keepAudio_->isChecked();
    const QString device = microphonePicker_->currentData().toString();
    configuration.microphoneDeviceUID = device.isEmpty() ? std::nullopt : std::optional(device);
    configuration.provider =
        providerKindFromRaw(provider_->currentData().toString()).value_or(MeetingSummaryProviderKind::none);
    controller_.setConfiguration(configuration);
}

void MeetingRecorderWindow::showConfiguration() {
    const MeetingSessionPhase phase = controller_.phase();
    if (phase != MeetingSessionPhase::idle && phase != MeetingSessionPhase::completed &&
        phase != MeetingSessionPhase::failed)
        return;  // the running meeting's own choices stay on show
    const MeetingSessionConfiguration configuration = controller_.configuration();
    keepAudio_->setChecked(configuration.retainAudio);
    consent_->setChecked(settings_.hasAcknowledgedConsent());
    provider_->setCurrentIndex(provider_->findData(rawValue(configuration.provider)));
    showProviders();
}

void MeetingRecorderWindow::showProviders() {
    showProviderStates(*provider_, providers_);
    // A provider whose summary could only fail is no choice: the meeting goes without, and says why.
    const int current = provider_->currentIndex();
    const auto* items = qobject_cast<QStandardItemModel*>(provider_->model());
    if (current >= 0 && items && !items->item(current)->isEnabled()) {
        provider_->setToolTip(provider_->itemText(current) + QStringLiteral(": ") +
                              provider_->itemData(current, Qt::ToolTipRole).toString());
        provider_->setCurrentIndex(provider_->findData(rawValue(MeetingSummaryProviderKind::none)));
    }
}

void MeetingRecorderWindow::showPhase() {
    const MeetingSessionPhase phase = controller_.phase();
    const bool idle = phase == MeetingSessionPhase::idle || phase == MeetingSessionPhase::failed;
    const bool running = phase == MeetingSessionPhase::recording || phase == MeetingSessionPhase::paused;
    const bool done = phase == MeetingSessionPhase::completed;
    for (QWidget* setting :
         std::initializer_list<QWidget*>{title_, microphone_, microphonePicker_, system_, keepAudio_, provider_, consent_}) {
        setting->setEnabled(idle);
    }
    record_->setVisible(idle);
    pause_->setVisible(running);
    pause_->setText(phase == MeetingSessionPhase::paused ? tr("Resume") : tr("Pause"));
    stop_->setVisible(running);
    retrySummary_->setVisible(done && controller_.canRetrySummary());
    // The transcript is only in memory until it is written: no New Meeting may drop it meanwhile.
    saveTranscript_->setVisible(controller_.canRetryFinalWrite());
    openNote_->setVisible(!controller_.noteURL().isEmpty() && !running);
    newMeeting_->setVisible(done || phase == MeetingSessionPhase::failed);
    switch (phase) {
        case MeetingSessionPhase::requestingPermissions:
        case MeetingSessionPhase::preparing: status_->setText(tr("Getting ready…")); break;
        case MeetingSessionPhase::recording: status_->setText(tr("Recording")); break;
        case MeetingSessionPhase::paused: status_->setText(tr("Paused")); break;
        case MeetingSessionPhase::finalizing: status_->setText(QStringLiteral("Finalizing transcript\u2026")); break;
        case MeetingSessionPhase::summarizing: status_->setText(QStringLiteral("Creating summary\u2026")); break;
        case MeetingSessionPhase::completed: status_->setText(QStringLiteral("Recording stopped \u2014 Meeting note saved")); break;
        default: status_->clear(); break;
    }
}

void MeetingRecorderWindow::showTranscript() {
    QStringList lines;
    for (const MeetingTranscriptSegment& segment : controller_.segments()) {
        lines.append(QStringLiteral("[%1] %2: %3%4")
                         .arg(clock(segment.startTime), speakerLabel(segment.source), segment.text.trimmed(),
                              segment.isStable ? QString() : QStringLiteral(" \u2026")));
    }
    const QString text = lines.join(u'\n');
    if (text == transcript_->toPlainText()) return;
    QScrollBar* bar = transcript_->verticalScrollBar();
    const bool atEnd = bar->value() == bar->maximum();
    transcript_->setPlainText(text);
    if (atEnd) bar->setValue(bar->maximum());  // follow the conversation unless the user scrolled back
}

void MeetingRecorderWindow::showTimes() {
    // Nothing is transcribed before a meeting starts: no clock, no word on its health.
    const MeetingSessionPhase phase = controller_.phase();
    const bool underway = phase == MeetingSessionPhase::recording || phase == MeetingSessionPhase::paused ||
                          phase == MeetingSessionPhase::finalizing;
    times_->setVisible(underway);
    if (!underway) return;
    const TranscriptionBacklog backlog = controller_.backlog();
    const QString health = backlog.isEmpty()
                               ? QStringLiteral("Transcription healthy")
                               : tr("Transcription is %1 s behind").arg(
                                     static_cast<int>(std::max(backlog.microphoneSeconds, backlog.systemSeconds)));
    times_->setText(tr("%1 \u2014 %2").arg(clock(controller_.elapsed()), health));
}

void MeetingRecorderWindow::showModel() {
    const WhisperModelState state = models_.state();
    model_->setText(whisper_model_texts::recorderStatus(state));
    const bool downloading = state.kind == WhisperModelState::Kind::downloading;
    download_->setVisible(state.kind != WhisperModelState::Kind::installed);
    download_->setEnabled(!downloading);
    downloadProgress_->setVisible(downloading);
    if (const auto progress = models_.downloadProgress()) {
        downloadProgress_->setRange(0, 1000);  // it was busy while the size was unknown
        downloadProgress_->setValue(static_cast<int>(*progress * 1000));
    } else {
        downloadProgress_->setRange(0, downloading ? 0 : 1000);
    }
    if (state.kind == WhisperModelState::Kind::failed) error_->setText(state.detail);
}

void MeetingRecorderWindow::refreshMicrophones() {
    const QString chosen = microphonePicker_->currentData().toString();
    const QString chosenName = microphonePicker_->currentText();
    const QSignalBlocker quiet(microphonePicker_);
    microphonePicker_->clear();
    microphonePicker_->addItem(tr("Default input"), QString());
    if (microphones_) {
        for (const MicrophoneDevice& device : microphones_()) microphonePicker_->addItem(device.name, device.id);
    }
    if (chosen.isEmpty()) return;
    int index = microphonePicker_->findData(chosen);
    if (index < 0) {
        const QString name = chosenName.endsWith(disconnectedSuffix()) ? chosenName : chosenName + disconnectedSuffix();
        microphonePicker_->addItem(name, chosen);
        index = microphonePicker_->count() - 1;
    }
    microphonePicker_->setCurrentIndex(index);
}

}  // namespace mossly
