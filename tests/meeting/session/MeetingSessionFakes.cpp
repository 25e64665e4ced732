#include "MeetingSessionFakes.h"

#include <QThread>
#include <cmath>
#include <numbers>

namespace mossly::meeting::test {

bool waitFor(const std::function<bool()>& done, int timeoutMs) {
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > timeoutMs) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        QThread::msleep(1);
    }
    return true;
}

MeetingAudioChunk toneChunk(MeetingCaptureSource source, double startTime) {
    std::vector<float> samples(static_cast<size_t>(transcriptionSampleRate));
    for (size_t i = 0; i < samples.size(); ++i) {
        samples[i] = 0.1f * float(std::sin(2 * std::numbers::pi * 440 * double(i) / transcriptionSampleRate));
    }
    return MeetingAudioChunk::captured(source, startTime, std::move(samples), transcriptionSampleRate);
}

std::expected<void, MeetingSessionError> FakeCapture::start(const std::optional<QString>& deviceUID,
                                                            ChunkHandler onChunk, FailureHandler onFailure) {
    if (startError_) return std::unexpected(*startError_);
    deviceUID_ = deviceUID;
    onChunk_ = std::move(onChunk);
    onFailure_ = std::move(onFailure);
    running_ = true;
    return {};
}

void FakeCapture::deliver(int seconds) {
    for (int i = 0; i < seconds; ++i) {
        deliver(toneChunk(source_, nextStart_));
        nextStart_ += 1;
    }
}

void FakeCapture::deliver(MeetingAudioChunk chunk) {
    if (!running_) return;
    std::thread([&] { onChunk_(std::move(chunk)); }).join();
}

void FakeCapture::failWith(const QString& text) {
    std::thread([&] { onFailure_(MeetingSessionError::captureFailed(text)); }).join();
}

void FakeCapture::warnWith(const std::optional<QString>& text) {
    std::thread([&] {
        warn(text ? std::optional(MeetingSessionError::captureFailed(*text)) : std::nullopt);
    }).join();
}

MeetingCaptureFactory FakeCaptures::factory() {
    return [this](MeetingCaptureSource source) -> std::unique_ptr<MeetingAudioCapture> {
        const auto error = startErrors.find(source);
        auto capture = std::make_unique<FakeCapture>(
            source, error == startErrors.end() ? std::nullopt : std::optional(error->second));
        latest_[source] = capture.get();
        ++created_[source];
        return capture;
    };
}

int FakeCaptures::created(MeetingCaptureSource source) const {
    const auto found = created_.find(source);
    return found == created_.end() ? 0 : found->second;
}

std::expected<QList<MeetingTranscriptSegment>, MeetingSessionError> FakeTranscriber::transcribe(
    std::span<const float> samples, MeetingCaptureSource source, double offset) {
    ++calls;
    if (failuresLeft > 0) {
        --failuresLeft;
        return std::unexpected(MeetingSessionError::transcriptionFailed(QStringLiteral("Inference failed.")));
    }
    MeetingTranscriptSegment segment;
    segment.source = source;
    segment.startTime = offset;
    segment.endTime = offset + double(samples.size()) / transcriptionSampleRate;
    segment.text = rawValue(source) + QStringLiteral(" from ") + QString::number(offset);
    return QList{segment};
}

std::expected<MeetingSummary, MeetingSummaryProviderError> FakeProvider::summarize(const QString& transcript,
                                                                                  std::stop_token stop) const {
    ++calls;
    {
        std::lock_guard lock(mutex);
        lastTranscript = transcript;
    }
    while (hold && !stop.stop_requested()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (stop.stop_requested()) return std::unexpected(MeetingSummaryProviderError::stopped());
    if (fails) return std::unexpected(MeetingSummaryProviderError::unavailable(QStringLiteral("Claude is offline.")));
    return MeetingSummary{QStringLiteral("Standup"), QStringLiteral("We met."), {QStringLiteral("Ship it")},
                          {QStringLiteral("Write tests")}, {}};
}

ProviderConnectionState FakeProvider::connectionState(std::stop_token stop) const {
    ++probes;
    while (holdProbe && !stop.stop_requested()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::lock_guard lock(mutex);
    return connection_;
}

void FakeProvider::setConnection(ProviderConnectionState state) {
    std::lock_guard lock(mutex);
    connection_ = std::move(state);
}

std::expected<qint64, QString> ThreadNotingSpool::append(const QByteArray& record) {
    std::lock_guard lock(mutex_);
    writers_.insert(QThread::currentThread());
    ++appends_;
    const qint64 offset = data_.size();
    data_.append(record);
    return offset;
}

std::expected<QByteArray, QString> ThreadNotingSpool::read(qint64 offset, qint64 length) {
    std::lock_guard lock(mutex_);
    return data_.mid(offset, length);
}

std::expected<void, QString> ThreadNotingSpool::reset() {
    std::lock_guard lock(mutex_);
    data_.clear();
    return {};
}

int ThreadNotingSpool::appends() const {
    std::lock_guard lock(mutex_);
    return appends_;
}

bool ThreadNotingSpool::wroteOn(const QThread* thread) const {
    std::lock_guard lock(mutex_);
    return writers_.contains(thread);
}

QString DiagnosticRecord::field(const QString& key) const {
    for (const auto& [name, value] : fields) {
        if (name == key) return value;
    }
    return {};
}

const DiagnosticRecord* RecordingDiagnostics::find(const QString& name) const {
    for (const auto& record : records) {
        if (record.name == name) return &record;
    }
    return nullptr;
}

int RecordingDiagnostics::count(const QString& name) const {
    return int(std::ranges::count_if(records, [&](const auto& record) { return record.name == name; }));
}

}  // namespace mossly::meeting::test
