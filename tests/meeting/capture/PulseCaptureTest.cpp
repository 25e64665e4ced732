#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#include "CaptureRecorder.h"
#include "PrivatePulseServer.h"
#include "PulseDevices.h"
#include "PulseSourceCapture.h"
#include "SpeechFixture.h"

namespace mossly::meeting {
namespace {

using namespace std::chrono_literals;
using test::CaptureRecorder;
using test::PrivatePulseServer;

// Null sinks and their monitors have the server's default channels and rate.
constexpr int deviceChannels = 2;

// A sentence at the device rate, mono, so the server plays it without resampling.
QString speechFile(const QString& text, double deviceRate) {
    static QTemporaryDir folder;
    const QString spoken = folder.filePath(QString::number(qHash(text)) + "-espeak.wav");
    const QString converted = folder.filePath(QString::number(qHash(text)) + "-" + QString::number(deviceRate) + ".wav");
    if (!QFile::exists(converted)) {
        QProcess::execute(QStringLiteral(MOSSLY_ESPEAK), {"-w", spoken, text});
        QProcess::execute(QStringLiteral(MOSSLY_SOX), {spoken, "-r", QString::number(deviceRate), "-c", "1", converted});
    }
    return converted;
}

struct Match {
    double correlation = 0;
    double offset = 0;  // seconds into the capture where the reference begins
};

// Where `reference` sits in `captured`: coarsely by 10 ms loudness envelopes, then to the sample.
Match bestMatch(const std::vector<float>& captured, const std::vector<float>& reference, double deviceRate) {
    const size_t hop = size_t(deviceRate / 100);
    auto envelope = [hop](const std::vector<float>& samples) {
        std::vector<float> levels;
        for (size_t index = 0; index + hop <= samples.size(); index += hop)
            levels.push_back(rmsLevel(std::span(samples).subspan(index, hop)));
        return levels;
    };
    const auto capturedLevels = envelope(captured);
    const auto referenceLevels = envelope(reference);
    if (capturedLevels.size() <= referenceLevels.size()) return {};
    size_t coarse = 0;
    double best = -2;
    for (size_t lag = 0; lag + referenceLevels.size() <= capturedLevels.size(); ++lag) {
        const std::vector<float> slice(capturedLevels.begin() + qsizetype(lag),
                                       capturedLevels.begin() + qsizetype(lag + referenceLevels.size()));
        if (const double value = mossly::test::correlation(slice, referenceLevels); value > best) {
            best = value;
            coarse = lag;
        }
    }
    Match match{-2, 0};
    const size_t from = coarse * hop > hop ? coarse * hop - hop : 0;
    const size_t to = std::min(coarse * hop + hop, captured.size() - reference.size());
    for (size_t lag = from; lag <= to; ++lag) {
        const std::vector<float> slice(captured.begin() + qsizetype(lag),
                                       captured.begin() + qsizetype(lag + reference.size()));
        if (const double value = mossly::test::correlation(slice, reference); value > match.correlation)
            match = {value, double(lag) / deviceRate};
    }
    return match;
}

bool finishes(QProcess& process) { return process.waitForFinished(15000) && process.exitCode() == 0; }

// Every chunk of one source, consecutive, at the device's format, 100-200 ms
// long (the last may be shorter), the first at time 0.
void expectContinuousTimeline(const std::vector<MeetingAudioChunk>& chunks, MeetingCaptureSource source,
                              double deviceRate) {
    ASSERT_FALSE(chunks.empty());
    EXPECT_EQ(chunks.front().startTime, 0);
    for (size_t index = 0; index < chunks.size(); ++index) {
        EXPECT_EQ(chunks[index].source, source);
        EXPECT_EQ(chunks[index].sampleRate, deviceRate);
        EXPECT_EQ(chunks[index].channelCount, deviceChannels);
        if (index + 1 < chunks.size()) {
            EXPECT_GE(chunks[index].duration(), 0.1);
            EXPECT_LT(chunks[index].duration(), 0.2);  // plus at most one of the server's fragments
        }
        if (index > 0) {
            EXPECT_NEAR(chunks[index].startTime, chunks[index - 1].startTime + chunks[index - 1].duration(), 1e-6);
        }
    }
}

class PulseCaptureTest : public ::testing::TestWithParam<test::AudioServerKind> {
protected:
    void SetUp() override {
        server = std::make_unique<PrivatePulseServer>(GetParam());
        if (!server->failure().isEmpty()) {
            if (qEnvironmentVariableIsSet("MOSSLY_REQUIRE_AUDIO_SERVER")) FAIL() << server->failure().toStdString();
            GTEST_SKIP() << "a private audio server cannot run here: " << server->failure().toStdString();
        }
        rate = server->sampleRate();
        ASSERT_GT(rate, 0);
    }

    QString spoken(const QString& text) const { return speechFile(text, rate); }
    // Removes the virtual microphone once it delivers, and waits for the capture to report that.
    // Milliseconds until the report; -1 without one.
    qint64 unplugMicrophone(std::chrono::milliseconds timeout) {
        if (!micRecorder.waitForChunks(2, 3s)) return -1;
        QElapsedTimer sinceUnplug;
        sinceUnplug.start();
        if (!server->pactl({"unload-module", QString::number(server->remapModule())})) return -1;
        return micRecorder.waitForFailure(timeout) ? sinceUnplug.elapsed() : -1;
    }
    Match match(const std::vector<float>& captured, const QString& file) const {
        return bestMatch(captured, mossly::test::readSoundFile(file).samples, rate);
    }

    PulseCaptureOptions options(std::chrono::milliseconds watchdogLimit = defaultWatchdogLimit) const {
        PulseCaptureOptions result;
        result.serverTimeout = 1000ms;
        result.watchdogLimit = watchdogLimit;
        result.speech = speech;
        return result;
    }

    std::unique_ptr<PrivatePulseServer> server;
    double rate = 0;
    std::shared_ptr<SpeechActivity> speech = std::make_shared<SpeechActivity>();
    CaptureRecorder micRecorder;
    CaptureRecorder systemRecorder;
};

TEST_P(PulseCaptureTest, SpeakersAndMicrophoneArriveSeparatelyWithTheirOwnTimeline) {
    const QString agenda = spoken("The agenda has three items.");
    const QString budget = spoken("The budget is too small.");
    MicrophoneCapture microphone(options());
    SystemAudioCapture system(options());
    ASSERT_TRUE(microphone.start(std::nullopt, micRecorder.chunkHandler(), micRecorder.failureHandler()));
    ASSERT_TRUE(system.start(std::nullopt, systemRecorder.chunkHandler(), systemRecorder.failureHandler()));
    EXPECT_EQ(microphone.recordedSourceName(), "virtualmic");
    EXPECT_EQ(system.recordedSourceName(), "speakers.monitor");
    ASSERT_TRUE(systemRecorder.waitForChunks(1, 3s));
    ASSERT_TRUE(micRecorder.waitForChunks(1, 3s));

    const auto playedAt = std::chrono::steady_clock::now();
    auto speakers = server->play("speakers", agenda);
    auto microphoneFeed = server->play("micfeed", budget);
    ASSERT_TRUE(finishes(*speakers));
    ASSERT_TRUE(finishes(*microphoneFeed));
    QThread::msleep(300);
    const auto stoppedAt = std::chrono::steady_clock::now();
    QElapsedTimer stopping;
    stopping.start();
    microphone.stop();
    system.stop();
    EXPECT_LT(stopping.elapsed(), 500);

    const auto systemChunks = systemRecorder.chunks();
    const auto micChunks = micRecorder.chunks();
    expectContinuousTimeline(systemChunks, MeetingCaptureSource::system, rate);
    expectContinuousTimeline(micChunks, MeetingCaptureSource::microphone, rate);
    EXPECT_TRUE(systemRecorder.failures().empty());
    EXPECT_TRUE(micRecorder.failures().empty());
    // The timelines cover the wall-clock time from their first chunk to the stop.
    auto secondsAfter = [](CaptureRecorder& recorder, std::chrono::steady_clock::time_point moment) {
        return std::chrono::duration<double>(moment - *recorder.firstArrival()).count();
    };
    const double systemSpan = systemChunks.back().startTime + systemChunks.back().duration();
    const double micSpan = micChunks.back().startTime + micChunks.back().duration();
    EXPECT_NEAR(systemSpan, secondsAfter(systemRecorder, stoppedAt), 0.3);
    EXPECT_NEAR(micSpan, secondsAfter(micRecorder, stoppedAt), 0.3);

    const auto systemAudio = systemRecorder.monoSamples();
    const auto micAudio = micRecorder.monoSamples();
    const Match systemOwn = match(systemAudio, agenda);
    const Match micOwn = match(micAudio, budget);
    EXPECT_GT(systemOwn.correlation, 0.9);
    EXPECT_GT(micOwn.correlation, 0.9);
    EXPECT_LT(match(systemAudio, budget).correlation, 0.5);
    EXPECT_LT(match(micAudio, agenda).correlation, 0.5);
    // Each sentence sits where it was played, give or take the server's latency.
    EXPECT_NEAR(systemOwn.offset, secondsAfter(systemRecorder, playedAt) + 0.2, 0.3);
    EXPECT_NEAR(micOwn.offset, secondsAfter(micRecorder, playedAt) + 0.2, 0.3);
}

TEST_P(PulseCaptureTest, AnUnpluggedMicrophoneFailsWhileSystemAudioContinues) {
    MicrophoneCapture microphone(options());
    SystemAudioCapture system(options());
    ASSERT_TRUE(microphone.start(QString("virtualmic"), micRecorder.chunkHandler(), micRecorder.failureHandler()));
    ASSERT_TRUE(system.start(std::nullopt, systemRecorder.chunkHandler(), systemRecorder.failureHandler()));
    const qint64 reported = unplugMicrophone(5s);
    ASSERT_GE(reported, 0);
    EXPECT_EQ(micRecorder.failures(), std::vector<QString>{"The selected microphone is no longer available."});

    const size_t micChunks = micRecorder.chunkCount();
    const size_t systemChunks = systemRecorder.chunkCount();
    EXPECT_TRUE(systemRecorder.waitForChunks(systemChunks + 5, 2s));
    EXPECT_EQ(micRecorder.chunkCount(), micChunks) << "nothing is delivered after a failure";
    EXPECT_TRUE(systemRecorder.failures().empty());
}

TEST_P(PulseCaptureTest, ARemovedDefaultMicrophoneWithoutReplacementIsReportedAfterAMoment) {
    MicrophoneCapture microphone(options());
    ASSERT_TRUE(microphone.start(std::nullopt, micRecorder.chunkHandler(), micRecorder.failureHandler()));
    // The server gets a moment to name another default; only monitors remain, and they are no microphone.
    EXPECT_GE(unplugMicrophone(4s), 900);
    EXPECT_EQ(micRecorder.failures(), std::vector<QString>{"No microphone is available."});
}

TEST_P(PulseCaptureTest, SystemAudioFollowsTheDefaultSink) {
    const QString hello = spoken("Hello, can you hear me?");
    SystemAudioCapture system(options());
    ASSERT_TRUE(system.start(std::nullopt, systemRecorder.chunkHandler(), systemRecorder.failureHandler()));
    const int headphones = server->loadModule({"module-null-sink", "sink_name=headphones"});
    ASSERT_GE(headphones, 0);
    ASSERT_TRUE(server->pactl({"set-default-sink", "headphones"}));
    QElapsedTimer moving;
    moving.start();
    while (system.recordedSourceName() != "headphones.monitor" && moving.elapsed() < 3000) QThread::msleep(20);
    ASSERT_EQ(system.recordedSourceName().toStdString(), "headphones.monitor");

    // A new null sink delivers its first data after about 2 s.
    const size_t before = systemRecorder.chunkCount();
    ASSERT_TRUE(systemRecorder.waitForChunks(before + 2, 4s));
    auto playing = server->play("headphones", hello);
    ASSERT_TRUE(finishes(*playing));
    QThread::msleep(300);
    auto chunks = systemRecorder.chunks();
    std::vector<float> after;
    for (size_t index = before; index < chunks.size(); ++index) {
        const auto mono = mixToMono(chunks[index].samples, chunks[index].channelCount);
        after.insert(after.end(), mono.begin(), mono.end());
    }
    EXPECT_GT(match(after, hello).correlation, 0.9);
    for (size_t index = 1; index < chunks.size(); ++index) EXPECT_GT(chunks[index].startTime, chunks[index - 1].startTime);

    // The sink removed: capture moves on to whatever the server makes the default.
    ASSERT_TRUE(server->pactl({"unload-module", QString::number(headphones)}));
    moving.restart();
    auto movedOn = [&] {
        const QString name = system.recordedSourceName();  // empty while it reconnects
        return name.endsWith(".monitor") && name != "headphones.monitor";
    };
    while (!movedOn() && moving.elapsed() < 3000) QThread::msleep(20);
    EXPECT_TRUE(system.recordedSourceName().endsWith(".monitor")) << system.recordedSourceName().toStdString();
    EXPECT_NE(system.recordedSourceName(), "headphones.monitor");
    EXPECT_TRUE(systemRecorder.failures().empty()) << systemRecorder.failures().front().toStdString();
}

TEST_P(PulseCaptureTest, AKilledServerFailsBothSourcesPromptly) {
    MicrophoneCapture microphone(options());
    SystemAudioCapture system(options());
    ASSERT_TRUE(microphone.start(std::nullopt, micRecorder.chunkHandler(), micRecorder.failureHandler()));
    ASSERT_TRUE(system.start(std::nullopt, systemRecorder.chunkHandler(), systemRecorder.failureHandler()));
    ASSERT_TRUE(systemRecorder.waitForChunks(1, 3s));

    server->kill();
    ASSERT_TRUE(micRecorder.waitForFailure(5s));
    ASSERT_TRUE(systemRecorder.waitForFailure(5s));
    EXPECT_EQ(micRecorder.failures(), std::vector<QString>{"The audio server stopped."});
    EXPECT_EQ(systemRecorder.failures(), std::vector<QString>{"The audio server stopped."});
    QElapsedTimer stopping;
    stopping.start();
    microphone.stop();
    system.stop();
    EXPECT_LT(stopping.elapsed(), 200);
}

TEST_P(PulseCaptureTest, AStalledServerIsReportedAndNeverHangsTheCaller) {
    SystemAudioCapture system(options(1500ms));
    system.setWarningHandler(systemRecorder.warningHandler());
    ASSERT_TRUE(system.start(std::nullopt, systemRecorder.chunkHandler(), systemRecorder.failureHandler()));
    ASSERT_TRUE(systemRecorder.waitForChunks(1, 3s));

    server->freeze();
    ASSERT_TRUE(systemRecorder.waitForWarnings(1, 3s));
    EXPECT_EQ(systemRecorder.warnings(), std::vector<QString>{"No system audio has arrived for 1.5 seconds."});
    EXPECT_TRUE(systemRecorder.failures().empty()) << "capture goes on: a warning, not a failure";
    PulseMeetingPermissions permissions(300ms);
    auto access = permissions.microphoneAccess();
    ASSERT_FALSE(access);
    EXPECT_EQ(access.error().description(), "The audio server did not answer in time.");

    // Audio that flows again ends the warning.
    server->thaw();
    ASSERT_TRUE(systemRecorder.waitForWarnings(2, 3s));
    EXPECT_EQ(systemRecorder.warnings().back(), "");
    EXPECT_TRUE(systemRecorder.failures().empty());
    server->freeze();
    QElapsedTimer timer;
    timer.start();
    system.stop();
    EXPECT_LT(timer.elapsed(), 500);

    timer.restart();
    MicrophoneCapture microphone(options());
    auto started = microphone.start(std::nullopt, micRecorder.chunkHandler(), micRecorder.failureHandler());
    ASSERT_FALSE(started);
    EXPECT_EQ(started.error().description(), "The audio server did not answer in time.");
    EXPECT_LT(timer.elapsed(), 1800);
}

TEST_P(PulseCaptureTest, SilentSpeakersWhileTheMicrophoneHearsSpeechAreReported) {
    const QString budget = spoken("I think the budget is too small.");
    MicrophoneCapture microphone(options(1500ms));
    SystemAudioCapture system(options(1500ms));
    ASSERT_TRUE(microphone.start(std::nullopt, micRecorder.chunkHandler(), micRecorder.failureHandler()));
    system.setWarningHandler(systemRecorder.warningHandler());
    ASSERT_TRUE(system.start(std::nullopt, systemRecorder.chunkHandler(), systemRecorder.failureHandler()));
    QThread::msleep(1800);
    EXPECT_TRUE(systemRecorder.warnings().empty()) << "silence alone is no fault";

    auto talking = server->play("micfeed", budget);
    ASSERT_TRUE(systemRecorder.waitForWarnings(1, 4s));
    EXPECT_EQ(systemRecorder.warnings(),
              std::vector<QString>{"Nothing is playing on the speakers: system audio has been silent for 1.5 seconds "
                                   "while the microphone hears speech."});
    EXPECT_TRUE(systemRecorder.failures().empty()) << "the speakers are still recorded";
    EXPECT_TRUE(micRecorder.failures().empty());
    talking->waitForFinished(10000);
}

TEST_P(PulseCaptureTest, DevicesPermissionsAndTheDefaultMicrophone) {
    auto microphones = listMicrophones(1000ms);
    ASSERT_TRUE(microphones);
    ASSERT_EQ(microphones->size(), 1u) << "monitors are no microphones";
    EXPECT_EQ(microphones->front().id, "virtualmic");
    EXPECT_FALSE(microphones->front().name.isEmpty());
    PulseMeetingPermissions permissions(1000ms);
    EXPECT_TRUE(permissions.microphoneAccess());
    EXPECT_TRUE(permissions.systemAudioAccess());

    // The app's factory makes working captures of the asked-for kind.
    const MeetingCaptureFactory factory = makePulseCapture;
    auto made = factory(MeetingCaptureSource::system);
    ASSERT_EQ(made->source(), MeetingCaptureSource::system);
    EXPECT_EQ(factory(MeetingCaptureSource::microphone)->source(), MeetingCaptureSource::microphone);
    ASSERT_TRUE(made->start(std::nullopt, systemRecorder.chunkHandler(), systemRecorder.failureHandler()));
    EXPECT_TRUE(systemRecorder.waitForChunks(1, 3s));
    made->stop();

    MicrophoneCapture absent(options());
    auto started = absent.start(QString("usb-headset"), micRecorder.chunkHandler(), micRecorder.failureHandler());
    ASSERT_FALSE(started);
    EXPECT_EQ(started.error().description(), "The selected microphone is no longer available.");

    std::atomic<int> changes = 0;
    auto watcher = MicrophoneWatcher::start([&] { ++changes; }, 1000ms);
    ASSERT_TRUE(watcher);
    ASSERT_TRUE(server->pactl({"unload-module", QString::number(server->remapModule())}));
    QElapsedTimer waiting;
    waiting.start();
    while (changes == 0 && waiting.elapsed() < 2000) QThread::msleep(10);
    EXPECT_GT(changes, 0);
    watcher->reset();

    // Only monitors are left: the server's fallback default source is no microphone.
    microphones = listMicrophones(1000ms);
    ASSERT_TRUE(microphones);
    EXPECT_TRUE(microphones->empty());
    EXPECT_EQ(permissions.microphoneAccess().error().description(), "No microphone is available.");
    EXPECT_TRUE(permissions.systemAudioAccess()) << "the speakers are still there";
    MicrophoneCapture fallback(options());
    started = fallback.start(std::nullopt, micRecorder.chunkHandler(), micRecorder.failureHandler());
    ASSERT_FALSE(started);
    EXPECT_EQ(started.error().description(), "No microphone is available.");
}

TEST_P(PulseCaptureTest, AMachineWithoutOutputDeviceSaysSoAndKeepsItsMicrophone) {
    // A microphone of its own (a pipe), then every sink goes: nothing plays anywhere.
    QTemporaryDir folder;
    const QString pipe = folder.filePath("mic.fifo");
    ASSERT_GE(server->loadModule({"module-pipe-source", "source_name=pipemic", "file=" + pipe, "format=float32le",
                                  "rate=48000", "channels=1"}),
              0);
    QString modules;
    ASSERT_TRUE(server->pactl({"list", "short", "modules"}, &modules));
    for (const QString& line : modules.split('\n')) {
        if (line.contains("module-null-sink")) server->pactl({"unload-module", line.section('\t', 0, 0)});
    }
    // The servers may put their silent stand-in sink ("Dummy Output") in place: that is no output device.
    QString sinks;
    ASSERT_TRUE(server->pactl({"list", "short", "sinks"}, &sinks));
    for (const QString& line : sinks.split('\n', Qt::SkipEmptyParts)) EXPECT_EQ(line.section('\t', 1, 1), "auto_null");

    PulseMeetingPermissions permissions(1000ms);
    auto access = permissions.systemAudioAccess();
    ASSERT_FALSE(access);
    EXPECT_EQ(access.error().description(),
              "No speakers or other audio output is available for system audio capture.");
    EXPECT_TRUE(permissions.microphoneAccess());
    SystemAudioCapture system(options());
    auto started = system.start(std::nullopt, systemRecorder.chunkHandler(), systemRecorder.failureHandler());
    ASSERT_FALSE(started);
    EXPECT_EQ(started.error().description(), access.error().description());
}

INSTANTIATE_TEST_SUITE_P(Servers, PulseCaptureTest,
                         ::testing::Values(test::AudioServerKind::pulseAudio, test::AudioServerKind::pipeWire),
                         [](const auto& info) {
                             return info.param == test::AudioServerKind::pulseAudio ? "PulseAudio" : "PipeWire";
                         });

TEST(PulseCaptureWithoutServerTest, EveryEntryPointSaysThatNoServerRuns) {
    const QByteArray saved = qgetenv("PULSE_SERVER");
    test::pointAtMissingServer();
    const QString text = "No audio server is running, so meeting audio cannot be captured.";
    QElapsedTimer timer;
    timer.start();
    SystemAudioCapture system;
    CaptureRecorder recorder;
    auto started = system.start(std::nullopt, recorder.chunkHandler(), recorder.failureHandler());
    ASSERT_FALSE(started);
    EXPECT_EQ(started.error().description(), text);
    auto microphones = listMicrophones();
    ASSERT_FALSE(microphones);
    EXPECT_EQ(microphones.error().description(), text);
    EXPECT_FALSE(MicrophoneWatcher::start([] {}));
    PulseMeetingPermissions permissions;
    EXPECT_EQ(permissions.microphoneAccess().error().description(), text);
    EXPECT_EQ(permissions.systemAudioAccess().error().description(), text);
    EXPECT_LT(timer.elapsed(), 1000);
    system.stop();
    qputenv("PULSE_SERVER", saved);
}

}  // namespace
}  // namespace mossly::meeting
