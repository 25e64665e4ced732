#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <cmath>

#include "AudioPipeline.h"
#include "SpeechFixture.h"

using namespace mossly::meeting;
using namespace mossly::test;

namespace {

std::vector<MeetingAudioChunk> drain(AudioPipeline& pipeline) {
    std::vector<MeetingAudioChunk> chunks;
    while (true) {
        auto next = pipeline.dequeue();
        EXPECT_TRUE(next) << next.error().description().toStdString();
        if (!next || !*next) return chunks;
        chunks.push_back(std::move(**next));
    }
}

std::vector<float> joined(const std::vector<MeetingAudioChunk>& chunks) {
    std::vector<float> samples;
    for (const auto& chunk : chunks)
        samples.insert(samples.end(), chunk.samples.begin(), chunk.samples.end());
    return samples;
}

MeetingAudioChunk tone(MeetingCaptureSource source, double startTime, int count, double rate = 16000) {
    std::vector<float> samples(static_cast<size_t>(count));
    for (int index = 0; index < count; ++index)
        samples[size_t(index)] = 0.25f * float(std::sin(index * 0.05));
    return MeetingAudioChunk::captured(source, startTime, std::move(samples), rate);
}

struct Format {
    int sampleRate;
    int channelCount;
};

class SpeechThroughThePipeline : public ::testing::TestWithParam<Format> {};

// Real speech in the formats devices deliver, in 10 ms chunks: the output is
// exactly as long as the input, continuous in time, at the same loudness, and
// sounds like sox's own 16 kHz conversion of the same speech.
TEST_P(SpeechThroughThePipeline, BecomesContinuous16kHzMonoOfTheExactLengthAndLevel) {
    const auto [rate, channels] = GetParam();
    const SoundFile input = readSoundFile(convertedSpeech(rate, channels));
    const SoundFile reference = readSoundFile(convertedSpeech(16000, 1));
    AudioPipeline pipeline(10'000);
    for (const auto& chunk : captureChunks(input, MeetingCaptureSource::system, 3.0, 10)) {
        ASSERT_TRUE(pipeline.enqueue(chunk));
    }
    ASSERT_TRUE(pipeline.flush());
    const qint64 expected = std::llround(double(input.frames()) * 16000 / rate);
    EXPECT_DOUBLE_EQ(pipeline.backlog().systemSeconds, double(expected) / 16000);
    EXPECT_EQ(pipeline.backlog().microphoneSeconds, 0);

    const auto chunks = drain(pipeline);
    const auto output = joined(chunks);
    EXPECT_EQ(qint64(output.size()), expected);
    EXPECT_EQ(pipeline.metrics().normalizedSamples, expected);
    EXPECT_TRUE(pipeline.backlog().isEmpty());
    ASSERT_FALSE(chunks.empty());
    EXPECT_DOUBLE_EQ(chunks.front().startTime, 3.0);
    for (size_t index = 1; index < chunks.size(); ++index) {
        const auto& previous = chunks[index - 1];
        EXPECT_NEAR(chunks[index].startTime, previous.startTime + double(previous.samples.size()) / 16000,
                    1e-9);
    }
    for (const auto& chunk : chunks) {
        EXPECT_EQ(chunk.sampleRate, 16000);
        EXPECT_EQ(chunk.channelCount, 1);
        EXPECT_EQ(chunk.source, MeetingCaptureSource::system);
        EXPECT_FLOAT_EQ(chunk.level, rmsLevel(chunk.samples));
    }
    const float inputLevel = rmsLevel(mixToMono(input.samples, input.channelCount));
    EXPECT_NEAR(rmsLevel(output), inputLevel, inputLevel * 0.05);
    EXPECT_GT(correlation(output, reference.samples), 0.95);
}

INSTANTIATE_TEST_SUITE_P(DeviceFormats, SpeechThroughThePipeline,
                         ::testing::Values(Format{22050, 1}, Format{22050, 2}, Format{44100, 2},
                                           Format{48000, 2}, Format{48000, 1}, Format{16000, 2}),
                         [](const auto& info) {
                             return QStringLiteral("%1Hz%2ch")
                                 .arg(info.param.sampleRate)
                                 .arg(info.param.channelCount)
                                 .toStdString();
                         });

TEST(AudioPipeline, A48kHzChunkOf4800SamplesBecomes1600AndAGapStartsANewRun) {
    AudioPipeline pipeline(240);
    ASSERT_TRUE(pipeline.enqueue(tone(MeetingCaptureSource::microphone, 0.0, 4800, 48000)));
    ASSERT_TRUE(pipeline.enqueue(tone(MeetingCaptureSource::microphone, 5.0, 4800, 48000)));  // after a pause
    ASSERT_TRUE(pipeline.flush());
    const auto chunks = drain(pipeline);
    qint64 beforeGap = 0, afterGap = 0;
    for (const auto& chunk : chunks)
        (chunk.startTime < 5.0 ? beforeGap : afterGap) += qint64(chunk.samples.size());
    EXPECT_EQ(beforeGap, 1600);
    EXPECT_EQ(afterGap, 1600);
    const auto firstAfterGap =
        std::find_if(chunks.begin(), chunks.end(), [](auto& c) { return c.startTime >= 5.0; });
    ASSERT_NE(firstAfterGap, chunks.end());
    EXPECT_DOUBLE_EQ(firstAfterGap->startTime, 5.0);
}

TEST(AudioPipeline, OverflowGoesToDiskAndComesBackInArrivalOrder) {
    auto spool =
        std::make_unique<AudioSpoolFile>(QDir::tempPath() + QStringLiteral("/mossly-spool-test.bin"));
    const QString spoolPath = spool->path();
    AudioPipeline pipeline(240, std::move(spool));
    for (int index = 0; index < 241; ++index) {
        ASSERT_TRUE(pipeline.enqueue(tone(MeetingCaptureSource::microphone, index * 0.01, 160)));
    }
    EXPECT_EQ(pipeline.metrics(), (AudioPipelineMetrics{241, 0, 1, 241 * 160}));
    EXPECT_GT(QFile(spoolPath).size(), 241 / 240 * 160 * 4);

    // Memory has room again, but the newer chunk must still wait behind the spooled one.
    ASSERT_TRUE(pipeline.dequeue());
    ASSERT_TRUE(pipeline.enqueue(tone(MeetingCaptureSource::microphone, 2.41, 160)));
    EXPECT_EQ(pipeline.metrics().diskBackedChunks, 2);
    EXPECT_DOUBLE_EQ(pipeline.backlog().microphoneSeconds, 241 * 0.01);

    const auto chunks = drain(pipeline);
    ASSERT_EQ(chunks.size(), 241u);
    for (size_t index = 0; index < chunks.size(); ++index) {
        EXPECT_NEAR(chunks[index].startTime, double(index + 1) * 0.01, 1e-9);
    }
    EXPECT_EQ(chunks.back().samples, tone(MeetingCaptureSource::microphone, 0, 160).samples);
    EXPECT_EQ(QFile(spoolPath).size(), 0);  // emptied once read to the end
    EXPECT_TRUE(pipeline.backlog().isEmpty());
}

// The disk layer as a test controls it.
class ScriptedSpool : public AudioSpoolStorage {
  public:
    bool failAppend = false;
    bool damageReads = false;
    std::expected<qint64, QString> append(const QByteArray& record) override {
        if (failAppend) return std::unexpected(QStringLiteral("No space left on device"));
        bytes_ += record;
        return bytes_.size() - record.size();
    }
    std::expected<QByteArray, QString> read(qint64 offset, qint64 length) override {
        QByteArray record = bytes_.mid(offset, length);
        if (damageReads) record[40] = char(record[40] ^ 0x10);
        return record;
    }
    std::expected<void, QString> reset() override {
        bytes_.clear();
        return {};
    }

  private:
    QByteArray bytes_;
};

TEST(AudioPipeline, ASpoolThatCannotWriteIsReportedAndCountedNotLostSilently) {
    auto owned = std::make_unique<ScriptedSpool>();
    ScriptedSpool* spool = owned.get();
    AudioPipeline pipeline(1, std::move(owned));
    ASSERT_TRUE(pipeline.enqueue(tone(MeetingCaptureSource::system, 0.0, 160)));
    spool->failAppend = true;
    const auto refused = pipeline.enqueue(tone(MeetingCaptureSource::system, 0.01, 160));
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().code(), MeetingSessionError::Code::captureFailed);
    EXPECT_EQ(refused.error().description(),
              "Meeting audio could not be written to the queue file: No space left on device");
    EXPECT_EQ(pipeline.metrics(), (AudioPipelineMetrics{1, 1, 0, 320}));
    EXPECT_DOUBLE_EQ(pipeline.backlog().systemSeconds, 0.01);  // only what is really queued

    spool->failAppend = false;  // the disk recovers: the next chunks spool again
    ASSERT_TRUE(pipeline.enqueue(tone(MeetingCaptureSource::system, 0.02, 160)));
    EXPECT_EQ(drain(pipeline).size(), 2u);
}

TEST(AudioPipeline, ADamagedSpoolRecordIsAnErrorAndTheNextRecordStillComesOut) {
    auto owned = std::make_unique<ScriptedSpool>();
    ScriptedSpool* spool = owned.get();
    AudioPipeline pipeline(0, std::move(owned));  // everything on disk
    ASSERT_TRUE(pipeline.enqueue(tone(MeetingCaptureSource::microphone, 0.0, 160)));
    ASSERT_TRUE(pipeline.enqueue(tone(MeetingCaptureSource::microphone, 0.01, 160)));
    spool->damageReads = true;
    const auto damaged = pipeline.dequeue();
    ASSERT_FALSE(damaged);
    EXPECT_EQ(damaged.error().description(), "A retained audio chunk could not be read for transcription.");
    spool->damageReads = false;
    const auto next = pipeline.dequeue();
    ASSERT_TRUE(next && *next);
    EXPECT_DOUBLE_EQ((*next)->startTime, 0.01);
    EXPECT_TRUE(pipeline.backlog().isEmpty());
}

TEST(AudioPipeline, AChunkWithoutChannelsOrRateIsRefused) {
    AudioPipeline pipeline(4);
    auto chunk = tone(MeetingCaptureSource::microphone, 0, 160);
    chunk.channelCount = 0;
    EXPECT_EQ(pipeline.enqueue(chunk).error().description(), "Unable to create the audio resampler.");
    chunk.channelCount = 1;
    chunk.sampleRate = 0;
    EXPECT_EQ(pipeline.enqueue(chunk).error().description(), "Unable to create the audio resampler.");
    EXPECT_EQ(pipeline.metrics(), AudioPipelineMetrics{});
}

}  // namespace
