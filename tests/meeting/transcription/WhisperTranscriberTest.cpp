#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>
#include <cmath>

#include "IncrementalTranscription.h"
#include "WhisperModelFile.h"
#include "WhisperTranscriber.h"

using namespace mossly::meeting;

namespace {

const QString miniModel = QStringLiteral(MOSSLY_TEST_WHISPER_MODEL);

// Random weights: fast, and only bounded output is wanted from them.
WhisperTranscriber::Options testOptions() {
    return {.threads = 2, .maxTokens = 16, .temperatureIncrement = 0.0f, .singleSegment = true};
}

std::vector<float> voiceLike(double seconds) {
    std::vector<float> samples(static_cast<size_t>(seconds * 16000));
    for (size_t index = 0; index < samples.size(); ++index) {
        const double time = double(index) / 16000;
        samples[index] =
            float(0.2 * std::sin(2 * M_PI * 180 * time) * (0.6 + 0.4 * std::sin(2 * M_PI * 3 * time)));
    }
    return samples;
}

QByteArray modelBytes() {
    QFile file(miniModel);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly));
    return file.readAll();
}

TEST(WhisperTranscriber, TranscribesWithTheRealLibraryAndKeepsTimesInsideTheAudio) {
    auto transcriber = WhisperTranscriber::load(miniModel, testOptions());
    ASSERT_TRUE(transcriber) << transcriber.error().description().toStdString();
    const auto samples = voiceLike(3.0);
    const auto segments = (*transcriber)->transcribe(samples, MeetingCaptureSource::system, 42.0);
    ASSERT_TRUE(segments) << segments.error().description().toStdString();
    EXPECT_FALSE(segments->isEmpty());
    for (const auto& segment : *segments) {
        EXPECT_EQ(segment.source, MeetingCaptureSource::system);
        EXPECT_GE(segment.startTime, 42.0);
        EXPECT_LE(segment.endTime, 45.0);
        EXPECT_LE(segment.startTime, segment.endTime);
        EXPECT_FALSE(segment.text.isEmpty());
    }

    // Cancelled inference fails cleanly, and the transcriber keeps working afterwards.
    (*transcriber)->cancel();
    const auto cancelled = (*transcriber)->transcribe(samples, MeetingCaptureSource::system, 0);
    ASSERT_FALSE(cancelled);
    EXPECT_EQ(cancelled.error().code(), MeetingSessionError::Code::transcriptionFailed);
    EXPECT_TRUE(cancelled.error().description().startsWith("Local Whisper inference failed ("));
    EXPECT_TRUE((*transcriber)->transcribe(samples, MeetingCaptureSource::system, 0));
}

TEST(WhisperTranscriber, RunsEndToEndBehindIncrementalTranscription) {
    auto loaded = WhisperTranscriber::load(miniModel, testOptions());
    ASSERT_TRUE(loaded);
    IncrementalTranscription transcription(std::shared_ptr<WhisperTranscriber>(std::move(*loaded)));
    const auto samples = voiceLike(24.0);
    const auto accepted =
        transcription.accept({MeetingCaptureSource::microphone, 0, samples, 16000, 1, 0.1f});
    ASSERT_FALSE(accepted.failure) << accepted.failure->description().toStdString();
    const auto flushed = transcription.flush();
    ASSERT_FALSE(flushed.failure) << flushed.failure->description().toStdString();
    for (const auto& segment : accepted.segments + flushed.segments) {
        EXPECT_TRUE(segment.isStable);
        EXPECT_GE(segment.startTime, 0);
        EXPECT_LE(segment.endTime, 24.0);
    }
    EXPECT_TRUE(transcription.backlog().isEmpty());
}

TEST(WhisperTranscriber, DamagedOrMissingModelsAreErrorsNotCrashes) {
    const QByteArray model = modelBytes();
    ASSERT_GT(model.size(), 1'000'000);
    ASSERT_TRUE(validateWhisperModelFile(miniModel));

    QTemporaryDir folder;
    const auto loadBytes = [&](const QString& name, const QByteArray& bytes) {
        QFile file(folder.filePath(name));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
        file.close();
        return WhisperTranscriber::load(file.fileName(), testOptions());
    };
    const qsizetype vocabularyStart = 4 + 44 + 8 + 80 * 201 * 4;
    qsizetype vocabularyEnd = vocabularyStart + 4;
    for (qint32 token = 0; token < *reinterpret_cast<const qint32*>(model.constData() + vocabularyStart);
         ++token) {
        vocabularyEnd += 4 + *reinterpret_cast<const qint32*>(model.constData() + vocabularyEnd);
    }
    const struct {
        const char* name;
        QByteArray bytes;
        const char* reason;
    } damaged[] = {
        {"empty.bin", QByteArray(), "the file is not a Whisper model"},
        {"text.bin", QByteArray(200, 'x'), "the file is not a Whisper model"},
        {"cut-in-vocabulary.bin", model.left(vocabularyStart + 100), "the file is truncated"},
        {"cut-in-weights.bin", model.left(model.size() - 1000), "the file is truncated"},
        {"no-weights.bin", model.left(vocabularyEnd), "the model has no weights"},
        {"foreign-tensor-type.bin",
         model.left(vocabularyEnd + 8) + QByteArray("\x63\0\0\0", 4) + model.mid(vocabularyEnd + 12),
         "a tensor has an unknown type"},
    };
    for (const auto& [name, bytes, reason] : damaged) {
        const auto loaded = loadBytes(name, bytes);
        ASSERT_FALSE(loaded) << name;
        EXPECT_EQ(loaded.error().code(), MeetingSessionError::Code::transcriptionFailed);
        EXPECT_EQ(loaded.error().description(),
                  QStringLiteral("The local Whisper model could not be loaded (%1).").arg(reason))
            << name;
    }
    EXPECT_EQ(WhisperTranscriber::load(folder.filePath("absent.bin"), testOptions()).error().description(),
              "The local Whisper model could not be loaded (the file cannot be read).");
}

}  // namespace
