#include <gtest/gtest.h>

#include <QApplication>
#include <QCheckBox>
#include <QElapsedTimer>
#include <QTimer>
#include <QComboBox>
#include <QDir>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QStandardItemModel>
#include <QScopeGuard>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

#include "AppTestSupport.h"
#include "EditorPane.h"
#include "MainWindow.h"
#include "MeetingRecorder.h"
#include "MeetingRecorderWindow.h"
#include "MeetingSessionFakes.h"
#include "NoteStore.h"
#include "TestHttpServer.h"
#include "TestSupport.h"

namespace mossly {
namespace {

using meeting::MeetingCaptureSource;
using meeting::MeetingSessionError;
using meeting::MeetingSessionPhase;
using meeting::MeetingSessionServices;
using meeting::WhisperTranscribing;
namespace fakes = meeting::test;

QPushButton* buttonNamed(QWidget& window, const QString& text) {
    for (QPushButton* button : window.findChildren<QPushButton*>()) {
        if (button->text() == text) return button;
    }
    return nullptr;
}

QCheckBox* checkBoxNamed(QWidget& window, const QString& text) {
    for (QCheckBox* box : window.findChildren<QCheckBox*>()) {
        if (box->text() == text) return box;
    }
    return nullptr;
}

// The recorder as a user drives it: choose, record, watch the transcript grow, stop, open the note.
TEST(MeetingRecorderWindow, RecordsAMeetingIntoANoteFromTheWindowAndTheMenus) {
    test::TemporaryNotesFolder folder;
    NoteStore store(folder.path(), NoteStore::Options{.createsWelcomeNote = false, .loadsNotesSynchronously = true,
                                                      .welcomeIconPng = {}});
    MainWindow window(store);
    window.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
    fakes::FakeCaptures captures;
    auto transcriber = std::make_shared<fakes::FakeTranscriber>();
    MeetingSessionServices services;
    services.model = std::make_shared<fakes::FakeModel>();
    services.captureFactory = captures.factory();
    services.permissions = std::make_shared<fakes::FakePermissions>();
    services.transcriberFactory = [transcriber](const QString&)
        -> std::expected<std::shared_ptr<WhisperTranscribing>, MeetingSessionError> { return transcriber; };
    MeetingRecorder recorder(store, std::move(services), [] {
        return std::vector<meeting::MicrophoneDevice>{{QStringLiteral("usb-headset"), QStringLiteral("USB Headset")}};
    });
    // The window shows the model the app keeps (the meeting itself runs on the fake one): install one there.
    QDir().mkpath(QFileInfo(recorder.models().modelPath()).path());
    ASSERT_TRUE(QFile::copy(QStringLiteral(MOSSLY_TEST_WHISPER_MODEL), recorder.models().modelPath()));
    const auto uninstall = qScopeGuard([&recorder] { QFile::remove(recorder.models().modelPath()); });
    recorder.models().refresh();
    window.setMeetingRecorder(&recorder);

    QAction* open = test::findAction(window, QStringLiteral("Open Meeting Recorder…"));
    QAction* stopAction = test::findAction(window, QStringLiteral("Stop Recording"));
    ASSERT_TRUE(open && stopAction);
    EXPECT_EQ(open->shortcut(), QKeySequence(QStringLiteral("Shift+Ctrl+R")));
    EXPECT_FALSE(stopAction->isEnabled()) << "nothing is recording yet";
    open->trigger();
    MeetingRecorderWindow* recorderWindow = recorder.showWindow();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(recorderWindow));
    EXPECT_EQ(recorderWindow->windowTitle(), QStringLiteral("Meeting Recorder"));
    EXPECT_EQ(recorderWindow->findChild<QLineEdit*>()->placeholderText(), QStringLiteral("Meeting title (optional)"));

    // Nothing chosen: the recorder says what is missing and writes nothing.
    QCheckBox* microphone = checkBoxNamed(*recorderWindow, QStringLiteral("Microphone (You)"));
    QCheckBox* system = checkBoxNamed(*recorderWindow, QStringLiteral("System audio (what the speakers play)"));
    QCheckBox* consent = checkBoxNamed(*recorderWindow,
                                       QStringLiteral("I\u2019m responsible for obtaining participant consent before recording."));
    ASSERT_TRUE(microphone && system && consent);
    microphone->setChecked(false);
    system->setChecked(false);
    recorderWindow->recordButton()->click();
    ASSERT_TRUE(test::waitUntil([&] { return recorder.controller().errorMessage() == "Select at least one audio source."; }));
    EXPECT_TRUE(folder.allEntries().filter(QStringLiteral(".md")).isEmpty());

    recorder.controller().reset();
    microphone->setChecked(true);
    consent->setChecked(true);
    recorderWindow->findChild<QLineEdit*>()->setText(QStringLiteral("Harbour planning"));
    recorderWindow->microphonePicker()->setCurrentIndex(recorderWindow->microphonePicker()->findData("usb-headset"));
    recorderWindow->recordButton()->click();
    ASSERT_TRUE(test::waitUntil([&] { return recorder.isRecording(); }));
    EXPECT_TRUE(stopAction->isEnabled());
    EXPECT_EQ(captures.latest(MeetingCaptureSource::microphone).deviceUID(), QStringLiteral("usb-headset"))
        << "the chosen microphone is the one recorded";
    captures.latest(MeetingCaptureSource::microphone).deliver(45);
    ASSERT_TRUE(test::waitUntil([&] { return recorderWindow->transcriptView()->toPlainText().contains("You:"); }));
    // A capture warning is shown apart from errors, and goes once audio returns.
    captures.latest(MeetingCaptureSource::microphone).warnWith(QStringLiteral("No microphone audio has arrived for 5 seconds."));
    ASSERT_TRUE(test::waitUntil([&] {
        return recorderWindow->warningLabel()->text() == "Microphone: No microphone audio has arrived for 5 seconds.";
    }));
    EXPECT_FALSE(recorderWindow->warningLabel()->isHidden());
    EXPECT_TRUE(recorderWindow->errorLabel()->text().isEmpty());
    captures.latest(MeetingCaptureSource::microphone).warnWith(std::nullopt);
    ASSERT_TRUE(test::waitUntil([&] { return recorderWindow->warningLabel()->isHidden(); }));
    if (const QByteArray dir = qgetenv("MOSSLY_SCREENSHOT_DIR"); !dir.isEmpty()) {
        test::spin(300);
        recorderWindow->grab().save(QString::fromLocal8Bit(dir) + QStringLiteral("/meeting-recorder.png"));
    }
    stopAction->trigger();
    ASSERT_TRUE(test::waitUntil([&] { return recorder.controller().phase() == MeetingSessionPhase::completed; }));
    EXPECT_EQ(recorderWindow->statusLabel()->text(), QStringLiteral("Recording stopped \u2014 Meeting note saved"));
    EXPECT_FALSE(stopAction->isEnabled());
    const QString note = recorder.controller().noteURL().toLocalFile();
    ASSERT_TRUE(QFileInfo(note).fileName().startsWith(QStringLiteral("Harbour planning")));
    // Open Meeting Note shows it in the library window.
    ASSERT_TRUE(test::waitUntil([&] { return store.resolveNoteID(note).has_value(); }));
    QPushButton* openNote = buttonNamed(*recorderWindow, QStringLiteral("Open Meeting Note"));
    ASSERT_TRUE(openNote && openNote->isVisible());
    openNote->click();
    ASSERT_TRUE(test::waitUntil([&] { return store.selection() == store.resolveNoteID(note); }));
}

// The Meetings page of Settings edits the same preferences the recorder starts
// from, and an open recorder follows them at once. The page asks each summary
// provider whether it can work, and never offers one that can only fail.
TEST(MeetingRecorderWindow, TheMeetingsSettingsPageStoresTheChoicesAndTheRecorderFollows) {
    test::TemporaryNotesFolder folder;
    NoteStore store(folder.path(), NoteStore::Options{.createsWelcomeNote = false, .loadsNotesSynchronously = true,
                                                      .welcomeIconPng = {}});
    MainWindow window(store);
    fakes::FakeCaptures captures;
    auto claude = std::make_shared<fakes::FakeProvider>();
    claude->setConnection(meeting::ProviderConnectionState::needsLogin());
    MeetingSessionServices services;
    services.captureFactory = captures.factory();
    services.permissions = std::make_shared<fakes::FakePermissions>();
    services.providerFactory = [claude](meeting::MeetingSummaryProviderKind kind)
        -> std::shared_ptr<const meeting::MeetingSummaryProvider> {
        if (kind == meeting::MeetingSummaryProviderKind::claudeCode) return claude;
        return meeting::makeSummaryProvider(kind);
    };
    MeetingRecorder recorder(store, std::move(services));
    window.setMeetingRecorder(&recorder);
    MeetingRecorderWindow* recorderWindow = recorder.showWindow();
    test::findAction(window, QStringLiteral("Settings…"))->trigger();
    QWidget* settings = window.findChild<QWidget*>(QStringLiteral("settingsWindow"));
    ASSERT_TRUE(settings);
    auto* provider = settings->findChild<QComboBox*>(QStringLiteral("meetingSummaryProvider"));
    ASSERT_TRUE(provider);
    provider->setCurrentIndex(provider->findData(QStringLiteral("claudeCode")));
    EXPECT_EQ(QSettings().value(QStringLiteral("meeting.summaryProvider")).toString(), QStringLiteral("claudeCode"));
    EXPECT_EQ(recorder.settings().defaultProvider(), meeting::MeetingSummaryProviderKind::claudeCode);
    QCheckBox* keep = checkBoxNamed(*settings, QStringLiteral("Keep separate microphone and system recordings"));
    ASSERT_TRUE(keep);
    keep->setChecked(true);
    EXPECT_TRUE(QSettings().value(QStringLiteral("meeting.retainAudio")).toBool());
    bool statusShown = false;
    for (QLabel* label : settings->findChildren<QLabel*>()) statusShown |= label->text() == QStringLiteral("Model not installed");
    EXPECT_TRUE(statusShown);

    // The open recorder took both without a restart.
    EXPECT_EQ(recorderWindow->providerChoice()->currentData().toString(), QStringLiteral("claudeCode"));
    EXPECT_TRUE(recorderWindow->keepAudioBox()->isChecked());
    EXPECT_EQ(recorder.controller().configuration().provider, meeting::MeetingSummaryProviderKind::claudeCode);
    // ...and the page follows what the recorder changes.
    QCheckBox* consentInRecorder = checkBoxNamed(
        *recorderWindow, QStringLiteral("I\u2019m responsible for obtaining participant consent before recording."));
    QCheckBox* consentInSettings = checkBoxNamed(
        *settings, QStringLiteral("I\u2019m responsible for obtaining participant consent before recording."));
    ASSERT_TRUE(consentInRecorder && consentInSettings);
    consentInRecorder->setChecked(!consentInSettings->isChecked());
    EXPECT_EQ(consentInSettings->isChecked(), consentInRecorder->isChecked());

    // Probed when shown: Claude needs a sign-in, Codex can only refuse and is no choice.
    auto* connection = settings->findChild<QLabel*>(QStringLiteral("meetingProviderConnection"));
    auto* testButton = settings->findChild<QPushButton*>(QStringLiteral("meetingProviderTest"));
    ASSERT_TRUE(connection && testButton);
    ASSERT_TRUE(test::waitUntil([&] { return connection->text().startsWith(QStringLiteral("Not signed in")); }));
    const int codex = provider->findData(QStringLiteral("codexCLI"));
    auto* items = qobject_cast<QStandardItemModel*>(provider->model());
    ASSERT_TRUE(items);
    ASSERT_TRUE(test::waitUntil([&] { return !items->item(codex)->isEnabled(); }));
    EXPECT_EQ(provider->itemData(codex, Qt::ToolTipRole).toString(), meeting::CodexCLISummaryProvider::refusal);
    auto* recorderItems = qobject_cast<QStandardItemModel*>(recorderWindow->providerChoice()->model());
    EXPECT_FALSE(recorderItems->item(recorderWindow->providerChoice()->findData(QStringLiteral("codexCLI")))->isEnabled());

    // Signed in meanwhile: Test asks again.
    const int probes = claude->probes;
    claude->setConnection(meeting::ProviderConnectionState::connected());
    testButton->click();
    ASSERT_TRUE(test::waitUntil([&] { return connection->text() == QStringLiteral("Connected."); }));
    EXPECT_EQ(claude->probes, probes + 1);
}

// Quitting while the summary is written says what is happening, keeps the app
// responsive and lets the user stop the summary: the transcript is already saved.
TEST(MeetingRecorderWindow, QuittingWhileSummarizingSaysSoAndTheSummaryCanBeStopped) {
    test::TemporaryNotesFolder folder;
    NoteStore store(folder.path(), NoteStore::Options{.createsWelcomeNote = false, .loadsNotesSynchronously = true,
                                                      .welcomeIconPng = {}});
    fakes::FakeCaptures captures;
    auto transcriber = std::make_shared<fakes::FakeTranscriber>();
    auto provider = std::make_shared<fakes::FakeProvider>();
    provider->hold = true;
    MeetingSessionServices services;
    services.model = std::make_shared<fakes::FakeModel>();
    services.captureFactory = captures.factory();
    services.permissions = std::make_shared<fakes::FakePermissions>();
    services.transcriberFactory = [transcriber](const QString&)
        -> std::expected<std::shared_ptr<WhisperTranscribing>, MeetingSessionError> { return transcriber; };
    services.providerFactory =
        [provider](meeting::MeetingSummaryProviderKind) -> std::shared_ptr<const meeting::MeetingSummaryProvider> {
        return provider;
    };
    MeetingRecorder recorder(store, std::move(services));
    recorder.settings().setHasAcknowledgedConsent(true);
    auto configuration = recorder.controller().configuration();
    configuration.title = QStringLiteral("Retro");
    configuration.sources = {MeetingCaptureSource::microphone};
    configuration.provider = meeting::MeetingSummaryProviderKind::claudeCode;
    recorder.controller().setConfiguration(configuration);
    recorder.controller().start();
    ASSERT_TRUE(test::waitUntil([&] { return recorder.isRecording(); }));
    captures.latest(MeetingCaptureSource::microphone).deliver(3);
    recorder.controller().stop();
    ASSERT_TRUE(test::waitUntil([&] { return provider->calls == 1; }));

    QString told;
    QTimer user;
    QObject::connect(&user, &QTimer::timeout, [&] {
        for (QWidget* widget : QApplication::topLevelWidgets()) {
            if (widget->objectName() != MeetingRecorder::quitDialogName || !widget->isVisible()) continue;
            told = widget->findChild<QLabel*>(QStringLiteral("qt_msgbox_label"))->text();
            if (auto* stop = widget->findChild<QPushButton*>(QStringLiteral("meetingQuitStopSummary"))) stop->click();
        }
    });
    user.start(50);
    QElapsedTimer quitting;
    quitting.start();
    recorder.checkpointBeforeQuit();
    EXPECT_LT(quitting.elapsed(), 3000);
    EXPECT_TRUE(told.startsWith(QStringLiteral("The transcript is saved in the meeting note."))) << told.toStdString();
    EXPECT_EQ(recorder.controller().phase(), MeetingSessionPhase::completed);
    QFile note(recorder.controller().noteURL().toLocalFile());
    ASSERT_TRUE(note.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(note.readAll());
    EXPECT_TRUE(text.contains(QStringLiteral("You: microphone from 0")));
    EXPECT_TRUE(text.contains(QStringLiteral("meeting-summary-status: \"failed\"")));
}

// The model bar shows how far a download is once its size is known.
TEST(MeetingRecorderWindow, TheDownloadBarShowsProgress) {
    QTemporaryDir models;
    const QByteArray body(400'000, 'x');
    test::TestHttpServer server([&](const test::TestHttpServer::Request&) {
        test::TestHttpServer::Response response;
        response.contentType = "application/octet-stream";
        response.body = body;
        response.chunkDelay = std::chrono::milliseconds(20);
        return response;
    });
    meeting::WhisperModelManager::Options options;
    options.directory = models.path();
    options.url = QStringLiteral("http://127.0.0.1:%1/ggml-base.bin").arg(server.port());
    meeting::WhisperModelManager manager(options);
    meeting::InMemoryMeetingPreferences preferences;
    meeting::MeetingSettings settings(preferences);
    meeting::MeetingSessionController controller(settings, MeetingSessionServices{});
    meeting::MeetingProviderStatus providers({});
    MeetingRecorderWindow recorderWindow(controller, settings, manager, providers);
    QProgressBar* bar = recorderWindow.downloadProgress();
    manager.download();
    ASSERT_TRUE(test::waitUntil([&] {
        return manager.state().kind == meeting::WhisperModelState::Kind::downloading && !bar->isHidden() &&
               bar->maximum() > 0 && bar->value() > 0;
    }));
    manager.cancelDownload();
    manager.waitForDownload();
}

}  // namespace
}  // namespace mossly

namespace mossly {
namespace {

// A headset plugged in or pulled out mid-choice: the list follows, and the
// input the user chose never silently turns into another one.
TEST(MeetingRecorderWindow, TheMicrophoneListFollowsHotPlugAndKeepsTheChoice) {
    test::TemporaryNotesFolder folder;
    NoteStore store(folder.path(), NoteStore::Options{.createsWelcomeNote = false, .loadsNotesSynchronously = true,
                                                      .welcomeIconPng = {}});
    std::vector<meeting::MicrophoneDevice> plugged{{QStringLiteral("builtin"), QStringLiteral("Built-in Microphone")},
                                                   {QStringLiteral("usb"), QStringLiteral("USB Headset")}};
    MeetingSessionServices services;
    services.model = std::make_shared<fakes::FakeModel>();
    MeetingRecorder recorder(store, std::move(services), [&plugged] { return plugged; });
    MeetingRecorderWindow* window = recorder.showWindow();
    QComboBox* picker = window->microphonePicker();
    const auto names = [picker] {
        QStringList all;
        for (int i = 0; i < picker->count(); ++i) all.append(picker->itemText(i));
        return all;
    };
    ASSERT_EQ(names(), (QStringList{"Default input", "Built-in Microphone", "USB Headset"}));
    picker->setCurrentIndex(picker->findData(QStringLiteral("usb")));

    plugged.erase(plugged.begin() + 1);                                   // pulled out
    plugged.push_back({QStringLiteral("bt"), QStringLiteral("Bluetooth Headset")});  // another one paired
    recorder.microphonesChanged();
    ASSERT_TRUE(test::waitUntil([&] { return names().contains("Bluetooth Headset"); }));
    EXPECT_EQ(names(), (QStringList{"Default input", "Built-in Microphone", "Bluetooth Headset", "USB Headset (disconnected)"}));
    EXPECT_EQ(picker->currentData().toString(), QStringLiteral("usb"));

    plugged.push_back({QStringLiteral("usb"), QStringLiteral("USB Headset")});  // back again
    recorder.microphonesChanged();
    ASSERT_TRUE(test::waitUntil([&] { return !names().contains("USB Headset (disconnected)"); }));
    EXPECT_EQ(names().count("USB Headset"), 1);
    EXPECT_EQ(picker->currentText(), QStringLiteral("USB Headset"));
}

}  // namespace
}  // namespace mossly
