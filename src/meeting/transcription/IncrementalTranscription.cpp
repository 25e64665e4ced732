#include "IncrementalTranscription.h"

#include <QtGlobal>
#include <algorithm>
#include <cmath>
#include <limits>

namespace mossly::meeting {
namespace {

// A larger jump between a buffer's end and the next chunk is a gap (a pause):
// what came before is transcribed on its own.
constexpr double continuityTolerance = 0.1;

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

std::expected<QList<MeetingTranscriptSegment>, MeetingSessionError> IncrementalTranscription::accept(
    const MeetingAudioChunk& chunk) {
    std::lock_guard lock(mutex_);
    if (chunk.sampleRate != transcriptionSampleRate || chunk.channelCount != 1) {
        return std::unexpected(MeetingSessionError::transcriptionFailed(
            QStringLiteral("Audio reached transcription before it was converted to 16 kHz mono.")));
    }
    QList<MeetingTranscriptSegment> segments;
    std::optional<MeetingSessionError> failure;
    SourceBuffer& buffer = buffers_[chunk.source];
    if (buffer.startTime) {
        const double end = *buffer.startTime + double(buffer.samples.size()) / transcriptionSampleRate;
        if (std::abs(chunk.startTime - end) > continuityTolerance) {
            auto before = flushSource(chunk.source);
            if (before)
                segments += *before;
            else
                failure = before.error();
        }
    }
    if (buffer.samples.empty()) buffer.startTime = chunk.startTime;
    buffer.samples.insert(buffer.samples.end(), chunk.samples.begin(), chunk.samples.end());
    while (qint64(buffer.samples.size()) >= windowSamples_) {
        auto window = processWindow(chunk.source, false);
        if (window)
            segments += *window;
        else
            failure = window.error();
    }
    if (failure) return std::unexpected(*failure);
    return segments;
}

std::expected<QList<MeetingTranscriptSegment>, MeetingSessionError> IncrementalTranscription::flush() {
    std::lock_guard lock(mutex_);
    QList<MeetingTranscriptSegment> segments;
    std::optional<MeetingSessionError> failure;
    for (const auto source : {MeetingCaptureSource::microphone, MeetingCaptureSource::system}) {
        auto final = flushSource(source);
        if (final)
            segments += *final;
        else if (!failure)
            failure = final.error();
    }
    if (failure) return std::unexpected(*failure);
    sortSegments(segments);
    return segments;
}

std::expected<QList<MeetingTranscriptSegment>, MeetingSessionError> IncrementalTranscription::flushSource(
    MeetingCaptureSource source) {
    SourceBuffer& buffer = buffers_[source];
    if (!buffer.samples.empty() && qint64(buffer.samples.size()) <= buffer.heardSamples) {
        // Nothing new since the last window: its held-back tail is all there is to say.
        auto held = unstable_[source];
        unstable_.erase(source);
        buffer = SourceBuffer{};
        return commit(source, std::move(held), std::numeric_limits<double>::infinity());
    }
    auto segments = processWindow(source, true);
    unstable_.erase(source);  // the final window said everything there was to say
    return segments;
}

std::expected<QList<MeetingTranscriptSegment>, MeetingSessionError> IncrementalTranscription::processWindow(
    MeetingCaptureSource source, bool final) {
    SourceBuffer& buffer = buffers_[source];
    if (buffer.samples.empty()) return QList<MeetingTranscriptSegment>{};
    const qint64 length = final ? qint64(buffer.samples.size()) : windowSamples_;
    const std::span<const float> window(buffer.samples.data(), size_t(length));
    const double offset = buffer.startTime.value_or(0);

    std::expected<QList<MeetingTranscriptSegment>, MeetingSessionError> result;
    if (rmsLevel(window) < silenceThreshold_) {
        unstable_.erase(source);
        result = QList<MeetingTranscriptSegment>{};
    } else if (auto heard = transcriber_->transcribe(window, source, offset); heard) {
        const double windowEnd = offset + double(length) / transcriptionSampleRate;
        const double holdBackFrom =
            final ? windowEnd + 1 : windowEnd - double(overlapSamples_) / transcriptionSampleRate;
        for (auto& segment : *heard) {  // a transcriber may place text outside the audio it was given
            segment.startTime = std::clamp(segment.startTime, offset, windowEnd);
            segment.endTime = std::clamp(segment.endTime, segment.startTime, windowEnd);
        }
        result = commit(source, std::move(*heard), holdBackFrom);
    } else {
        result = std::unexpected(heard.error());
    }

    // Keep the overlap for the next window; a final window keeps nothing.
    const qint64 consumed = final ? length : length - overlapSamples_;
    buffer.samples.erase(buffer.samples.begin(), buffer.samples.begin() + consumed);
    buffer.startTime = buffer.samples.empty()
                           ? std::nullopt
                           : std::optional(offset + double(consumed) / transcriptionSampleRate);
    buffer.heardSamples = final ? 0 : overlapSamples_;
    return result;
}

QList<MeetingTranscriptSegment> IncrementalTranscription::commit(MeetingCaptureSource source,
                                                                 QList<MeetingTranscriptSegment> heard,
                                                                 double holdBackFrom) {
    QList<MeetingTranscriptSegment> committed;
    QList<MeetingTranscriptSegment> unstable;
    for (auto& segment : heard) {
        const QString text = normalizedText(segment.text);
        if (text.isEmpty()) continue;
        segment.source = source;
        if (segment.startTime >= holdBackFrom) {
            segment.isStable = false;
            unstable.append(segment);
            continue;
        }
        QString& last = lastCommittedText_[source];
        if (text == last) continue;  // heard again in the overlap
        last = text;
        segment.isStable = true;
        committed.append(segment);
    }
    unstable_[source] = unstable;
    return committed;
}

QList<MeetingTranscriptSegment> IncrementalTranscription::unstableSegments() const {
    std::lock_guard lock(mutex_);
    QList<MeetingTranscriptSegment> segments;
    for (const auto& [source, held] : unstable_) segments += held;
    sortSegments(segments);
    return segments;
}

TranscriptionBacklog IncrementalTranscription::backlog() const {
    std::lock_guard lock(mutex_);
    const auto seconds = [&](MeetingCaptureSource source) {
        const auto found = buffers_.find(source);
        return found == buffers_.end() ? 0.0 : double(found->second.samples.size()) / transcriptionSampleRate;
    };
    return {seconds(MeetingCaptureSource::microphone), seconds(MeetingCaptureSource::system)};
}

}  // namespace mossly::meeting
