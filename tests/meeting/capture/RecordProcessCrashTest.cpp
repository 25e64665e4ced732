#include <gtest/gtest.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <csignal>

#include "MeetingRecoveryStore.h"
#include "NoteRepository.h"
#include "PrivatePulseServer.h"
#include "ProcessTestSupport.h"
#include "TestSupport.h"

namespace mossly::meeting {
namespace {

using test::AudioServerKind;
using test::PrivatePulseServer;

bool waitFor(QProcess& process, const std::function<bool()>& done, int timeoutMs) {
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > timeoutMs || process.state() == QProcess::NotRunning) return false;
        process.waitForReadyRead(200);
    }
    return true;
}

// `mossly-record` as a user runs it, on a private audio server, with the
// miniature model installed where the app keeps its model and consent given.
class RecordProcess {
public:
    RecordProcess() {
        QDir(home_.path()).mkpath("data/com.bellam.notes/Models");
        QDir(home_.path()).mkpath("config/com.bellam.notes");
        QFile::copy(QStringLiteral(MOSSLY_TEST_WHISPER_MODEL), home_.filePath("data/com.bellam.notes/Models/ggml-base.bin"));
        QFile settings(home_.filePath("config/com.bellam.notes/Mossly.conf"));
        if (settings.open(QIODevice::WriteOnly)) settings.write("[General]\nmeeting.recordingConsent=true\n");
    }
    QString notes() const { return home_.filePath("notes"); }

    void configure(QProcess& process) const {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();  // the private server's
        environment.insert("HOME", home_.path());
        environment.insert("XDG_DATA_HOME", home_.filePath("data"));
        environment.insert("XDG_CONFIG_HOME", home_.filePath("config"));
        process.setProcessEnvironment(environment);
        process.setProgram(QStringLiteral(MOSSLY_RECORD_BINARY));
    }

private:
    QTemporaryDir home_;
};

// Killed with SIGKILL in the middle of a meeting, nothing of the recorder runs
// to tidy up; `--recover` then finds the meeting, marks the note interrupted
// and keeps every stable segment the last checkpoint wrote.
TEST(MeetingRecordProcess, AKilledRecordingIsRecoveredWithItsCheckpointedSegments) {
    PrivatePulseServer server(AudioServerKind::pulseAudio);
    if (!server.failure().isEmpty()) {
        if (qEnvironmentVariableIsSet("MOSSLY_REQUIRE_AUDIO_SERVER")) FAIL() << server.failure().toStdString();
        GTEST_SKIP() << "a private audio server cannot run here: " << server.failure().toStdString();
    }
    RecordProcess setup;
    QProcess record;
    setup.configure(record);
    record.setArguments({"--title", "Killed", "--sources", "microphone", "--duration", "600", "--notes-dir", setup.notes()});
    record.start();
    ASSERT_TRUE(record.waitForStarted());

    // Noise into the virtual microphone until a stable segment has reached the note on disk.
    const QString notePath = QDir(setup.notes()).filePath("Killed.md");
    QString output;
    QStringList segments;
    QString onDisk;
    const auto checkpointed = [&] {
        output += QString::fromUtf8(record.readAllStandardOutput());
        segments.clear();
        for (const QString& line : output.split(u'\n', Qt::SkipEmptyParts)) {
            const QJsonObject object = QJsonDocument::fromJson(line.toUtf8()).object();
            if (object.contains("segment")) segments.append(object.value("segment").toObject().value("text").toString());
        }
        QFile file(notePath);
        onDisk = file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
        return !segments.isEmpty() && onDisk.contains(segments.front().trimmed());
    };
    QProcess noise;
    noise.start(QStringLiteral(MOSSLY_SOX), {"-n", "-r", QString::number(server.sampleRate()), "-c", "1", "-t", "wav", "-",
                                             "synth", "120", "pinknoise", "vol", "0.5"});
    std::unique_ptr<QProcess> player;
    ASSERT_TRUE(noise.waitForFinished(20000));
    QTemporaryDir audio;
    QFile wav(audio.filePath("noise.wav"));
    ASSERT_TRUE(wav.open(QIODevice::WriteOnly));
    wav.write(noise.readAllStandardOutput());
    wav.close();
    player = server.play("micfeed", wav.fileName());
    const bool reached = waitFor(record, checkpointed, 90000);
    ASSERT_TRUE(reached) << "no checkpoint with a stable segment; output:\n"
                         << output.toStdString() << QString::fromUtf8(record.readAllStandardError()).toStdString();

    ::kill(static_cast<pid_t>(record.processId()), SIGKILL);
    ASSERT_TRUE(record.waitForFinished(10000));
    EXPECT_EQ(record.exitStatus(), QProcess::CrashExit);
    const QString lastCheckpoint = onDisk;
    ASSERT_EQ(MeetingRecoveryStore(setup.notes()).loadAll().value_or(QList<MeetingRecoveryManifest>{}).size(), 1) << "the manifest outlives the crash";

    QProcess recover;
    setup.configure(recover);
    recover.setArguments({"--recover", "--notes-dir", setup.notes()});
    recover.start();
    ASSERT_TRUE(recover.waitForFinished(30000));
    EXPECT_EQ(recover.exitCode(), 0) << recover.readAllStandardError().toStdString();
    EXPECT_EQ(QJsonDocument::fromJson(recover.readAllStandardOutput()).object(), (QJsonObject{{"recovered", 1}}));

    auto note = NoteRepository(setup.notes()).read("Killed.md");
    ASSERT_TRUE(note);
    EXPECT_EQ(note->document.frontMatterFields.at("meeting-interrupted"), NoteFrontMatterValue(true));
    EXPECT_TRUE(note->document.body.contains("Recording was interrupted"));
    // Every line of the transcript as last checkpointed is still there.
    const auto transcript = [](const QString& text) {
        const qsizetype from = text.indexOf("## Transcript");
        const qsizetype to = text.indexOf("<!-- notes:meeting-transcript:end -->");
        return from < 0 || to < 0 ? QStringList{} : text.mid(from, to - from).split(u'\n', Qt::SkipEmptyParts);
    };
    const QStringList before = transcript(lastCheckpoint);
    ASSERT_FALSE(before.isEmpty());
    const QStringList after = transcript(note->document.body);
    for (const QString& line : before) EXPECT_TRUE(after.contains(line)) << line.toStdString();
    EXPECT_TRUE(MeetingRecoveryStore(setup.notes()).loadAll().value_or(QList<MeetingRecoveryManifest>{}).isEmpty());
    if (player) {
        player->kill();
        player->waitForFinished(5000);
    }
}

// Another writer (the app saving the note being typed in, an agent) holds the
// library for 3 s just as the recording stops: the recorder waits for it, exits
// 0, and every segment it printed is in the note.
TEST(MeetingRecordProcess, AStopWhileTheLibraryIsBusyWritesEverySegment) {
    PrivatePulseServer server(AudioServerKind::pulseAudio);
    if (!server.failure().isEmpty()) {
        if (qEnvironmentVariableIsSet("MOSSLY_REQUIRE_AUDIO_SERVER")) FAIL() << server.failure().toStdString();
        GTEST_SKIP() << "a private audio server cannot run here: " << server.failure().toStdString();
    }
    RecordProcess setup;
    QProcess record;
    setup.configure(record);
    record.setArguments({"--title", "Busy", "--sources", "microphone", "--duration", "600", "--notes-dir", setup.notes()});
    record.start();
    ASSERT_TRUE(record.waitForStarted());

    QProcess noise;
    noise.start(QStringLiteral(MOSSLY_SOX), {"-n", "-r", QString::number(server.sampleRate()), "-c", "1", "-t", "wav", "-",
                                             "synth", "120", "pinknoise", "vol", "0.5"});
    ASSERT_TRUE(noise.waitForFinished(20000));
    QTemporaryDir audio;
    QFile wav(audio.filePath("noise.wav"));
    ASSERT_TRUE(wav.open(QIODevice::WriteOnly));
    wav.write(noise.readAllStandardOutput());
    wav.close();
    auto player = server.play("micfeed", wav.fileName());

    QString output;
    const auto printedSegments = [&] {
        output += QString::fromUtf8(record.readAllStandardOutput());
        QStringList segments;
        for (const QString& line : output.split(u'\n', Qt::SkipEmptyParts)) {
            const QJsonObject object = QJsonDocument::fromJson(line.toUtf8()).object();
            if (object.contains("segment")) segments.append(object.value("segment").toObject().value("text").toString());
        }
        return segments;
    };
    ASSERT_TRUE(waitFor(record, [&] { return !printedSegments().isEmpty(); }, 90000))
        << "no segment; output:\n" << output.toStdString() << record.readAllStandardError().toStdString();

    {
        test::ForkedChild otherWriter([&] { return test::holdLibraryLock(setup.notes()); });
        ASSERT_TRUE(otherWriter.ready());
        ::kill(static_cast<pid_t>(record.processId()), SIGINT);
        QElapsedTimer held;
        held.start();
        while (held.elapsed() < 3000 && record.state() != QProcess::NotRunning) record.waitForReadyRead(100);
    }
    ASSERT_TRUE(record.waitForFinished(60000));
    const QStringList segments = printedSegments();
    EXPECT_EQ(record.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(record.exitCode(), 0) << record.readAllStandardError().toStdString();
    ASSERT_FALSE(segments.isEmpty());
    auto note = NoteRepository(setup.notes()).read("Busy.md");
    ASSERT_TRUE(note);
    EXPECT_TRUE(note->document.frontMatterFields.contains("meeting-ended-at"));
    for (const QString& text : segments) EXPECT_TRUE(note->document.body.contains(text.trimmed())) << text.toStdString();
    EXPECT_EQ(MeetingRecoveryStore(setup.notes()).loadAll(), QList<MeetingRecoveryManifest>{});
    player->kill();
    player->waitForFinished(5000);
}

}  // namespace
}  // namespace mossly::meeting
