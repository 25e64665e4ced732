#pragma once

#include <QCoreApplication>
#include <QDateTime>
#include <QElapsedTimer>
#include <QThread>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <vector>

#include "AudioSpool.h"
#include "MeetingSessionServices.h"

// Stand-ins for everything the meeting controller talks to.
namespace mossly::meeting::test {

// Spins the main thread's event loop until `done` holds; false after `timeoutMs`.
bool waitFor(const std::function<bool()>& done, int timeoutMs = 10000);

// One second of a 440 Hz tone at 16 kHz: loud enough to be transcribed.
MeetingAudioChunk toneChunk(MeetingCaptureSource source, double startTime);

// Delivers chunks and failures from a thread of its own, as a real back-end does.
class FakeCapture final : public MeetingAudioCapture {
public:
    explicit FakeCapture(MeetingCaptureSource source, std::optional<MeetingSessionError> startError)
        : source_(source), startError_(std::move(startError)) {}

    MeetingCaptureSource source() const override { return source_; }
    std::expected<void, MeetingSessionError> start(const std::optional<QString>& deviceUID, ChunkHandler onChunk,
                                                   FailureHandler onFailure) override;
    void stop() override { running_ = false; }

    // `seconds` one-second tone chunks from where the last delivery ended.
    void deliver(int seconds);
    void deliver(MeetingAudioChunk chunk);
    void failWith(const QString& text);
    // A watchdog's warning, or (nothing) its end.
    void warnWith(const std::optional<QString>& text);
    bool isRunning() const { return running_; }
    const std::optional<QString>& deviceUID() const { return deviceUID_; }

private:
    MeetingCaptureSource source_;
    std::optional<MeetingSessionError> startError_;
    ChunkHandler onChunk_;
    FailureHandler onFailure_;
    std::optional<QString> deviceUID_;
    double nextStart_ = 0;
    bool running_ = false;
};

// Makes fake captures and keeps the latest of each source for the test to drive.
class FakeCaptures {
public:
    MeetingCaptureFactory factory();
    FakeCapture& latest(MeetingCaptureSource source) { return *latest_.at(source); }
    int created(MeetingCaptureSource source) const;
    std::map<MeetingCaptureSource, MeetingSessionError> startErrors;

private:
    std::map<MeetingCaptureSource, FakeCapture*> latest_;
    std::map<MeetingCaptureSource, int> created_;
};

// One segment per transcribed block: "<source> from <offset>".
class FakeTranscriber final : public WhisperTranscribing {
public:
    std::expected<QList<MeetingTranscriptSegment>, MeetingSessionError> transcribe(
        std::span<const float> samples, MeetingCaptureSource source, double offset) override;
    std::atomic<int> failuresLeft{0};
    std::atomic<int> calls{0};
};

// What is missing is set before the start; the controller asks on its worker.
class FakePermissions final : public MeetingPermissions {
public:
    std::expected<void, MeetingSessionError> microphoneAccess() override {
        ++asked;
        if (missingMicrophone) return std::unexpected(MeetingSessionError::captureFailed(*missingMicrophone));
        return {};
    }
    std::expected<void, MeetingSessionError> systemAudioAccess() override {
        ++asked;
        if (missingSystem) return std::unexpected(MeetingSessionError::captureFailed(*missingSystem));
        return {};
    }
    std::optional<QString> missingMicrophone;
    std::optional<QString> missingSystem;
    std::atomic<int> asked{0};
};

class FakeModel final : public MeetingModelLocator {
public:
    std::optional<QString> installedModelPath(const QString& modelName) const override {
        return installed ? std::optional(QStringLiteral("/models/") + modelName) : std::nullopt;
    }
    bool installed = true;
};

class FakeProvider final : public MeetingSummaryProvider {
public:
    MeetingSummaryProviderKind kind() const override { return MeetingSummaryProviderKind::claudeCode; }
    // What the provider's program answers; waits while `holdProbe` is set.
    ProviderConnectionState connectionState(std::stop_token stop = {}) const override;
    void setConnection(ProviderConnectionState state);
    // Waits while `hold` is set, unless stopped.
    std::expected<MeetingSummary, MeetingSummaryProviderError> summarize(const QString& transcript,
                                                                         std::stop_token stop = {}) const override;

    std::atomic<bool> fails{false};
    std::atomic<bool> hold{false};  // summarize waits while it is set
    std::atomic<bool> holdProbe{false};
    mutable std::atomic<int> probes{0};
    mutable std::atomic<int> calls{0};
    mutable std::mutex mutex;
    mutable QString lastTranscript;

private:
    ProviderConnectionState connection_ = ProviderConnectionState::connected();
};

struct DiagnosticRecord {
    QString kind;  // "event" or "span"
    QString name;
    MeetingDiagnosticFields fields;
    QString field(const QString& key) const;
};

class RecordingDiagnostics final : public MeetingDiagnostics {
public:
    void event(const QString& name, const MeetingDiagnosticFields& fields) override {
        records.push_back({QStringLiteral("event"), name, fields});
    }
    void span(const QString& name, double, const MeetingDiagnosticFields& fields) override {
        records.push_back({QStringLiteral("span"), name, fields});
    }
    const DiagnosticRecord* find(const QString& name) const;
    int count(const QString& name) const;
    std::vector<DiagnosticRecord> records;
};

// An overflow spool in memory that notes the threads that wrote to it.
class ThreadNotingSpool final : public AudioSpoolStorage {
public:
    std::expected<qint64, QString> append(const QByteArray& record) override;
    std::expected<QByteArray, QString> read(qint64 offset, qint64 length) override;
    std::expected<void, QString> reset() override;
    int appends() const;
    bool wroteOn(const QThread* thread) const;

private:
    mutable std::mutex mutex_;
    QByteArray data_;
    int appends_ = 0;
    std::set<const QThread*> writers_;
};

// An overflow spool that keeps what it is given but cannot read it back.
class UnreadableSpool final : public AudioSpoolStorage {
public:
    std::expected<qint64, QString> append(const QByteArray& record) override {
        const qint64 offset = size_;
        size_ += record.size();
        return offset;
    }
    std::expected<QByteArray, QString> read(qint64, qint64) override {
        return std::unexpected(QStringLiteral("Disk error"));
    }
    std::expected<void, QString> reset() override {
        size_ = 0;
        return {};
    }

private:
    qint64 size_ = 0;
};

}  // namespace mossly::meeting::test
