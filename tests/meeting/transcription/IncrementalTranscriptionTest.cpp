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
            EXPECT_FALSE(accepted.failure);
            segments += accepted.segments;
        }
        return segments;
    }
};

TEST_F(IncrementalTranscriptionTest, WindowsOf20SecondsOverlapBy2AndTheRestWaitsForFlush) {
    std::vector<float> almost(319'999, 0.1f);
    ASSERT_FALSE(transcription.accept({MeetingCaptureSource::microphone, 10.0, almost, 16000, 1, 0.1f}).failure);
    EXPECT_TRUE(transcriber->calls.empty());
    EXPECT_NEAR(transcription.backlog().microphoneSeconds, 319'999 / 16000.0, 1e-9);

    ASSERT_FALSE(transcription.accept(speech(MeetingCaptureSource::microphone, 10.0 + 319'999 / 16000.0, 17.0)).failure);
    ASSERT_EQ(transcriber->calls.size(), 1u);
    EXPECT_EQ(transcriber->calls[0].samples, 320'000);
    EXPECT_DOUBLE_EQ(transcriber->calls[0].offset, 10.0);
    EXPECT_NEAR(transcription.backlog().microphoneSeconds, 37.0 - 18.0, 1e-3);  // overlap stays buffered

    ASSERT_FALSE(transcription.flush().failure);
    ASSERT_EQ(transcriber->calls.size(), 2u);
    EXPECT_DOUBLE_EQ(transcriber->calls[1].offset, 28.0);  // 2 s before the first window's end
    EXPECT_EQ(transcriber->calls[1].samples, 319'999 + 17 * 16000 - 18 * 16000);
    EXPECT_TRUE(transcription.backlog().isEmpty());
}

TEST_F(IncrementalTranscriptionTest, SilentWindowsCostNoInference) {
    ASSERT_FALSE(transcription.accept(speech(MeetingCaptureSource::system, 0, 20.0, 0.0f)).failure);
    ASSERT_FALSE(transcription.accept(speech(MeetingCaptureSource::system, 20, 20.0, 0.0015f)).failure);  // RMS ~0.001
    EXPECT_TRUE(transcriber->calls.empty());
    ASSERT_FALSE(transcription.accept(speech(MeetingCaptureSource::system, 40, 20.0, 0.004f)).failure);  // RMS ~0.0028
    EXPECT_EQ(transcriber->calls.size(), 1u);
    auto flushed = transcription.flush().segments;
    EXPECT_TRUE(flushed.isEmpty());
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
    auto flushed = transcription.flush().segments;
    segments += flushed;
    EXPECT_EQ(texts(segments), (QStringList{"Welcome everyone.", "Hello there.", "Let us begin."}));
    for (const auto& segment : segments) EXPECT_TRUE(segment.isStable);
    EXPECT_DOUBLE_EQ(segments[2].startTime, 19.0);  // second window starts at 18 s
}

TEST_F(IncrementalTranscriptionTest, SegmentTimesAreClampedToTheirWindow) {
    transcriber->script =
        [](int,
           MeetingCaptureSource) -> std::expected<QList<ScriptedTranscriber::Line>, MeetingSessionError> {
        return QList<ScriptedTranscriber::Line>{{-1.5, 3, "Early."}, {4, 31, "Late."}};
    };
    ASSERT_FALSE(transcription.accept(speech(MeetingCaptureSource::microphone, 100, 5)).failure);
    const auto flushed = transcription.flush().segments;
    ASSERT_EQ(flushed.size(), 2);
    EXPECT_DOUBLE_EQ(flushed[0].startTime, 100);
    EXPECT_DOUBLE_EQ(flushed[1].endTime, 105);
}

TEST_F(IncrementalTranscriptionTest, FlushTranscribesBothSourcesInOrderMicrophoneFirstAtATie) {
    auto empty = transcription.flush().segments;
    EXPECT_TRUE(empty.isEmpty());
    EXPECT_TRUE(transcriber->calls.empty());

    transcriber->script = [](int, MeetingCaptureSource source)
        -> std::expected<QList<ScriptedTranscriber::Line>, MeetingSessionError> {
        if (source == MeetingCaptureSource::system)
            return QList<ScriptedTranscriber::Line>{{0, 1, "System says."}, {2, 3, "Later."}};
        return QList<ScriptedTranscriber::Line>{{0, 2, "I say."}};
    };
    ASSERT_FALSE(transcription.accept(speech(MeetingCaptureSource::system, 5, 4)).failure);
    ASSERT_FALSE(transcription.accept(speech(MeetingCaptureSource::microphone, 5, 4)).failure);
    const auto flushed = transcription.flush().segments;
    EXPECT_EQ(texts(flushed), (QStringList{"I say.", "System says.", "Later."}));
    EXPECT_EQ(flushed[0].source, MeetingCaptureSource::microphone);
}

TEST_F(IncrementalTranscriptionTest, AWindowWhoseInferenceFailsStaysBufferedAndIsHeardLater) {
    transcriber->script =
        [](int call,
           MeetingCaptureSource) -> std::expected<QList<ScriptedTranscriber::Line>, MeetingSessionError> {
        if (call == 0)
            return std::unexpected(
                MeetingSessionError::transcriptionFailed("Local Whisper inference failed (-6)"));
        if (call == 1) return QList<ScriptedTranscriber::Line>{{1, 2, "Said before the failure."}};
        return QList<ScriptedTranscriber::Line>{{1, 2, "Back on track."}};
    };
    const auto failed = transcription.accept(speech(MeetingCaptureSource::microphone, 0, 20));
    ASSERT_TRUE(failed.failure);
    EXPECT_EQ(failed.failure->description(), "Local Whisper inference failed (-6)");
    EXPECT_NEAR(transcription.backlog().microphoneSeconds, 20.0, 1e-9);  // nothing was consumed

    const auto next = transcription.accept(speech(MeetingCaptureSource::microphone, 20, 1));
    ASSERT_FALSE(next.failure);
    EXPECT_EQ(texts(next.segments), QStringList{"Said before the failure."});
    ASSERT_EQ(transcriber->calls.size(), 2u);
    EXPECT_DOUBLE_EQ(transcriber->calls[1].offset, 0);  // the same window again
}

// Text at a window's end must survive whatever follows it: silence, or the end of the meeting.
TEST_F(IncrementalTranscriptionTest, TextAtAWindowsEndIsKeptWhenSilenceOrTheEndFollows) {
    transcriber->script =
        [](int,
           MeetingCaptureSource) -> std::expected<QList<ScriptedTranscriber::Line>, MeetingSessionError> {
        return QList<ScriptedTranscriber::Line>{{2, 6, "First point."}, {18.2, 19.5, "Thanks all."}};
    };
    auto segments = feed(MeetingCaptureSource::system, 0, 18);
    for (int second = 18; second < 40; ++second) {
        auto quiet = transcription.accept(speech(MeetingCaptureSource::system, second, 1.0, 0.0f));
        EXPECT_FALSE(quiet.failure);
        segments += quiet.segments;
    }
    auto flushed = transcription.flush();
    EXPECT_FALSE(flushed.failure);
    segments += flushed.segments;
    EXPECT_EQ(texts(segments), (QStringList{"First point.", "Thanks all."}));
    for (const auto& segment : segments) EXPECT_TRUE(segment.isStable);
    EXPECT_EQ(transcriber->calls.size(), 1u);  // the silent windows cost nothing
    EXPECT_TRUE(transcription.backlog().isEmpty());
}

// At Stop: the microphone's last words fail once; the system's are kept, the microphone's
// audio waits for another flush instead of being dropped.
TEST_F(IncrementalTranscriptionTest, AFailedFinalWindowKeepsTheOtherSourcesWordsAndItsOwnAudio) {
    int microphoneFailures = 1;
    transcriber->script = [&](int, MeetingCaptureSource source)
        -> std::expected<QList<ScriptedTranscriber::Line>, MeetingSessionError> {
        if (source == MeetingCaptureSource::system) return QList<ScriptedTranscriber::Line>{{0, 1, "System says."}};
        if (microphoneFailures-- > 0)
            return std::unexpected(MeetingSessionError::transcriptionFailed("Local Whisper inference failed (-6)"));
        return QList<ScriptedTranscriber::Line>{{0, 2, "I say."}};
    };
    ASSERT_FALSE(transcription.accept(speech(MeetingCaptureSource::system, 5, 4)).failure);
    ASSERT_FALSE(transcription.accept(speech(MeetingCaptureSource::microphone, 5, 4)).failure);
    const auto first = transcription.flush();
    ASSERT_TRUE(first.failure);
    EXPECT_EQ(texts(first.segments), QStringList{"System says."});
    EXPECT_NEAR(transcription.backlog().microphoneSeconds, 4.0, 1e-9);

    const auto second = transcription.flush();
    EXPECT_FALSE(second.failure);
    EXPECT_EQ(texts(second.segments), QStringList{"I say."});
    EXPECT_DOUBLE_EQ(second.segments[0].startTime, 5);
    EXPECT_TRUE(transcription.backlog().isEmpty());
}

TEST_F(IncrementalTranscriptionTest, AGapInTheAudioClosesTheWindowBeforeIt) {
    ASSERT_FALSE(transcription.accept(speech(MeetingCaptureSource::microphone, 0, 5)).failure);
    ASSERT_FALSE(transcription.accept(speech(MeetingCaptureSource::microphone, 60, 5)).failure);  // resumed after a pause
    ASSERT_EQ(transcriber->calls.size(), 1u);
    EXPECT_EQ(transcriber->calls[0].samples, 5 * 16000);
    EXPECT_DOUBLE_EQ(transcriber->calls[0].offset, 0);
    ASSERT_FALSE(transcription.flush().failure);
    EXPECT_DOUBLE_EQ(transcriber->calls[1].offset, 60);
}

TEST_F(IncrementalTranscriptionTest, AudioNotYetConvertedIsRefused) {
    auto chunk = speech(MeetingCaptureSource::microphone, 0, 1);
    chunk.sampleRate = 48000;
    EXPECT_EQ(transcription.accept(chunk).failure->code(), MeetingSessionError::Code::transcriptionFailed);
    EXPECT_TRUE(transcription.backlog().isEmpty());
}

}  // namespace
