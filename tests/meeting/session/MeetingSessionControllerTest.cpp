#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

#include "MeetingRecoveryStore.h"
#include "MeetingSessionController.h"
#include "MeetingSessionFakes.h"
#include "ProcessTestSupport.h"
#include "TestSupport.h"

namespace mossly::meeting {
namespace {

using namespace test;
using enum MeetingSessionPhase;
using Source = MeetingCaptureSource;

class MeetingSessionControllerTest : public ::testing::Test {
public:  // the table of refused starts arranges through the fixture
    MeetingSessionControllerTest() : settings(preferences) { settings.setHasAcknowledgedConsent(true); }

    std::unique_ptr<MeetingSessionController> makeController() {
        MeetingSessionServices services;
        services.model = model;
        services.captureFactory = captures.factory();
        services.permissions = permissions;
        services.notesDirectory = [this] { return notesDirectory; };
        services.transcriberFactory =
            [this](const QString&) -> std::expected<std::shared_ptr<WhisperTranscribing>, MeetingSessionError> {
            if (modelLoadError) return std::unexpected(*modelLoadError);
            return transcriber;
        };
        services.providerFactory = [this](MeetingSummaryProviderKind kind) -> std::shared_ptr<const MeetingSummaryProvider> {
            if (kind == MeetingSummaryProviderKind::none) return nullptr;
            return provider;
        };
        services.clock = [this] { return now; };
        services.diagnostics = diagnostics;
        services.pipeline = pipeline;
        services.busyPatience = busyPatience;
        auto made = std::make_unique<MeetingSessionController>(settings, std::move(services));
        QObject::connect(made.get(), &MeetingSessionController::phaseChanged, made.get(),
                         [this, controller = made.get()] { phases.append(rawValue(controller->phase())); });
        return made;
    }

    void configure(MeetingSessionController& controller, QSet<Source> sources,
                   MeetingSummaryProviderKind kind = MeetingSummaryProviderKind::none) {
        auto configuration = controller.configuration();
        configuration.title = QStringLiteral("Standup");
        configuration.sources = std::move(sources);
        configuration.provider = kind;
        controller.setConfiguration(configuration);
    }

    static void run(const std::function<void(MeetingSessionController::Completion)>& operation) {
        bool done = false;
        operation([&] { done = true; });
        ASSERT_TRUE(waitFor([&] { return done; }));
    }

    void startRecording(MeetingSessionController& controller) {
        run([&](auto done) { controller.start(done); });
        ASSERT_EQ(controller.phase(), recording) << controller.errorMessage().toStdString();
    }

    QString noteText(const MeetingSessionController& controller) const {
        QFile file(controller.noteURL().toLocalFile());
        if (!file.open(QIODevice::ReadOnly)) return {};
        return QString::fromUtf8(file.readAll());
    }

    QStringList manifests() const {
        return QDir(notesFolder.filePath(MeetingRecoveryStore::folderName)).entryList({"*.json"}, QDir::Files);
    }

    mossly::test::TemporaryNotesFolder notesFolder;
    QString notesDirectory = notesFolder.path();
    InMemoryMeetingPreferences preferences;
    MeetingSettings settings;
    std::shared_ptr<FakeModel> model = std::make_shared<FakeModel>();
    FakeCaptures captures;
    std::shared_ptr<FakePermissions> permissions = std::make_shared<FakePermissions>();
    std::shared_ptr<FakeTranscriber> transcriber = std::make_shared<FakeTranscriber>();
    std::optional<MeetingSessionError> modelLoadError;
    std::shared_ptr<FakeProvider> provider = std::make_shared<FakeProvider>();
    std::shared_ptr<RecordingDiagnostics> diagnostics = std::make_shared<RecordingDiagnostics>();
    std::shared_ptr<AudioPipeline> pipeline;
    std::chrono::milliseconds busyPatience{5000};
    QDateTime now = QDateTime(QDate(2026, 11, 23), QTime(9, 0), Qt::UTC);
    QStringList phases;
};

// MARK: Start preconditions

const QString noServer = "No audio server is running, so meeting audio cannot be captured.";
const QString noSpeakers = "No speakers or other audio output is available for system audio capture.";

TEST_F(MeetingSessionControllerTest, RefusedStartsFailWithTheirTextAndCreateNoNote) {
    struct Case {
        const char* name;
        std::function<void(MeetingSessionControllerTest&, MeetingSessionController&)> arrange;
        QString message;
        int permissionQuestions;
    };
    const std::vector<Case> cases{
        {"no source", [](auto& t, auto& c) { t.configure(c, {}); }, "Select at least one audio source.", 0},
        {"no model before any permission",
         [](auto& t, auto& c) {
             t.configure(c, {Source::microphone});
             t.model->installed = false;
         },
         "Download the local Whisper model before recording.", 0},
        {"no consent",
         [](auto& t, auto& c) {
             t.configure(c, {Source::microphone});
             t.settings.setHasAcknowledgedConsent(false);
         },
         "Acknowledge the participant-consent reminder before recording.", 0},
        {"the only source missing",
         [](auto& t, auto& c) {
             t.configure(c, {Source::microphone});
             t.permissions->missingMicrophone = "No microphone is available.";
         },
         "No microphone is available.", 1},
        {"no audio server",
         [](auto& t, auto& c) {
             t.configure(c, {Source::microphone, Source::system});
             t.permissions->missingMicrophone = t.permissions->missingSystem = noServer;
         },
         noServer, 2},
        {"both sources missing",
         [](auto& t, auto& c) {
             t.configure(c, {Source::microphone, Source::system});
             t.permissions->missingMicrophone = "No microphone is available.";
             t.permissions->missingSystem = noSpeakers;
         },
         "No microphone is available. " + noSpeakers, 2},
        {"model does not load",
         [](auto& t, auto& c) {
             t.configure(c, {Source::microphone});
             t.modelLoadError = MeetingSessionError::transcriptionFailed("The model file is damaged.");
         },
         "The model file is damaged.", 1},
        {"no capture starts",
         [](auto& t, auto& c) {
             t.configure(c, {Source::microphone});
             t.captures.startErrors.insert_or_assign(Source::microphone,
                                                     MeetingSessionError::captureFailed("No input device."));
         },
         "No input device.", 1},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        model->installed = true;
        settings.setHasAcknowledgedConsent(true);
        permissions->missingMicrophone.reset();
        permissions->missingSystem.reset();
        permissions->asked = 0;
        modelLoadError.reset();
        captures.startErrors.clear();
        diagnostics->records.clear();

        auto controller = makeController();
        testCase.arrange(*this, *controller);
        run([&](auto done) { controller->start(done); });
        EXPECT_EQ(controller->phase(), failed);
        EXPECT_EQ(controller->errorMessage(), testCase.message);
        EXPECT_EQ(controller->session() ? controller->session()->state().failureMessage : std::nullopt,
                  controller->session() ? std::optional(testCase.message) : std::nullopt);
        EXPECT_EQ(permissions->asked, testCase.permissionQuestions);
        ASSERT_FALSE(diagnostics->records.empty());
        EXPECT_EQ(diagnostics->records.front().name, "Recovered interrupted meetings");
        ASSERT_NE(diagnostics->find("Meeting session"), nullptr);
        EXPECT_EQ(diagnostics->find("Meeting session")->field("error"), testCase.message);
        EXPECT_EQ(controller->noteURL().isEmpty(), std::string(testCase.name) != "no capture starts");
    }
    // Only the capture that would not start got as far as a note; its meeting stays recoverable.
    EXPECT_EQ(QDir(notesDirectory).entryList({"*.md"}, QDir::Files).size(), 1);
}

TEST_F(MeetingSessionControllerTest, OneSourceThatWillNotStartLeavesTheOtherRecording) {
    captures.startErrors.insert_or_assign(Source::system, MeetingSessionError::captureFailed("No monitor source."));
    auto controller = makeController();
    configure(*controller, {Source::microphone, Source::system});
    startRecording(*controller);
    EXPECT_EQ(controller->errorMessage(), "System audio stopped: No monitor source.");
    captures.latest(Source::microphone).deliver(3);
    run([&](auto done) { controller->stop(done); });
    EXPECT_EQ(controller->phase(), completed);
    EXPECT_TRUE(noteText(*controller).contains("[00:00] You: microphone from 0"));
}

TEST_F(MeetingSessionControllerTest, AMissingOutputDeviceLeavesTheMicrophoneRecording) {
    permissions->missingSystem = noSpeakers;
    auto controller = makeController();
    configure(*controller, {Source::microphone});
    startRecording(*controller);
    EXPECT_EQ(permissions->asked, 1) << "system audio is not asked about when not chosen";
    EXPECT_EQ(controller->errorMessage(), "");
    controller->reset();

    // Both chosen: the microphone records alone and the user is told why.
    configure(*controller, {Source::microphone, Source::system});
    startRecording(*controller);
    EXPECT_EQ(controller->errorMessage(), "System audio stopped: " + noSpeakers);
    EXPECT_EQ(captures.created(Source::system), 0);
    captures.latest(Source::microphone).deliver(3);
    run([&](auto done) { controller->stop(done); });
    EXPECT_EQ(controller->phase(), completed);
    EXPECT_TRUE(noteText(*controller).contains("[00:00] You: microphone from 0"));
}

TEST_F(MeetingSessionControllerTest, ChangedSettingsReachTheNextMeetingWithoutARestart) {
    auto controller = makeController();
    configure(*controller, {Source::microphone});
    settings.setDefaultProvider(MeetingSummaryProviderKind::claudeCode);
    settings.setRetainAudio(true);
    EXPECT_EQ(controller->configuration().provider, MeetingSummaryProviderKind::claudeCode);
    EXPECT_TRUE(controller->configuration().retainAudio);
    EXPECT_EQ(controller->configuration().title, "Standup") << "what the recorder chose stays";
    EXPECT_EQ(controller->configuration().sources, QSet<Source>{Source::microphone});

    // A running meeting keeps its own; the next one takes the change.
    startRecording(*controller);
    settings.setDefaultProvider(MeetingSummaryProviderKind::none);
    EXPECT_EQ(controller->configuration().provider, MeetingSummaryProviderKind::claudeCode);
    captures.latest(Source::microphone).deliver(2);
    run([&](auto done) { controller->stop(done); });
    EXPECT_EQ(provider->calls, 1);
    controller->reset();
    EXPECT_EQ(controller->configuration().provider, MeetingSummaryProviderKind::none);
    EXPECT_TRUE(controller->configuration().retainAudio);
}

// MARK: A whole meeting

TEST_F(MeetingSessionControllerTest, RecordsCheckpointsAndFinishesAMeetingWithoutSummary) {
    auto controller = makeController();
    configure(*controller, {Source::microphone, Source::system});
    startRecording(*controller);
    EXPECT_EQ(phases, (QStringList{"requestingPermissions", "preparing", "recording"}));
    EXPECT_TRUE(noteText(*controller).contains("_Recording started…_"));
    const auto* started = diagnostics->find("Meeting recording started");
    ASSERT_NE(started, nullptr);
    EXPECT_EQ(started->field("sources"), "microphone,system");
    EXPECT_EQ(started->field("retainAudio"), "false");
    EXPECT_EQ(started->field("provider"), "none");
    EXPECT_EQ(manifests().size(), 1);

    // A full 20 s window of the microphone makes stable segments, which reach the note at once.
    captures.latest(Source::microphone).deliver(21);
    captures.latest(Source::system).deliver(2);
    ASSERT_TRUE(waitFor([&] { return controller->lastCheckpointAt().has_value(); }));
    EXPECT_TRUE(noteText(*controller).contains("[00:00] You: microphone from 0"));
    EXPECT_GT(controller->microphoneLevel(), 0.05f);
    EXPECT_GT(controller->systemLevel(), 0.05f);
    const auto manifest = MeetingRecoveryStore(notesDirectory).loadAll();
    ASSERT_TRUE(manifest && manifest->size() == 1);
    EXPECT_EQ(manifest->front().stableSegmentCount, 1);
    EXPECT_FALSE(noteText(*controller).contains("System: system from"));

    bool firstDone = false;
    controller->stop([&] { firstDone = true; });
    bool secondDone = false;
    controller->stop([&] { secondDone = true; });
    EXPECT_TRUE(secondDone);  // ignored: it returns at once and changes nothing
    ASSERT_TRUE(waitFor([&] { return firstDone; }));

    EXPECT_EQ(controller->phase(), completed);
    EXPECT_EQ(phases, (QStringList{"requestingPermissions", "preparing", "recording", "finalizing", "completed"}));
    EXPECT_EQ(controller->errorMessage(), "");
    const QString note = noteText(*controller);
    EXPECT_TRUE(note.contains("meeting-summary-status: \"disabled\""));
    EXPECT_TRUE(note.contains("meeting-ended-at:"));
    EXPECT_TRUE(note.contains("[00:00] System: system from 0"));
    EXPECT_TRUE(note.contains("[00:18] You: microphone from 18"));  // the flushed rest after the overlap
    EXPECT_FALSE(note.contains("notes:meeting-summary:start"));
    EXPECT_EQ(provider->calls, 0);
    EXPECT_TRUE(manifests().isEmpty());
    EXPECT_FALSE(controller->canRetrySummary());
    EXPECT_TRUE(controller->backlog().isEmpty());
    EXPECT_EQ(controller->segments(), controller->session()->state().segments);
    const auto* completedRecord = diagnostics->find("Meeting recording completed");
    ASSERT_NE(completedRecord, nullptr);
    EXPECT_EQ(completedRecord->field("segmentCount"), "3");
    EXPECT_EQ(completedRecord->field("summaryRequested"), "false");
    EXPECT_GE(diagnostics->count("Transcribe meeting audio"), 1);

    controller->reset();
    EXPECT_EQ(controller->phase(), idle);
    EXPECT_EQ(controller->session(), nullptr);
    EXPECT_TRUE(controller->segments().isEmpty());
    EXPECT_TRUE(controller->noteURL().isEmpty());
    EXPECT_EQ(controller->microphoneLevel(), 0.0f);
    EXPECT_EQ(controller->configuration().title, "Standup");  // kept for the next meeting
}

TEST_F(MeetingSessionControllerTest, RetainedAudioIsMovedBesideTheNote) {
    auto controller = makeController();
    configure(*controller, {Source::microphone});
    auto configuration = controller->configuration();
    configuration.retainAudio = true;
    controller->setConfiguration(configuration);
    startRecording(*controller);
    captures.latest(Source::microphone).deliver(2);
    // After a crash the manifest says where the recording being written is.
    const auto manifest = MeetingRecoveryStore(notesDirectory).loadAll();
    ASSERT_TRUE(manifest && manifest->size() == 1);
    EXPECT_EQ(manifest->front().audioPaths, QStringList{"Assets/Standup/Meeting Audio/microphone.wav.recording"});
    EXPECT_TRUE(waitFor([&] {
        return QFileInfo(notesFolder.filePath("Assets/Standup/Meeting Audio/microphone.wav.recording")).size() > 0;
    }));
    run([&](auto done) { controller->stop(done); });
    ASSERT_EQ(controller->phase(), completed);
    EXPECT_TRUE(noteText(*controller).contains(R"(meeting-recordings: ["Assets\/Standup\/Meeting Audio\/microphone.wav"])"));
    EXPECT_TRUE(QFile::exists(notesFolder.filePath("Assets/Standup/Meeting Audio/microphone.wav")));
}

// MARK: Summaries

TEST_F(MeetingSessionControllerTest, FailedSummaryKeepsTheTranscriptAndCanBeRetried) {
    provider->fails = true;
    auto controller = makeController();
    configure(*controller, {Source::microphone}, MeetingSummaryProviderKind::claudeCode);
    startRecording(*controller);
    captures.latest(Source::microphone).deliver(3);
    run([&](auto done) { controller->stop(done); });

    EXPECT_EQ(controller->phase(), completed);
    EXPECT_EQ(phases.mid(3), (QStringList{"finalizing", "summarizing", "completed"}));
    EXPECT_EQ(controller->errorMessage(), "Transcript saved. Summary failed: Claude is offline.");
    EXPECT_TRUE(noteText(*controller).contains("meeting-summary-status: \"failed\""));
    EXPECT_TRUE(noteText(*controller).contains("[00:00] You: microphone from 0"));
    EXPECT_TRUE(controller->canRetrySummary());
    EXPECT_EQ(diagnostics->find("Meeting recording completed")->field("summaryRequested"), "true");
    {
        std::lock_guard lock(provider->mutex);
        EXPECT_EQ(provider->lastTranscript, "[00:00] You: microphone from 0");
    }

    run([&](auto done) { controller->retrySummary(done); });
    EXPECT_EQ(controller->errorMessage(), "Transcript remains safe. Summary failed: Claude is offline.");
    EXPECT_EQ(diagnostics->find("Retry meeting summary")->field("error"), "Claude is offline.");
    EXPECT_TRUE(controller->canRetrySummary());

    provider->fails = false;
    run([&](auto done) { controller->retrySummary(done); });
    EXPECT_EQ(controller->phase(), completed);
    EXPECT_EQ(controller->errorMessage(), "");
    EXPECT_FALSE(controller->canRetrySummary());
    EXPECT_EQ(controller->session()->state().summary->title, "Standup");
    const QString note = noteText(*controller);
    EXPECT_TRUE(note.contains("meeting-summary-status: \"complete\""));
    EXPECT_TRUE(note.contains("Write tests"));
    EXPECT_TRUE(note.contains("[00:00] You: microphone from 0"));
    EXPECT_EQ(provider->calls, 3);
}

// Quitting need not wait for the provider's time limit: the summary can be stopped,
// the transcript is already in the note, and a retry works afterwards.
TEST_F(MeetingSessionControllerTest, AStoppedSummaryEndsAtOnceAndCanBeRetried) {
    provider->hold = true;
    auto controller = makeController();
    configure(*controller, {Source::microphone}, MeetingSummaryProviderKind::claudeCode);
    startRecording(*controller);
    captures.latest(Source::microphone).deliver(3);
    bool stopped = false;
    controller->stop([&] { stopped = true; });
    ASSERT_TRUE(waitFor([&] { return provider->calls == 1; }));
    EXPECT_EQ(controller->phase(), summarizing);
    EXPECT_TRUE(noteText(*controller).contains("[00:00] You: microphone from 0"));

    controller->stopSummary();
    ASSERT_TRUE(waitFor([&] { return stopped; }, 2000));
    EXPECT_EQ(controller->phase(), completed);
    EXPECT_EQ(controller->errorMessage(), "Transcript saved. Summary failed: The summary was stopped.");
    EXPECT_TRUE(noteText(*controller).contains("meeting-summary-status: \"failed\""));
    ASSERT_TRUE(controller->canRetrySummary());

    provider->hold = false;
    run([&](auto done) { controller->retrySummary(done); });
    EXPECT_TRUE(noteText(*controller).contains("meeting-summary-status: \"complete\""));
}

// The provider answered but the library stayed busy: the summary is kept, the note says
// "failed" rather than "pending" once it can, and the retry writes the same summary.
TEST_F(MeetingSessionControllerTest, ASummaryWhoseNoteWriteFailsIsKeptForTheRetry) {
    busyPatience = std::chrono::milliseconds(300);
    provider->hold = true;
    auto controller = makeController();
    configure(*controller, {Source::microphone}, MeetingSummaryProviderKind::claudeCode);
    startRecording(*controller);
    captures.latest(Source::microphone).deliver(3);
    bool stopped = false;
    controller->stop([&] { stopped = true; });
    ASSERT_TRUE(waitFor([&] { return provider->calls == 1; }));
    {
        ForkedChild otherWriter([&] { return holdLibraryLock(notesDirectory); });
        ASSERT_TRUE(otherWriter.ready());
        provider->hold = false;
        ASSERT_TRUE(waitFor([&] { return stopped; }));
    }
    EXPECT_EQ(controller->phase(), completed);
    EXPECT_EQ(controller->errorMessage(), "Transcript saved. Summary failed: The notes library is busy. Try again.");
    ASSERT_TRUE(controller->session()->state().summary);
    EXPECT_TRUE(controller->canRetrySummary());
    EXPECT_FALSE(noteText(*controller).contains("Write tests"));

    run([&](auto done) { controller->retrySummary(done); });
    EXPECT_EQ(controller->errorMessage(), "");
    EXPECT_TRUE(noteText(*controller).contains("Write tests"));
    EXPECT_TRUE(noteText(*controller).contains("meeting-summary-status: \"complete\""));
    EXPECT_EQ(provider->calls, 1) << "the kept summary is written, the provider is not asked again";
}

TEST_F(MeetingSessionControllerTest, SilentMeetingAsksNoProvider) {
    auto controller = makeController();
    configure(*controller, {Source::microphone}, MeetingSummaryProviderKind::claudeCode);
    startRecording(*controller);
    captures.latest(Source::microphone).deliver(MeetingAudioChunk::captured(
        Source::microphone, 0, std::vector<float>(16000, 0.0f), transcriptionSampleRate));
    run([&](auto done) { controller->stop(done); });
    EXPECT_EQ(controller->phase(), completed);
    EXPECT_EQ(provider->calls, 0);
    EXPECT_TRUE(noteText(*controller).contains("_No speech transcribed._"));
    EXPECT_FALSE(controller->canRetrySummary());
}

// MARK: Trouble during a meeting

TEST_F(MeetingSessionControllerTest, CaptureFailureOfOneSourceLeavesTheOtherRecording) {
    auto controller = makeController();
    configure(*controller, {Source::microphone, Source::system});
    startRecording(*controller);
    captures.latest(Source::system).failWith("The monitor source went away.");
    ASSERT_TRUE(waitFor([&] { return !controller->errorMessage().isEmpty(); }));
    EXPECT_EQ(controller->errorMessage(), "System audio stopped: The monitor source went away.");
    EXPECT_EQ(diagnostics->find("Capture source")->field("source"), "system");
    EXPECT_EQ(controller->phase(), recording);

    captures.latest(Source::microphone).deliver(2);
    run([&](auto done) { controller->stop(done); });
    EXPECT_EQ(controller->phase(), completed);
    EXPECT_TRUE(noteText(*controller).contains("[00:00] You: microphone from 0"));
}

TEST_F(MeetingSessionControllerTest, CaptureWarningsAreNoErrorsAndEndWhenAudioReturns) {
    auto controller = makeController();
    configure(*controller, {Source::microphone, Source::system});
    startRecording(*controller);
    const QString silent = "Nothing is playing on the speakers: system audio has been silent for 5 seconds while "
                           "the microphone hears speech.";
    captures.latest(Source::system).warnWith(silent);
    ASSERT_TRUE(waitFor([&] { return !controller->warningMessage().isEmpty(); }));
    EXPECT_EQ(controller->warningMessage(), "System audio: " + silent);
    EXPECT_EQ(controller->errorMessage(), "");
    EXPECT_EQ(diagnostics->find("Capture warning")->field("source"), "system");

    captures.latest(Source::microphone).warnWith("No microphone audio has arrived for 5 seconds.");
    ASSERT_TRUE(waitFor([&] { return controller->warningMessage().contains('\n'); }));
    EXPECT_EQ(controller->warningMessage(),
              "Microphone: No microphone audio has arrived for 5 seconds.\nSystem audio: " + silent);
    captures.latest(Source::system).warnWith(std::nullopt);
    ASSERT_TRUE(waitFor([&] { return !controller->warningMessage().contains('\n'); }));
    EXPECT_EQ(controller->warningMessage(), "Microphone: No microphone audio has arrived for 5 seconds.");

    // A paused capture warns about nothing; the meeting went on throughout.
    controller->pause();
    EXPECT_EQ(controller->warningMessage(), "");
    EXPECT_EQ(controller->errorMessage(), "");
    EXPECT_EQ(controller->phase(), paused);
}

TEST_F(MeetingSessionControllerTest, QueueingAndTranscriptionTroubleShowsAStatusAndRecordingGoesOn) {
    transcriber->failuresLeft = 1;
    auto controller = makeController();
    configure(*controller, {Source::microphone});
    startRecording(*controller);

    auto broken = MeetingAudioChunk::captured(Source::microphone, 0, {0.1f, 0.2f}, 0);
    captures.latest(Source::microphone).deliver(broken);
    ASSERT_TRUE(waitFor([&] { return diagnostics->find("Queue meeting audio") != nullptr; }));
    EXPECT_EQ(controller->errorMessage(), "Capture continues, but audio could not be queued safely.");

    captures.latest(Source::microphone).deliver(21);
    ASSERT_TRUE(waitFor([&] { return diagnostics->find("Transcribe meeting audio") != nullptr; }));
    EXPECT_EQ(controller->errorMessage(),
              "Capture continues and audio is retained, but transcription is catching up after an error.");
    EXPECT_EQ(diagnostics->find("Transcribe meeting audio")->field("error"), "Inference failed.");
    EXPECT_EQ(controller->phase(), recording);

    run([&](auto done) { controller->stop(done); });
    EXPECT_EQ(controller->phase(), completed);
    EXPECT_TRUE(noteText(*controller).contains("You: microphone from 18"));
}

// Resampling and the overflow spool touch the disk and take time: never on the main thread.
TEST_F(MeetingSessionControllerTest, QueueingAndSpoolingRunOffTheMainThread) {
    auto spool = std::make_unique<ThreadNotingSpool>();
    const ThreadNotingSpool* noted = spool.get();
    pipeline = std::make_shared<AudioPipeline>(0, std::move(spool));  // every chunk goes to the spool
    auto controller = makeController();
    configure(*controller, {Source::microphone});
    startRecording(*controller);
    captures.latest(Source::microphone).deliver(2);
    std::vector<float> highRate;  // a third second at 48 kHz: resampled on the way in
    for (float sample : toneChunk(Source::microphone, 2).samples) highRate.insert(highRate.end(), 3, sample);
    captures.latest(Source::microphone)
        .deliver(MeetingAudioChunk::captured(Source::microphone, 2, std::move(highRate), 48000));
    run([&](auto done) { controller->stop(done); });
    EXPECT_GE(noted->appends(), 3);
    EXPECT_FALSE(noted->wroteOn(QCoreApplication::instance()->thread()));
    EXPECT_TRUE(noteText(*controller).contains("[00:00] You: microphone from 0"));
    EXPECT_EQ(controller->errorMessage(), "");
}

TEST_F(MeetingSessionControllerTest, UnreadableQueuedAudioIsReported) {
    pipeline = std::make_shared<AudioPipeline>(0, std::make_unique<UnreadableSpool>());
    auto controller = makeController();
    configure(*controller, {Source::microphone});
    startRecording(*controller);
    captures.latest(Source::microphone).deliver(1);
    ASSERT_TRUE(waitFor([&] { return diagnostics->find("Read queued meeting audio") != nullptr; }));
    EXPECT_EQ(controller->errorMessage(), "A retained audio chunk could not be read for transcription.");
    EXPECT_EQ(controller->phase(), recording);
}

TEST_F(MeetingSessionControllerTest, NoteThatCannotBeCreatedFailsTheMeeting) {
    notesDirectory = notesFolder.filePath("missing/deeper");
    QFile(notesFolder.filePath("missing")).open(QIODevice::WriteOnly);  // a file where the folder would be
    auto controller = makeController();
    configure(*controller, {Source::microphone});
    run([&](auto done) { controller->start(done); });
    EXPECT_EQ(controller->phase(), failed);
    EXPECT_FALSE(controller->errorMessage().isEmpty());
    EXPECT_EQ(diagnostics->find("Meeting session")->field("error"), controller->errorMessage());
    EXPECT_EQ(captures.created(Source::microphone), 0);
}

TEST_F(MeetingSessionControllerTest, NoteLostMidMeetingKeepsTheTranscriptUntilItCanBeWritten) {
    auto controller = makeController();
    configure(*controller, {Source::microphone});
    startRecording(*controller);
    const QString notePath = controller->noteURL().toLocalFile();
    ASSERT_TRUE(QFile::rename(notePath, notesFolder.filePath("Elsewhere.md")));
    captures.latest(Source::microphone).deliver(21);
    ASSERT_TRUE(waitFor([&] { return diagnostics->find("Checkpoint meeting transcript") != nullptr; }));
    EXPECT_EQ(controller->errorMessage(), diagnostics->find("Checkpoint meeting transcript")->field("error"));
    EXPECT_FALSE(controller->lastCheckpointAt().has_value());
    EXPECT_EQ(controller->phase(), recording);

    run([&](auto done) { controller->stop(done); });
    EXPECT_EQ(controller->phase(), finalizing) << "only a note that cannot be created fails a meeting";
    EXPECT_TRUE(controller->canRetryFinalWrite());
    EXPECT_TRUE(controller->errorMessage().startsWith("Transcript not saved yet: "));
    EXPECT_EQ(controller->segments().size(), 2);
    EXPECT_EQ(manifests().size(), 1);

    ASSERT_TRUE(QFile::rename(notesFolder.filePath("Elsewhere.md"), notePath));  // the user brings it back
    run([&](auto done) { controller->retryFinalWrite(done); });
    EXPECT_EQ(controller->phase(), completed);
    EXPECT_EQ(controller->errorMessage(), "");
    EXPECT_TRUE(noteText(*controller).contains("[00:18] You: microphone from 18"));
    EXPECT_TRUE(manifests().isEmpty());
}

// A library that stays busy past the wait: the meeting keeps every segment and its
// manifest, says so, and writes everything once the user retries.
TEST_F(MeetingSessionControllerTest, ALibraryBusyPastTheWaitKeepsTheTranscriptForARetry) {
    busyPatience = std::chrono::milliseconds(300);
    auto controller = makeController();
    configure(*controller, {Source::microphone});
    startRecording(*controller);
    captures.latest(Source::microphone).deliver(23);
    ASSERT_TRUE(waitFor([&] { return controller->lastCheckpointAt().has_value(); }));
    {
        ForkedChild otherWriter([&] { return holdLibraryLock(notesDirectory); });
        ASSERT_TRUE(otherWriter.ready());
        run([&](auto done) { controller->stop(done); });
        EXPECT_EQ(controller->phase(), finalizing);
        EXPECT_EQ(controller->errorMessage(), "Transcript not saved yet: The notes library is busy. Try again.");
        EXPECT_EQ(diagnostics->find("Finish meeting note")->field("error"), "The notes library is busy. Try again.");
        EXPECT_FALSE(noteText(*controller).contains("microphone from 18"));
        EXPECT_EQ(manifests().size(), 1);
        run([&](auto done) { controller->retryFinalWrite(done); });
        EXPECT_TRUE(controller->canRetryFinalWrite());
    }
    run([&](auto done) { controller->retryFinalWrite(done); });
    EXPECT_EQ(controller->phase(), completed);
    EXPECT_FALSE(controller->canRetryFinalWrite());
    const QString note = noteText(*controller);
    EXPECT_TRUE(note.contains("[00:00] You: microphone from 0\n[00:18] You: microphone from 18"));
    EXPECT_TRUE(note.contains("meeting-ended-at:"));
    EXPECT_TRUE(manifests().isEmpty());
}

// The app saving the note being typed in, or an agent, holds the library for a
// moment just as the meeting stops: the final write waits for it.
TEST_F(MeetingSessionControllerTest, ABusyLibraryAtStopIsWaitedOut) {
    auto controller = makeController();
    configure(*controller, {Source::microphone});
    startRecording(*controller);
    captures.latest(Source::microphone).deliver(23);
    ASSERT_TRUE(waitFor([&] { return controller->lastCheckpointAt().has_value(); }));

    auto otherWriter = std::make_unique<ForkedChild>([&] { return holdLibraryLock(notesDirectory); });
    ASSERT_TRUE(otherWriter->ready());
    std::thread release([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        otherWriter->kill();
    });
    run([&](auto done) { controller->stop(done); });
    release.join();
    EXPECT_EQ(controller->phase(), completed) << controller->errorMessage().toStdString();
    EXPECT_TRUE(noteText(*controller).contains("[00:18] You: microphone from 18"));
    EXPECT_TRUE(manifests().isEmpty());
}

// MARK: Pause, invalid requests

TEST_F(MeetingSessionControllerTest, PausedTimeIsNotCountedAndAudioContinuesTheRecordingClock) {
    auto controller = makeController();
    configure(*controller, {Source::microphone});
    controller->pause();
    EXPECT_EQ(controller->errorMessage(), "Cannot move a meeting from idle to paused.");
    controller->resume();
    EXPECT_EQ(controller->errorMessage(), "Cannot move a meeting from idle to recording.");

    startRecording(*controller);
    captures.latest(Source::microphone).deliver(10);
    now = now.addSecs(10);
    controller->pause();
    EXPECT_EQ(controller->phase(), paused);
    EXPECT_EQ(controller->elapsed(), 10.0);
    now = now.addSecs(100);
    controller->resume();
    EXPECT_EQ(controller->phase(), recording);
    EXPECT_EQ(controller->elapsed(), 10.0);
    EXPECT_EQ(captures.created(Source::microphone), 2);
    captures.latest(Source::microphone).deliver(2);  // its clock starts at zero again
    now = now.addSecs(5);
    run([&](auto done) { controller->stop(done); });
    EXPECT_EQ(controller->elapsed(), 15.0);
    EXPECT_EQ(controller->phase(), completed);
    // One unbroken 12 s run: the audio after the pause continued at 10 s rather than starting over at 0.
    const auto& segments = controller->session()->state().segments;
    ASSERT_EQ(segments.size(), 1);
    EXPECT_EQ(segments.front().text, "microphone from 0");
    EXPECT_EQ(segments.front().endTime, 12.0);
}

// MARK: Quitting and recovery

TEST_F(MeetingSessionControllerTest, CheckpointForTerminationIsRecoveredAtTheNextLaunch) {
    QString notePath;
    {
        auto controller = makeController();
        configure(*controller, {Source::microphone});
        startRecording(*controller);
        captures.latest(Source::microphone).deliver(21);
        run([&](auto done) { controller->checkpointForTermination(done); });
        notePath = controller->noteURL().toLocalFile();
        EXPECT_TRUE(noteText(*controller).contains("[00:00] You: microphone from 0"));
        controller->stop();
        EXPECT_EQ(controller->phase(), recording);  // quitting: the note is not finished
    }
    EXPECT_EQ(manifests().size(), 1);

    diagnostics->records.clear();
    auto next = makeController();
    run([&](auto done) { next->recoverInterruptedMeetings(done); });
    EXPECT_EQ(diagnostics->find("Recovered interrupted meetings")->field("count"), "1");
    EXPECT_TRUE(manifests().isEmpty());
    QFile note(notePath);
    ASSERT_TRUE(note.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(note.readAll());
    EXPECT_TRUE(text.contains("meeting-interrupted: true"));
    EXPECT_TRUE(text.contains("[00:00] You: microphone from 0"));
}

TEST_F(MeetingSessionControllerTest, RecoveryWaitsWhileAMeetingRuns) {
    auto controller = makeController();
    configure(*controller, {Source::microphone});
    startRecording(*controller);
    diagnostics->records.clear();
    run([&](auto done) { controller->recoverInterruptedMeetings(done); });
    EXPECT_EQ(diagnostics->find("Recovered interrupted meetings"), nullptr);
    EXPECT_EQ(manifests().size(), 1);
}

}  // namespace
}  // namespace mossly::meeting
