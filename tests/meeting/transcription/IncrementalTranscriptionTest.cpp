#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "IncrementalTranscription.h"

using namespace mossly::meeting;

namespace {

struct Call {
    MeetingCaptureSource source;
    qsizetype samples;
    double offset;
};

// Answers each window from a script: segments with times relative to the window.
class ScriptedTranscriber : public WhisperTranscribing {
  public:
    struct Line {
        double start, end;
        QString text;
    };
    std::function<std::expected<QList<Line>, MeetingSessionError>(int call, MeetingCaptureSource)> script =
        [](int, MeetingCaptureSource) { return QList<Line>{}; };
    std::vector<Call> calls;

    std::expected<QList<MeetingTranscriptSegment>, MeetingSessionError> transcribe(
        std::span<const float> samples, MeetingCaptureSource source, double offset) override {
        calls.push_back({source, qsizetype(samples.size()), offset});
        auto lines = script(int(calls.size()) - 1, source);
        if (!lines) return std::unexpected(lines.error());
        QList<MeetingTranscriptSegment> segments;
        for (const auto& line : *lines) {
            segments.append(
                {QUuid::createUuid(), source, offset + line.start, offset + line.end, line.text, false});
        }
        return segments;
    }
};

MeetingAudioChunk speech(MeetingCaptureSource source, double startTime, double seconds,
                         float amplitude = 0.1f) {
    std::vector<float> samples(static_cast<size_t>(std::llround(seconds * 16000)));
    for (size_t index = 0; index < samples.size(); ++index)
        samples[index] = amplitude * float(std::sin(index * 0.1));
    return {source, startTime, std::move(samples), 16000, 1, amplitude};
}

QStringList texts(const QList<MeetingTranscriptSegment>& segments) {
    QStringList result;
    for (const auto& segment : segments) result << segment.text;
    return result;
}

class IncrementalTranscriptionTest : public ::testing::Test {
  protected:
    std::shared_ptr<ScriptedTranscriber> transcriber = std::make_shared<ScriptedTranscriber>();
    IncrementalTranscription transcription{transcriber, 20.0, 2.0, 0.002f};

    // `seconds` of audio in 1 s chunks from `start`; the segments they produced.
    QList<MeetingTranscriptSegment> feed(MeetingCaptureSource source, double start, int seconds) {
        QList<MeetingTranscriptSegment> segments;
        for (int second = 0; second < seconds; ++second) {
            auto accepted = transcription.accept(speech(source, start + second, 1.0));
            EXPECT_TRUE(accepted);
            if (accepted) segments += *accepted;
        }
        return segments;
    }
};

TEST_F(IncrementalTranscriptionTest, WindowsOf20SecondsOverlapBy2AndTheRestWaitsForFlush) {
    std::vector<float> almost(319'999, 0.1f);
    ASSERT_TRUE(transcription.accept({MeetingCaptureSource::microphone, 10.0, almost, 16000, 1, 0.1f}));
    EXPECT_TRUE(transcriber->calls.empty());
    EXPECT_NEAR(transcription.backlog().microphoneSeconds, 319'999 / 16000.0, 1e-9);

    ASSERT_TRUE(
        transcription.accept(speech(MeetingCaptureSource::microphone, 10.0 + 319'999 / 16000.0, 17.0)));
    ASSERT_EQ(transcriber->calls.size(), 1u);
    EXPECT_EQ(transcriber->calls[0].samples, 320'000);
    EXPECT_DOUBLE_EQ(transcriber->calls[0].offset, 10.0);
    EXPECT_NEAR(transcription.backlog().microphoneSeconds, 37.0 - 18.0, 1e-3);  // overlap stays buffered

    ASSERT_TRUE(transcription.flush());
    ASSERT_EQ(transcriber->calls.size(), 2u);
    EXPECT_DOUBLE_EQ(transcriber->calls[1].offset, 28.0);  // 2 s before the first window's end
    EXPECT_EQ(transcriber->calls[1].samples, 319'999 + 17 * 16000 - 18 * 16000);
    EXPECT_TRUE(transcription.backlog().isEmpty());
}

TEST_F(IncrementalTranscriptionTest, SilentWindowsCostNoInference) {
    ASSERT_TRUE(transcription.accept(speech(MeetingCaptureSource::system, 0, 20.0, 0.0f)));
    ASSERT_TRUE(transcription.accept(speech(MeetingCaptureSource::system, 20, 20.0, 0.0015f)));  // RMS ~0.001
    EXPECT_TRUE(transcriber->calls.empty());
    ASSERT_TRUE(transcription.accept(speech(MeetingCaptureSource::system, 40, 20.0, 0.004f)));  // RMS ~0.0028
    EXPECT_EQ(transcriber->calls.size(), 1u);
    auto flushed = transcription.flush();
    ASSERT_TRUE(flushed);
    EXPECT_TRUE(flushed->isEmpty());
}

TEST_F(IncrementalTranscriptionTest, ASentenceHeardAtTheEdgeOfTwoWindowsIsCommittedOnce) {
    transcriber->script =
        [](int call,
           MeetingCaptureSource) -> std::expected<QList<ScriptedTranscriber::Line>, MeetingSessionError> {
        if (call == 0)
            return QList<ScriptedTranscriber::Line>{{1, 5, "Welcome everyone."}, {15, 17.5, "Hello there."}};
        if (call == 1)
            return QList<ScriptedTranscriber::Line>{{0, 1, "  hello THERE. "}, {1, 4, "Let us begin."}};
        return QList<ScriptedTranscriber::Line>{};
    };
    auto segments = feed(MeetingCaptureSource::microphone, 0, 38);
    auto flushed = transcription.flush();
    ASSERT_TRUE(flushed);
    segments += *flushed;
    EXPECT_EQ(texts(segments), (QStringList{"Welcome everyone.", "Hello there.", "Let us begin."}));
    for (const auto& segment : segments) EXPECT_TRUE(segment.isStable);
    EXPECT_DOUBLE_EQ(segments[2].startTime, 19.0);  // second window starts at 18 s
}

TEST_F(IncrementalTranscriptionTest, TextInTheTrailingOverlapWaitsForTheNextWindowAsUnstable) {
    transcriber->script =
        [](int call,
           MeetingCaptureSource) -> std::expected<QList<ScriptedTranscriber::Line>, MeetingSessionError> {
        if (call == 0)
            return QList<ScriptedTranscriber::Line>{{2, 6, "First point."}, {18.5, 20, "The budg"}};
        return QList<ScriptedTranscriber::Line>{{0.5, 3, "The budget is approved."}};
    };
    auto segments = feed(MeetingCaptureSource::system, 0, 20);
    EXPECT_EQ(texts(segments), QStringList{"First point."});
    const auto preview = transcription.unstableSegments();
    ASSERT_EQ(texts(preview), QStringList{"The budg"});
    EXPECT_FALSE(preview[0].isStable);

    segments = feed(MeetingCaptureSource::system, 20, 18);
    EXPECT_EQ(texts(segments), QStringList{"The budget is approved."});
    EXPECT_DOUBLE_EQ(segments[0].startTime, 18.5);
}

TEST_F(IncrementalTranscriptionTest, FlushWithNothingNewCommitsTheHeldBackTailWithoutAnotherInference) {
    transcriber->script =
        [](int,
           MeetingCaptureSource) -> std::expected<QList<ScriptedTranscriber::Line>, MeetingSessionError> {
        return QList<ScriptedTranscriber::Line>{{2, 6, "First point."}, {18.5, 20, "Thanks all."}};
    };
    EXPECT_EQ(texts(feed(MeetingCaptureSource::system, 0, 20)), QStringList{"First point."});
    const auto flushed = transcription.flush();
    ASSERT_TRUE(flushed);
    EXPECT_EQ(texts(*flushed), QStringList{"Thanks all."});
    EXPECT_TRUE((*flushed)[0].isStable);
    EXPECT_EQ(transcriber->calls.size(), 1u);  // the overlap had been heard already
    EXPECT_TRUE(transcription.unstableSegments().isEmpty());
    EXPECT_TRUE(transcription.backlog().isEmpty());
}

TEST_F(IncrementalTranscriptionTest, SegmentTimesAreClampedToTheirWindow) {
    transcriber->script =
        [](int,
           MeetingCaptureSource) -> std::expected<QList<ScriptedTranscriber::Line>, MeetingSessionError> {
        return QList<ScriptedTranscriber::Line>{{-1.5, 3, "Early."}, {4, 31, "Late."}};
    };
    ASSERT_TRUE(transcription.accept(speech(MeetingCaptureSource::microphone, 100, 5)));
    const auto flushed = transcription.flush();
    ASSERT_TRUE(flushed);
    ASSERT_EQ(flushed->size(), 2);
    EXPECT_DOUBLE_EQ((*flushed)[0].startTime, 100);
    EXPECT_DOUBLE_EQ((*flushed)[1].endTime, 105);
}

TEST_F(IncrementalTranscriptionTest, FlushTranscribesBothSourcesInOrderMicrophoneFirstAtATie) {
    auto empty = transcription.flush();
    ASSERT_TRUE(empty);
    EXPECT_TRUE(empty->isEmpty());
    EXPECT_TRUE(transcriber->calls.empty());

    transcriber->script = [](int, MeetingCaptureSource source)
        -> std::expected<QList<ScriptedTranscriber::Line>, MeetingSessionError> {
        if (source == MeetingCaptureSource::system)
            return QList<ScriptedTranscriber::Line>{{0, 1, "System says."}, {2, 3, "Later."}};
        return QList<ScriptedTranscriber::Line>{{0, 2, "I say."}};
    };
    ASSERT_TRUE(transcription.accept(speech(MeetingCaptureSource::system, 5, 4)));
    ASSERT_TRUE(transcription.accept(speech(MeetingCaptureSource::microphone, 5, 4)));
    const auto flushed = transcription.flush();
    ASSERT_TRUE(flushed);
    EXPECT_EQ(texts(*flushed), (QStringList{"I say.", "System says.", "Later."}));
    EXPECT_EQ((*flushed)[0].source, MeetingCaptureSource::microphone);
}

TEST_F(IncrementalTranscriptionTest, AFailedWindowIsReportedAndTranscriptionCatchesUpAfterIt) {
    transcriber->script =
        [](int call,
           MeetingCaptureSource) -> std::expected<QList<ScriptedTranscriber::Line>, MeetingSessionError> {
        if (call == 0)
            return std::unexpected(
                MeetingSessionError::transcriptionFailed("Local Whisper inference failed (-6)"));
        return QList<ScriptedTranscriber::Line>{{1, 2, "Back on track."}};
    };
    const auto failed = transcription.accept(speech(MeetingCaptureSource::microphone, 0, 20));
    ASSERT_FALSE(failed);
    EXPECT_EQ(failed.error().description(), "Local Whisper inference failed (-6)");
    EXPECT_NEAR(transcription.backlog().microphoneSeconds, 2.0, 1e-9);  // the window was consumed
    const auto next = transcription.accept(speech(MeetingCaptureSource::microphone, 20, 18));
    ASSERT_TRUE(next);
    EXPECT_EQ(texts(*next), QStringList{"Back on track."});
}

TEST_F(IncrementalTranscriptionTest, AGapInTheAudioClosesTheWindowBeforeIt) {
    ASSERT_TRUE(transcription.accept(speech(MeetingCaptureSource::microphone, 0, 5)));
    ASSERT_TRUE(
        transcription.accept(speech(MeetingCaptureSource::microphone, 60, 5)));  // resumed after a pause
    ASSERT_EQ(transcriber->calls.size(), 1u);
    EXPECT_EQ(transcriber->calls[0].samples, 5 * 16000);
    EXPECT_DOUBLE_EQ(transcriber->calls[0].offset, 0);
    ASSERT_TRUE(transcription.flush());
    EXPECT_DOUBLE_EQ(transcriber->calls[1].offset, 60);
}

TEST_F(IncrementalTranscriptionTest, AudioNotYetConvertedIsRefused) {
    auto chunk = speech(MeetingCaptureSource::microphone, 0, 1);
    chunk.sampleRate = 48000;
    EXPECT_EQ(transcription.accept(chunk).error().code(), MeetingSessionError::Code::transcriptionFailed);
    EXPECT_TRUE(transcription.backlog().isEmpty());
}

}  // namespace
