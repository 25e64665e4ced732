#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QList>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QUuid>
#include <optional>

// The values every part of the meeting recorder shares: where audio came from,
// what was heard, what the summary said, and the recorder's one error type.
namespace mossly::meeting {

enum class MeetingCaptureSource { microphone, system };

// "microphone" / "system": these words appear in diagnostics, front matter and recovery manifests.
QString rawValue(MeetingCaptureSource source);
std::optional<MeetingCaptureSource> captureSourceFromRaw(const QString& raw);

enum class MeetingSummaryProviderKind { none, claudeCode, codexCLI };

// "none" / "claudeCode" / "codexCLI", as persisted in settings.
QString rawValue(MeetingSummaryProviderKind kind);
std::optional<MeetingSummaryProviderKind> providerKindFromRaw(const QString& raw);

enum class MeetingSessionPhase {
    idle,
    requestingPermissions,
    preparing,
    recording,
    paused,
    finalizing,
    summarizing,
    completed,
    failed,
};

QString rawValue(MeetingSessionPhase phase);

struct MeetingTranscriptSegment {
    QUuid id = QUuid::createUuid();
    MeetingCaptureSource source = MeetingCaptureSource::microphone;
    double startTime = 0;  // seconds from the start of the recording
    double endTime = 0;
    QString text;
    bool isStable = false;

    QJsonObject toJson() const;
    // Absent when a key is missing or has the wrong type.
    static std::optional<MeetingTranscriptSegment> fromJson(const QJsonObject& object);

    bool operator==(const MeetingTranscriptSegment&) const = default;
};

// Stable order by start time; at an equal start the microphone comes first.
void sortSegments(QList<MeetingTranscriptSegment>& segments);

// A JSON array of strings; absent for anything else (a number among the items, not an array).
std::optional<QStringList> textListFromJson(const QJsonValue& value);

struct MeetingSummary {
    QString title;
    QString summary;
    QStringList decisions;
    QStringList actionItems;
    QStringList openQuestions;

    QJsonObject toJson() const;
    // Absent unless all five keys are present with the right types (lists of text).
    static std::optional<MeetingSummary> fromJson(const QJsonObject& object);

    bool operator==(const MeetingSummary&) const = default;
};

struct MeetingSessionConfiguration {
    QString title;
    bool retainAudio = false;
    MeetingSummaryProviderKind provider = MeetingSummaryProviderKind::none;
    QSet<MeetingCaptureSource> sources;
    QString modelName = QStringLiteral("ggml-base.bin");
    std::optional<QString> microphoneDeviceUID;
    bool operator==(const MeetingSessionConfiguration&) const = default;
};

struct MeetingSessionState {
    MeetingSessionPhase phase = MeetingSessionPhase::idle;
    std::optional<QDateTime> startedAt;
    std::optional<QDateTime> endedAt;
    QList<MeetingTranscriptSegment> segments;
    std::optional<MeetingSummary> summary;
    std::optional<QString> failureMessage;
};

// The recorder's one error type. Each case's text is shown to the user as it stands.
class MeetingSessionError {
public:
    enum class Code {
        invalidTransition,
        permissionDenied,
        captureFailed,
        transcriptionFailed,
        noteWriteFailed,
        missingModel,
        noCaptureSource,
    };

    static MeetingSessionError invalidTransition(MeetingSessionPhase from, MeetingSessionPhase to);
    static MeetingSessionError permissionDenied(QString text);
    static MeetingSessionError captureFailed(QString text);
    static MeetingSessionError transcriptionFailed(QString text);
    static MeetingSessionError noteWriteFailed(QString text);
    static MeetingSessionError missingModel();
    static MeetingSessionError noCaptureSource();

    Code code() const { return code_; }
    const QString& description() const { return description_; }

    bool operator==(const MeetingSessionError&) const = default;

private:
    MeetingSessionError(Code code, QString description) : code_(code), description_(std::move(description)) {}

    Code code_;
    QString description_;
};

}  // namespace mossly::meeting

inline size_t qHash(mossly::meeting::MeetingCaptureSource source, size_t seed = 0) noexcept {
    return ::qHash(static_cast<int>(source), seed);
}
