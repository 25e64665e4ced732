// Meeting capture costs: whisper.cpp per 20 s window on a base-shaped model,
// audio pipeline throughput, and memory over a long meeting fed faster than
// real time. Prints Markdown.
#include <QCoreApplication>
#include <QFile>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <random>

#include "AudioPipeline.h"
#include "IncrementalTranscription.h"
#include "WhisperTranscriber.h"

using namespace mossly::meeting;
using Clock = std::chrono::steady_clock;

namespace {

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

long residentKiB(const char* field) {
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith(field)) return line.mid(qsizetype(strlen(field))).trimmed().split(' ').first().toLong();
    }
    return -1;
}

// Voice-like audio: a wandering pitch with syllable-rate loudness and some noise.
std::vector<float> voiceLike(double seconds, double rate, int channels, unsigned seed) {
    std::mt19937 random(seed);
    std::normal_distribution<float> noise(0.f, 0.01f);
    std::vector<float> samples(size_t(seconds * rate) * size_t(channels));
    for (size_t frame = 0; frame < samples.size() / size_t(channels); ++frame) {
        const double time = double(frame) / rate;
        const double pitch = 140 + 40 * std::sin(2 * M_PI * 0.3 * time);
        const float value = float(0.2 * std::sin(2 * M_PI * pitch * time) * (0.5 + 0.5 * std::sin(2 * M_PI * 4 * time))) +
                            noise(random);
        for (int channel = 0; channel < channels; ++channel) samples[frame * size_t(channels) + size_t(channel)] = value;
    }
    return samples;
}

void benchmarkWhisper(const QString& model, int windows) {
    std::printf("### whisper.cpp, one 20 s window (base-shaped random-weight model)\n\n");
    std::printf("| threads | load | per window (median) | encoder (median) | real-time factor | peak RSS |\n"
                "|---|---|---|---|---|---|\n");
    const auto samples = voiceLike(20, 16000, 1, 1);
    for (const int threads : {WhisperTranscriber::defaultThreadCount(), 2}) {
        const auto loadStart = Clock::now();
        // 64 tokens is about what 20 s of speech decodes to; random weights would otherwise decode at random length.
        auto transcriber = WhisperTranscriber::load(
            model, {.threads = threads, .maxTokens = 64, .temperatureIncrement = 0.0f, .singleSegment = true});
        if (!transcriber) {
            std::printf("load failed: %s\n", qPrintable(transcriber.error().description()));
            return;
        }
        const double load = secondsSince(loadStart);
        std::vector<double> times;
        std::vector<double> encoder;
        for (int window = 0; window < windows; ++window) {
            const auto start = Clock::now();
            if (!(*transcriber)->transcribe(samples, MeetingCaptureSource::microphone, window * 18.0)) return;
            times.push_back(secondsSince(start));
            encoder.push_back((*transcriber)->lastEncodeMilliseconds() / 1000);
        }
        std::sort(times.begin(), times.end());
        std::sort(encoder.begin(), encoder.end());
        const double median = times[times.size() / 2];
        std::printf("| %d | %.2f s | %.2f s | %.2f s | %.3f | %ld MiB |\n", threads, load, median,
                    encoder[encoder.size() / 2], median / 20.0, residentKiB("VmHWM:") / 1024);
    }
    std::printf("\n");
}

void benchmarkPipeline(double minutes) {
    std::printf("### Audio pipeline, 48 kHz stereo in 10 ms chunks to 16 kHz mono\n\n");
    const auto second = voiceLike(1, 48000, 2, 2);
    AudioPipeline pipeline(240);
    const auto start = Clock::now();
    const int chunks = int(minutes * 60 * 100);
    for (int index = 0; index < chunks; ++index) {
        const size_t at = size_t(index % 100) * 960;
        auto chunk = MeetingAudioChunk::captured(MeetingCaptureSource::system, index * 0.01,
                                                 {second.begin() + long(at), second.begin() + long(at + 960)}, 48000, 2);
        if (!pipeline.enqueue(chunk)) return;
        if (!pipeline.dequeue()) return;
    }
    const double elapsed = secondsSince(start);
    std::printf("%.0f min of audio converted and queued in %.2f s: %.0f× real time (%.1f µs a chunk).\n\n", minutes,
                elapsed, minutes * 60 / elapsed, elapsed / chunks * 1e6);
}

// A transcriber that costs nothing: the memory of the queue and windows alone.
class SilentTranscriber : public WhisperTranscribing {
public:
    std::expected<QList<MeetingTranscriptSegment>, MeetingSessionError> transcribe(std::span<const float>,
                                                                                   MeetingCaptureSource source,
                                                                                   double offset) override {
        return QList<MeetingTranscriptSegment>{{QUuid::createUuid(), source, offset, offset + 1, "words", true}};
    }
};

void benchmarkLongMeeting(double minutes) {
    std::printf("### Memory over a %.0f-minute meeting, two sources, transcription at half speed\n\n", minutes);
    std::printf("| meeting time | waiting (both sources) | chunks spooled so far | RSS change |\n|---|---|---|---|\n");
    const long baseline = residentKiB("VmRSS:");
    const auto mic = voiceLike(1, 48000, 1, 3);
    const auto system = voiceLike(1, 44100, 2, 4);
    AudioPipeline pipeline(240);
    IncrementalTranscription transcription(std::make_shared<SilentTranscriber>());
    const int chunks = int(minutes * 60 * 50);  // 20 ms chunks
    const auto consume = [&] {
        auto next = pipeline.dequeue();
        if (next && *next) static_cast<void>(transcription.accept(**next));
    };
    const auto start = Clock::now();
    for (int index = 0; index < chunks; ++index) {
        const double time = index * 0.02;
        const size_t micAt = size_t(index % 50) * 960, systemAt = size_t(index % 50) * 882 * 2;
        static_cast<void>(pipeline.enqueue(MeetingAudioChunk::captured(
            MeetingCaptureSource::microphone, time, {mic.begin() + long(micAt), mic.begin() + long(micAt + 960)}, 48000)));
        static_cast<void>(pipeline.enqueue(MeetingAudioChunk::captured(
            MeetingCaptureSource::system, time, {system.begin() + long(systemAt), system.begin() + long(systemAt + 1764)},
            44100, 2)));
        consume();  // one chunk out for two in: the backlog grows all meeting long
        if ((index + 1) % (chunks / 6) == 0) {
            const auto backlog = pipeline.backlog();
            std::printf("| %.0f min | %.1f min | %lld chunks | %+ld MiB |\n", time / 60,
                        (backlog.microphoneSeconds + backlog.systemSeconds) / 60,
                        static_cast<long long>(pipeline.metrics().diskBackedChunks),
                        (residentKiB("VmRSS:") - baseline) / 1024);
        }
    }
    while (!pipeline.backlog().isEmpty()) consume();
    static_cast<void>(transcription.flush());
    std::printf("\nFed in %.1f s (%.0f× real time); after draining: %+ld MiB RSS, peak %ld MiB.\n\n", secondsSince(start),
                minutes * 60 / secondsSince(start), (residentKiB("VmRSS:") - baseline) / 1024,
                residentKiB("VmHWM:") / 1024);
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    if (arguments.size() < 2) {
        std::fprintf(stderr, "usage: meeting_benchmark <base-shaped model> [windows] [pipeline minutes] [meeting minutes]\n");
        return 2;
    }
    benchmarkWhisper(arguments[1], arguments.value(2, QStringLiteral("3")).toInt());
    benchmarkPipeline(arguments.value(3, QStringLiteral("10")).toDouble());
    benchmarkLongMeeting(arguments.value(4, QStringLiteral("60")).toDouble());
    return 0;
}
