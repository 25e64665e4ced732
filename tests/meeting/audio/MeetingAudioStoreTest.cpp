#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include "MeetingAudioStore.h"
#include "SpeechFixture.h"
#include "TestSupport.h"

using namespace mossly::meeting;
using namespace mossly::test;

namespace {

const QString audioFolder = QStringLiteral("Meetings/Assets/Standup/Meeting Audio/");

TEST(MeetingAudioStore, WritesOneTrackPerSourceAndMovesThemBesideTheNote) {
    TemporaryNotesFolder notes;
    const SoundFile speech = readSoundFile(convertedSpeech(48000, 2));
    const auto chunks = captureChunks(speech, MeetingCaptureSource::system, 0, 20);
    MeetingAudioStore store(notes.path(), QStringLiteral("Meetings/Standup.md"));
    ASSERT_TRUE(store.open(MeetingCaptureSource::microphone));
    ASSERT_TRUE(store.open(MeetingCaptureSource::system));
    for (const auto& chunk : chunks) ASSERT_TRUE(store.append(chunk));
    ASSERT_TRUE(store.append(MeetingAudioChunk::captured(MeetingCaptureSource::microphone, 0,
                                                         std::vector<float>(16000, 0.1f), 16000)));

    EXPECT_EQ(store.recordingPaths(), (QStringList{"Assets/Standup/Meeting Audio/microphone.wav.recording",
                                                   "Assets/Standup/Meeting Audio/system.wav.recording"}));
    // Playable while still recording: the header follows every write.
    EXPECT_EQ(readSoundFile(notes.filePath(audioFolder + "system.wav.recording")).frames(), speech.frames());

    const auto finished = store.finish();
    ASSERT_FALSE(finished.failure);
    EXPECT_EQ(finished.paths, (QStringList{"Assets/Standup/Meeting Audio/microphone.wav",
                                           "Assets/Standup/Meeting Audio/system.wav"}));
    const SoundFile system = readSoundFile(notes.filePath(audioFolder + "system.wav"));
    EXPECT_EQ(system.sampleRate, 48000);
    EXPECT_EQ(system.channelCount, 2);
    EXPECT_EQ(system.frames(), speech.frames());
    EXPECT_GT(correlation(system.samples, speech.samples), 0.999);
    EXPECT_EQ(readSoundFile(notes.filePath(audioFolder + "microphone.wav")).frames(), 16000);
    EXPECT_EQ(QDir(notes.filePath(audioFolder)).entryList(QDir::Files),
              (QStringList{"microphone.wav", "system.wav"}));
}

TEST(MeetingAudioStore, ASilentTrackLeavesNoFileAndDiscardDeletesEverything) {
    TemporaryNotesFolder notes;
    notes.write("Meetings/Standup.md", "# Standup\n");
    {
        MeetingAudioStore store(notes.path(), QStringLiteral("Meetings/Standup.md"));
        ASSERT_TRUE(store.open(MeetingCaptureSource::microphone));
        ASSERT_TRUE(store.open(MeetingCaptureSource::system));
        ASSERT_TRUE(store.append(MeetingAudioChunk::captured(MeetingCaptureSource::system, 0,
                                                             std::vector<float>(160, 0.1f), 16000)));
        const auto finished = store.finish();
        ASSERT_FALSE(finished.failure);
        EXPECT_EQ(finished.paths, QStringList{"Assets/Standup/Meeting Audio/system.wav"});
    }
    MeetingAudioStore discarded(notes.path(), QStringLiteral("Meetings/Retro.md"));
    ASSERT_TRUE(discarded.open(MeetingCaptureSource::microphone));
    ASSERT_TRUE(discarded.append(MeetingAudioChunk::captured(MeetingCaptureSource::microphone, 0,
                                                             std::vector<float>(160, 0.1f), 16000)));
    discarded.discard();
    EXPECT_EQ(notes.allEntries(),
              (QStringList{"Meetings", "Meetings/Assets", "Meetings/Assets/Standup",
                           "Meetings/Assets/Standup/Meeting Audio",
                           "Meetings/Assets/Standup/Meeting Audio/system.wav", "Meetings/Standup.md"}));
}

// "Standup.md" was trashed or renamed and kept its audio; a new "Standup" must not touch it,
// nor the recording an interrupted meeting of that name left behind.
TEST(MeetingAudioStore, EarlierRecordingsOfTheSameNoteNameAreNeverReplaced) {
    TemporaryNotesFolder notes;
    notes.write(audioFolder + "microphone.wav", "last week's recording");
    notes.write(audioFolder + "system.wav.recording", "a meeting that never finished");
    MeetingAudioStore store(notes.path(), QStringLiteral("Meetings/Standup.md"));
    ASSERT_TRUE(store.open(MeetingCaptureSource::microphone));
    ASSERT_TRUE(store.open(MeetingCaptureSource::system));
    for (auto source : {MeetingCaptureSource::microphone, MeetingCaptureSource::system}) {
        ASSERT_TRUE(store.append(MeetingAudioChunk::captured(source, 0, std::vector<float>(160, 0.1f), 16000)));
    }
    EXPECT_EQ(store.recordingPaths(), (QStringList{"Assets/Standup/Meeting Audio/microphone 2.wav.recording",
                                                   "Assets/Standup/Meeting Audio/system 2.wav.recording"}));
    const auto finished = store.finish();
    ASSERT_FALSE(finished.failure);
    EXPECT_EQ(finished.paths, (QStringList{"Assets/Standup/Meeting Audio/microphone 2.wav",
                                           "Assets/Standup/Meeting Audio/system 2.wav"}));
    EXPECT_EQ(notes.read(audioFolder + "microphone.wav"), "last week's recording");
    EXPECT_EQ(notes.read(audioFolder + "system.wav.recording"), "a meeting that never finished");
    EXPECT_EQ(readSoundFile(notes.filePath(audioFolder + "microphone 2.wav")).frames(), 160);
}

TEST(MeetingAudioStore, APartlyFailedFinishListsTheRecordingsItKept) {
    TemporaryNotesFolder notes;
    MeetingAudioStore store(notes.path(), QStringLiteral("Meetings/Standup.md"));
    ASSERT_TRUE(store.open(MeetingCaptureSource::microphone));
    ASSERT_TRUE(store.open(MeetingCaptureSource::system));
    for (auto source : {MeetingCaptureSource::microphone, MeetingCaptureSource::system}) {
        ASSERT_TRUE(store.append(MeetingAudioChunk::captured(source, 0, std::vector<float>(160, 0.1f), 16000)));
    }
    ASSERT_TRUE(QFile::remove(notes.filePath(audioFolder + "microphone.wav.recording")));
    const auto finished = store.finish();
    ASSERT_TRUE(finished.failure);
    EXPECT_EQ(finished.failure->description(),
              "The meeting recording could not be written: the recording could not be moved beside the note.");
    EXPECT_EQ(finished.paths, QStringList{"Assets/Standup/Meeting Audio/system.wav"});
}

TEST(MeetingAudioStore, TroubleIsReportedAsACaptureError) {
    TemporaryNotesFolder notes;
    MeetingAudioStore store(notes.path(), QStringLiteral("Standup.md"));
    const auto chunk =
        MeetingAudioChunk::captured(MeetingCaptureSource::system, 0, std::vector<float>(160), 16000);
    EXPECT_EQ(store.append(chunk).error().code(), MeetingSessionError::Code::captureFailed);  // no track open

    ASSERT_TRUE(store.open(MeetingCaptureSource::system));
    ASSERT_TRUE(store.append(chunk));
    auto resampled = chunk;
    resampled.sampleRate = 48000;
    EXPECT_EQ(store.append(resampled).error().description(),
              "The meeting recording could not be written: the audio format changed during the recording.");

    notes.write("Blocked/Assets", "a file where the folder should be");
    MeetingAudioStore blocked(notes.path(), QStringLiteral("Blocked/Standup.md"));
    EXPECT_EQ(blocked.open(MeetingCaptureSource::microphone).error().description(),
              "The meeting recording could not be written: the folder beside the note could not be created.");
}

}  // namespace
