#include "IncrementalTranscription.h"

#include <QtGlobal>
#include <algorithm>
#include <cmath>
#include <utility>

namespace mossly::meeting {
namespace {

// A larger jump between a buffer's end and the next chunk is a gap (a pause):
// what came before is transcribed on its own.
constexpr double continuityTolerance = 0.1;

// Tries of one live window before it is set aside for the final flush.
constexpr int windowAttempts = 3;

qint64 sampleCount(double seconds) {
    const double samples = seconds * transcriptionSampleRate;
    if (!std::isfinite(samples) || samples < 0 || samples >= 9.2e18)
        qFatal("Invalid transcription window duration");
    return qint64(samples);
}

QString normalizedText(const QString& text) {
    return text.trimmed().toLower();
}

}  // namespace

IncrementalTranscription::IncrementalTranscription(std::shared_ptr<WhisperTranscribing> transcriber,
                                                   double windowDuration, double overlapDuration,
                                                   float silenceThreshold)
    : transcriber_(std::move(transcriber)),
      windowSamples_(std::max<qint64>(1, sampleCount(windowDuration))),
      overlapSamples_(std::min(sampleCount(overlapDuration), windowSamples_ - 1)),  // windows must advance
      silenceThreshold_(silenceThreshold) {}

TranscriptionStep IncrementalTranscription::accept(const MeetingAudioChunk& chunk) {
    std::lock_guard lock(mutex_);
    TranscriptionStep step;
    if (chunk.sampleRate != transcriptionSampleRate || chunk.channelCount != 1) {
        step.failure = MeetingSessionError::transcriptionFailed(
            QStringLiteral("Audio reached transcription before it was converted to 16 kHz mono."));
        return step;
    }
    SourceBuffer& buffer = buffers_[chunk.source];
    if (buffer.startTime) {
        const double end = *buffer.startTime + double(buffer.samples.size()) / transcriptionSampleRate;
        if (std::abs(chunk.startTime - end) > continuityTolerance) closeRun(chunk.source, step);
    }
    if (buffer.samples.empty()) buffer.startTime = chunk.startTime;
    buffer.samples.insert(buffer.samples.end(), chunk.samples.begin(), chunk.samples.end());
    while (qint64(buffer.samples.size()) >= windowSamples_) {
        auto window = processWindow(chunk.source);
        if (!window) {
            if (!step.failure) step.failure = window.error();
            // The window stays buffered and the next chunk tries it again; one that keeps
            // failing waits for the final flush so that the live transcript moves on.
            if (++buffer.failedAttempts < windowAttempts) break;
            setAsideWindow(chunk.source);
            continue;
        }
        buffer.failedAttempts = 0;
        step.segments += *window;
    }
    return step;
}

TranscriptionStep IncrementalTranscription::flush() {
    std::lock_guard lock(mutex_);
    TranscriptionStep step;
    for (const auto source : {MeetingCaptureSource::microphone, MeetingCaptureSource::system}) {
        retryClosedRuns(source, step);
        closeRun(source, step);
    }
    sortSegments(step.segments);
    return step;
}

void IncrementalTranscription::retryClosedRuns(MeetingCaptureSource source, TranscriptionStep& step) {
    auto& runs = failedRuns_[source];
    while (!runs.empty()) {
        auto heard = transcribe(source, runs.front().samples, runs.front().startTime);
        if (!heard) {
            if (!step.failure) step.failure = heard.error();
            return;
        }
        step.segments += *heard;
        runs.pop_front();
    }
}

void IncrementalTranscription::setAsideWindow(MeetingCaptureSource source) {
    SourceBuffer& buffer = buffers_[source];
    const double offset = buffer.startTime.value_or(0);
    failedRuns_[source].push_back({{buffer.samples.begin(), buffer.samples.begin() + windowSamples_}, offset});
    const qint64 consumed = windowSamples_ - overlapSamples_;
    buffer.samples.erase(buffer.samples.begin(), buffer.samples.begin() + consumed);
    buffer.startTime = offset + double(consumed) / transcriptionSampleRate;
    buffer.heardSamples = 0;
    buffer.failedAttempts = 0;
}

void IncrementalTranscription::closeRun(MeetingCaptureSource source, TranscriptionStep& step) {
    SourceBuffer buffer = std::exchange(buffers_[source], SourceBuffer{});
    // Only the overlap, heard with the window before it: nothing new to say.
    if (buffer.samples.empty() || qint64(buffer.samples.size()) <= buffer.heardSamples) return;
    const double offset = buffer.startTime.value_or(0);
    auto heard = transcribe(source, buffer.samples, offset);
    if (heard) {
        step.segments += *heard;
        return;
    }
    if (!step.failure) step.failure = heard.error();
    failedRuns_[source].push_back({std::move(buffer.samples), offset});
}

std::expected<QList<MeetingTranscriptSegment>, MeetingSessionError> IncrementalTranscription::transcribe(
    MeetingCaptureSource source, std::span<const float> window, double offset) {
    if (rmsLevel(window) < silenceThreshold_) return QList<MeetingTranscriptSegment>{};
    auto heard = transcriber_->transcribe(window, source, offset);
    if (!heard) return std::unexpected(heard.error());
    const double windowEnd = offset + double(window.size()) / transcriptionSampleRate;
    for (auto& segment : *heard) {  // a transcriber may place text outside the audio it was given
        segment.startTime = std::clamp(segment.startTime, offset, windowEnd);
        segment.endTime = std::clamp(segment.endTime, segment.startTime, windowEnd);
    }
    return commit(source, std::move(*heard));
}

std::expected<QList<MeetingTranscriptSegment>, MeetingSessionError> IncrementalTranscription::processWindow(
    MeetingCaptureSource source) {
    SourceBuffer& buffer = buffers_[source];
    const double offset = buffer.startTime.value_or(0);
    auto heard = transcribe(source, std::span<const float>(buffer.samples.data(), size_t(windowSamples_)), offset);
    if (!heard) return heard;
    // Keep the overlap for the next window.
    const qint64 consumed = windowSamples_ - overlapSamples_;
    buffer.samples.erase(buffer.samples.begin(), buffer.samples.begin() + consumed);
    buffer.startTime = offset + double(consumed) / transcriptionSampleRate;
    buffer.heardSamples = overlapSamples_;
    return heard;
}

QList<MeetingTranscriptSegment> IncrementalTranscription::commit(MeetingCaptureSource source,
                                                                 QList<MeetingTranscriptSegment> heard) {
    QList<MeetingTranscriptSegment> committed;
    for (auto& segment : heard) {
        const QString text = normalizedText(segment.text);
        if (text.isEmpty()) continue;
        QString& last = lastCommittedText_[source];
        if (text == last) continue;  // heard again in the overlap
        last = text;
        segment.source = source;
        segment.isStable = true;
        committed.append(segment);
    }
    return committed;
}

TranscriptionBacklog IncrementalTranscription::backlog() const {
    std::lock_guard lock(mutex_);
    const auto seconds = [&](MeetingCaptureSource source) {
        qint64 samples = 0;
        if (const auto buffer = buffers_.find(source); buffer != buffers_.end()) samples += qint64(buffer->second.samples.size());
        if (const auto runs = failedRuns_.find(source); runs != failedRuns_.end()) {
            for (const auto& run : runs->second) samples += qint64(run.samples.size());
        }
        return double(samples) / transcriptionSampleRate;
    };
    return {seconds(MeetingCaptureSource::microphone), seconds(MeetingCaptureSource::system)};
}

}  // namespace mossly::meeting
