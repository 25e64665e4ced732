#include "AudioPipeline.h"

#include <cmath>

namespace mossly::meeting {
namespace {

// Capture clocks jitter; a larger jump is a gap (a pause) and starts a new stream.
constexpr double continuityTolerance = 0.1;

MeetingSessionError unreadableChunk() {
    return MeetingSessionError::captureFailed(
        QStringLiteral("A retained audio chunk could not be read for transcription."));
}

}  // namespace

AudioPipeline::AudioPipeline(int capacity, std::unique_ptr<AudioSpoolStorage> spool)
    : capacity_(capacity), spool_(spool ? std::move(spool) : AudioSpoolFile::temporary()) {}

std::expected<void, MeetingSessionError> AudioPipeline::enqueue(const MeetingAudioChunk& chunk) {
    std::lock_guard lock(mutex_);
    if (chunk.channelCount < 1 || !(chunk.sampleRate > 0)) {
        return std::unexpected(
            MeetingSessionError::captureFailed(QStringLiteral("Unable to create the audio resampler.")));
    }
    if (auto started = startStreamIfNeeded(chunk); !started) return started;
    Stream& stream = streams_[chunk.source];
    std::vector<float> mono = mixToMono(chunk.samples, chunk.channelCount);
    stream.inputFrames += qint64(mono.size());
    if (!stream.resampler) return append(chunk.source, stream, std::move(mono));
    auto converted = stream.resampler->process(mono);
    if (!converted) return std::unexpected(converted.error());
    return append(chunk.source, stream, std::move(*converted));
}

std::expected<void, MeetingSessionError> AudioPipeline::startStreamIfNeeded(const MeetingAudioChunk& chunk) {
    const auto found = streams_.find(chunk.source);
    if (found != streams_.end()) {
        const Stream& stream = found->second;
        const double expected = stream.startTime + double(stream.inputFrames) / stream.inputRate;
        const bool sameFormat =
            stream.inputRate == chunk.sampleRate && stream.channelCount == chunk.channelCount;
        if (sameFormat && std::abs(chunk.startTime - expected) <= continuityTolerance) return {};
        if (auto ended = endStream(chunk.source); !ended) return ended;
    }
    Stream stream{chunk.sampleRate, chunk.channelCount, chunk.startTime, 0, 0, std::nullopt};
    if (chunk.sampleRate != transcriptionSampleRate) {
        auto resampler = AudioResampler::create(chunk.sampleRate);
        if (!resampler) return std::unexpected(resampler.error());
        stream.resampler.emplace(std::move(*resampler));
    }
    streams_.insert_or_assign(chunk.source, std::move(stream));
    return {};
}

std::expected<void, MeetingSessionError> AudioPipeline::endStream(MeetingCaptureSource source) {
    const auto found = streams_.find(source);
    if (found == streams_.end()) return {};
    std::expected<void, MeetingSessionError> result;
    if (found->second.resampler) {
        auto tail = found->second.resampler->drain();
        result = tail ? append(source, found->second, std::move(*tail)) : std::unexpected(tail.error());
    }
    streams_.erase(found);
    return result;
}

std::expected<void, MeetingSessionError> AudioPipeline::flush() {
    std::lock_guard lock(mutex_);
    std::expected<void, MeetingSessionError> result;
    for (const auto source : {MeetingCaptureSource::microphone, MeetingCaptureSource::system}) {
        if (auto ended = endStream(source); !ended && result) result = ended;
    }
    return result;
}

std::expected<void, MeetingSessionError> AudioPipeline::append(MeetingCaptureSource source, Stream& stream,
                                                               std::vector<float> samples) {
    if (samples.empty()) return {};
    // Times follow the output sample count, so consecutive chunks join exactly.
    const double startTime = stream.startTime + double(stream.outputSamples) / transcriptionSampleRate;
    const qint64 count = qint64(samples.size());
    MeetingAudioChunk normalized{source, startTime, std::move(samples), transcriptionSampleRate, 1, 0};
    normalized.level = rmsLevel(normalized.samples);
    stream.outputSamples += count;
    metrics_.normalizedSamples += count;

    // Once anything waits on disk, later chunks follow it there: arrival order is kept.
    const bool toSpool = qsizetype(queue_.size()) >= capacity_ || spoolReadIndex_ < spoolRecords_.size();
    if (toSpool) {
        const QByteArray record = encodeSpoolRecord(normalized);
        const auto offset = spool_->append(record);
        if (!offset) {
            ++metrics_.droppedChunks;
            return std::unexpected(MeetingSessionError::captureFailed(
                QStringLiteral("Meeting audio could not be written to the queue file: ") + offset.error()));
        }
        spoolRecords_.push_back({*offset, record.size(), source, count});
        ++metrics_.diskBackedChunks;
    } else {
        queue_.push_back(std::move(normalized));
    }
    queuedSamples_[source] += count;
    ++metrics_.queuedChunks;
    return {};
}

std::expected<std::optional<MeetingAudioChunk>, MeetingSessionError> AudioPipeline::dequeue() {
    std::lock_guard lock(mutex_);
    if (!queue_.empty()) {
        MeetingAudioChunk chunk = std::move(queue_.front());
        queue_.pop_front();
        queuedSamples_[chunk.source] -= qint64(chunk.samples.size());
        return chunk;
    }
    return readSpooled();
}

std::expected<std::optional<MeetingAudioChunk>, MeetingSessionError> AudioPipeline::readSpooled() {
    if (spoolReadIndex_ >= spoolRecords_.size()) return std::nullopt;
    const SpoolRecord record = spoolRecords_[spoolReadIndex_++];
    queuedSamples_[record.source] -= record.sampleCount;  // an unreadable record is gone either way
    if (spoolReadIndex_ == spoolRecords_.size()) {
        spoolRecords_.clear();
        spoolReadIndex_ = 0;
    }
    const auto bytes = spool_->read(record.offset, record.length);
    // A spool that cannot shrink still works: the next record is written from offset 0 again.
    if (spoolRecords_.empty()) static_cast<void>(spool_->reset());
    if (!bytes) return std::unexpected(unreadableChunk());
    auto chunk = decodeSpoolRecord(*bytes);
    if (!chunk || chunk->source != record.source) return std::unexpected(unreadableChunk());
    return std::optional(std::move(*chunk));
}

TranscriptionBacklog AudioPipeline::backlog() const {
    std::lock_guard lock(mutex_);
    const auto seconds = [&](MeetingCaptureSource source) {
        const auto found = queuedSamples_.find(source);
        return found == queuedSamples_.end() ? 0.0 : double(found->second) / transcriptionSampleRate;
    };
    return {seconds(MeetingCaptureSource::microphone), seconds(MeetingCaptureSource::system)};
}

AudioPipelineMetrics AudioPipeline::metrics() const {
    std::lock_guard lock(mutex_);
    return metrics_;
}

}  // namespace mossly::meeting
