#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <csignal>

#include "InterruptSignals.h"
#include "MeetingNoteWriter.h"
#include "MeetingRecordCommand.h"
#include "MeetingSessionFakes.h"
#include "TestSupport.h"

namespace mossly::meeting {
namespace {

using namespace test;
using Source = MeetingCaptureSource;

class MeetingRecordCommandTest : public ::testing::Test {
protected:
    MeetingRecordCommandTest() : settings(preferences), out(&output), err(&errors) {
        settings.setHasAcknowledgedConsent(true);
    }

    std::unique_ptr<MeetingRecordCommand> makeCommand() {
        MeetingSessionServices services;
        services.model = std::make_shared<FakeModel>();
        services.captureFactory = captures.factory();
        services.permissions = std::make_shared<FakePermissions>();
        services.notesDirectory = [] { return QStringLiteral("/nonexistent"); };
        services.transcriberFactory =
            [this](const QString&) -> std::expected<std::shared_ptr<WhisperTranscribing>, MeetingSessionError> {
            return transcriber;
        };
        return std::make_unique<MeetingRecordCommand>(settings, std::move(services), out, err);
    }

    // Runs the command; `whileRunning` may drive it before it is waited for.
    int run(MeetingRecordCommand& command, QStringList arguments,
            const std::function<void()>& whileRunning = {}) {
        std::optional<int> exitCode;
        arguments.prepend(QStringLiteral("mossly-record"));
        command.run(arguments, [&](int code) { exitCode = code; });
        if (whileRunning) whileRunning();
        EXPECT_TRUE(waitFor([&] { return exitCode.has_value(); }));
        return exitCode.value_or(-1);
    }

    QList<QJsonObject> lines() const {
        QList<QJsonObject> objects;
        for (const auto& line : output.split(u'\n', Qt::SkipEmptyParts)) {
            objects.append(QJsonDocument::fromJson(line.toUtf8()).object());
        }
        return objects;
    }

    QStringList printedPhases() const {
        QStringList phases;
        for (const auto& line : lines()) {
            if (line.contains("phase")) phases.append(line.value("phase").toString());
        }
        return phases;
    }

    bool printed(const char* key) const {
        return std::ranges::any_of(lines(), [&](const auto& line) { return line.contains(QString::fromUtf8(key)); });
    }

    mossly::test::TemporaryNotesFolder notesFolder;
    InMemoryMeetingPreferences preferences;
    MeetingSettings settings;
    FakeCaptures captures;
    std::shared_ptr<FakeTranscriber> transcriber = std::make_shared<FakeTranscriber>();
    QString output;
    QString errors;
    QTextStream out;
    QTextStream err;
};

TEST_F(MeetingRecordCommandTest, RecordsUntilInterruptedAndPrintsTheNote) {
    auto command = makeCommand();
    const int code = run(*command,
                         {"--title", "Standup", "--sources", "microphone", "--microphone", "alsa_input.usb",
                          "--notes-dir", notesFolder.path()},
                         [&] {
                             ASSERT_TRUE(waitFor([&] { return printedPhases().contains("recording"); }));
                             captures.latest(Source::microphone).deliver(21);
                             ASSERT_TRUE(waitFor([&] { return printed("segment"); }));
                             command->interrupt();
                         });
    EXPECT_EQ(code, 0) << errors.toStdString();
    EXPECT_EQ(printedPhases(), (QStringList{"requestingPermissions", "preparing", "recording", "finalizing",
                                            "completed"}));
    EXPECT_EQ(captures.created(Source::system), 0);
    QStringList texts;
    for (const auto& line : lines()) {
        if (line.contains("segment")) texts.append(line.value("segment").toObject().value("text").toString());
    }
    EXPECT_EQ(texts, (QStringList{"microphone from 0", "microphone from 18"}));
    EXPECT_EQ(lines().last().value("note").toString(), "Standup.md");
    EXPECT_TRUE(QFile::exists(notesFolder.filePath("Standup.md")));
}

TEST_F(MeetingRecordCommandTest, TerminationSignalStopsTheRecording) {
    auto command = makeCommand();
    InterruptSignals interrupts([&] { command->interrupt(); });
    const int code = run(*command, {"--title", "Signalled", "--notes-dir", notesFolder.path()}, [&] {
        ASSERT_TRUE(waitFor([&] { return printedPhases().contains("recording"); }));
        std::raise(SIGTERM);
    });
    EXPECT_EQ(code, 0);
    EXPECT_EQ(lines().last().value("note").toString(), "Signalled.md");
}

TEST_F(MeetingRecordCommandTest, StopsAfterTheDuration) {
    auto command = makeCommand();
    const int code = run(*command, {"--duration", "0.05", "--title", "Short", "--notes-dir", notesFolder.path()});
    EXPECT_EQ(code, 0) << errors.toStdString();
    EXPECT_EQ(captures.created(Source::microphone), 1);
    EXPECT_EQ(captures.created(Source::system), 1);
    EXPECT_EQ(lines().last().value("note").toString(), "Short.md");
}

TEST_F(MeetingRecordCommandTest, FailedStartExitsWithTheReason) {
    settings.setHasAcknowledgedConsent(false);
    auto command = makeCommand();
    EXPECT_EQ(run(*command, {"--notes-dir", notesFolder.path()}), 1);
    EXPECT_EQ(errors, "Acknowledge the participant-consent reminder before recording.\n");
    EXPECT_FALSE(printed("note"));
}

// A terminal user has no check box: the option acknowledges the reminder, and it stays acknowledged.
TEST_F(MeetingRecordCommandTest, ConsentCanBeAcknowledgedFromTheTerminalAndIsRemembered) {
    settings.setHasAcknowledgedConsent(false);
    auto command = makeCommand();
    EXPECT_EQ(run(*command, {"--acknowledge-consent", "--duration", "0.05", "--title", "Agreed", "--notes-dir",
                             notesFolder.path()}),
              0)
        << errors.toStdString();
    EXPECT_TRUE(MeetingSettings(preferences).hasAcknowledgedConsent());
}

TEST_F(MeetingRecordCommandTest, HelpPrintsTheUsage) {
    auto command = makeCommand();
    EXPECT_EQ(run(*command, {"--help"}), 0);
    EXPECT_TRUE(output.startsWith("Usage: mossly-record"));
    EXPECT_TRUE(output.contains("--acknowledge-consent"));
    EXPECT_TRUE(errors.isEmpty());
}

TEST_F(MeetingRecordCommandTest, RefusesArgumentsItCannotRead) {
    for (const auto& arguments : QList<QStringList>{{"--sources", "speaker"},
                                                    {"--provider", "codexCLI"},
                                                    {"--duration", "-3"},
                                                    {"--volume", "3"},
                                                    {"extra"}}) {
        SCOPED_TRACE(arguments.join(u' ').toStdString());
        errors.clear();
        auto command = makeCommand();
        EXPECT_EQ(run(*command, arguments), 2);
        EXPECT_TRUE(errors.contains("Usage: mossly-record"));
    }
    EXPECT_TRUE(output.isEmpty());
}

TEST_F(MeetingRecordCommandTest, RecoverMarksInterruptedMeetings) {
    {
        // A recorder that is gone: its writer no longer holds the meeting.
        MeetingNoteWriter writer(QUuid::createUuid(), QDateTime::currentDateTimeUtc(), notesFolder.path());
        ASSERT_TRUE(writer.create("Lost", {Source::microphone}, "ggml-base.bin", MeetingSummaryProviderKind::none));
    }

    auto command = makeCommand();
    EXPECT_EQ(run(*command, {"--recover", "--notes-dir", notesFolder.path()}), 0);
    EXPECT_EQ(lines(), (QList<QJsonObject>{{{"recovered", 1}}}));
    EXPECT_TRUE(notesFolder.read("Lost.md").contains("meeting-interrupted: true"));
}

}  // namespace
}  // namespace mossly::meeting
