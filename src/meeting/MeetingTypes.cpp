#include "MeetingTypes.h"

#include <QJsonArray>
#include <algorithm>

namespace mossly::meeting {

QString rawValue(MeetingCaptureSource source) {
    return source == MeetingCaptureSource::microphone ? QStringLiteral("microphone") : QStringLiteral("system");
}

std::optional<MeetingCaptureSource> captureSourceFromRaw(const QString& raw) {
    if (raw == QLatin1String("microphone")) return MeetingCaptureSource::microphone;
    if (raw == QLatin1String("system")) return MeetingCaptureSource::system;
    return std::nullopt;
}

QString rawValue(MeetingSummaryProviderKind kind) {
    switch (kind) {
    case MeetingSummaryProviderKind::none: return QStringLiteral("none");
    case MeetingSummaryProviderKind::claudeCode: return QStringLiteral("claudeCode");
    case MeetingSummaryProviderKind::codexCLI: return QStringLiteral("codexCLI");
    }
    return QStringLiteral("none");
}

std::optional<MeetingSummaryProviderKind> providerKindFromRaw(const QString& raw) {
    for (auto kind : {MeetingSummaryProviderKind::none, MeetingSummaryProviderKind::claudeCode,
                      MeetingSummaryProviderKind::codexCLI}) {
        if (rawValue(kind) == raw) return kind;
    }
    return std::nullopt;
}

QString rawValue(MeetingSessionPhase phase) {
    switch (phase) {
    case MeetingSessionPhase::idle: return QStringLiteral("idle");
    case MeetingSessionPhase::requestingPermissions: return QStringLiteral("requestingPermissions");
    case MeetingSessionPhase::preparing: return QStringLiteral("preparing");
    case MeetingSessionPhase::recording: return QStringLiteral("recording");
    case MeetingSessionPhase::paused: return QStringLiteral("paused");
    case MeetingSessionPhase::finalizing: return QStringLiteral("finalizing");
    case MeetingSessionPhase::summarizing: return QStringLiteral("summarizing");
    case MeetingSessionPhase::completed: return QStringLiteral("completed");
    case MeetingSessionPhase::failed: return QStringLiteral("failed");
    }
    return {};
}

QJsonObject MeetingTranscriptSegment::toJson() const {
    return QJsonObject{
        {QStringLiteral("id"), id.toString(QUuid::WithoutBraces).toUpper()},
        {QStringLiteral("source"), rawValue(source)},
        {QStringLiteral("startTime"), startTime},
        {QStringLiteral("endTime"), endTime},
        {QStringLiteral("text"), text},
        {QStringLiteral("isStable"), isStable},
    };
}

std::optional<MeetingTranscriptSegment> MeetingTranscriptSegment::fromJson(const QJsonObject& object) {
    const auto id = QUuid::fromString(object.value(QStringLiteral("id")).toString());
    const auto source = captureSourceFromRaw(object.value(QStringLiteral("source")).toString());
    const auto start = object.value(QStringLiteral("startTime"));
    const auto end = object.value(QStringLiteral("endTime"));
    const auto text = object.value(QStringLiteral("text"));
    const auto stable = object.value(QStringLiteral("isStable"));
    if (id.isNull() || !source || !start.isDouble() || !end.isDouble() || !text.isString() || !stable.isBool()) {
        return std::nullopt;
    }
    return MeetingTranscriptSegment{id, *source, start.toDouble(), end.toDouble(), text.toString(), stable.toBool()};
}

void sortSegments(QList<MeetingTranscriptSegment>& segments) {
    std::ranges::stable_sort(segments, [](const MeetingTranscriptSegment& a, const MeetingTranscriptSegment& b) {
        if (a.startTime != b.startTime) return a.startTime < b.startTime;
        return a.source == MeetingCaptureSource::microphone && b.source == MeetingCaptureSource::system;
    });
}

std::optional<QStringList> textListFromJson(const QJsonValue& value) {
    if (!value.isArray()) return std::nullopt;
    QStringList list;
    for (const auto& item : value.toArray()) {
        if (!item.isString()) return std::nullopt;
        list.append(item.toString());
    }
    return list;
}

QJsonObject MeetingSummary::toJson() const {
    return QJsonObject{
        {QStringLiteral("title"), title},
        {QStringLiteral("summary"), summary},
        {QStringLiteral("decisions"), QJsonArray::fromStringList(decisions)},
        {QStringLiteral("actionItems"), QJsonArray::fromStringList(actionItems)},
        {QStringLiteral("openQuestions"), QJsonArray::fromStringList(openQuestions)},
    };
}

std::optional<MeetingSummary> MeetingSummary::fromJson(const QJsonObject& object) {
    const auto title = object.value(QStringLiteral("title"));
    const auto summary = object.value(QStringLiteral("summary"));
    const auto decisions = textListFromJson(object.value(QStringLiteral("decisions")));
    const auto actions = textListFromJson(object.value(QStringLiteral("actionItems")));
    const auto questions = textListFromJson(object.value(QStringLiteral("openQuestions")));
    if (!title.isString() || !summary.isString() || !decisions || !actions || !questions) return std::nullopt;
    return MeetingSummary{title.toString(), summary.toString(), *decisions, *actions, *questions};
}

MeetingSessionError MeetingSessionError::invalidTransition(MeetingSessionPhase from, MeetingSessionPhase to) {
    return {Code::invalidTransition,
            QStringLiteral("Cannot move a meeting from %1 to %2.").arg(rawValue(from), rawValue(to))};
}

MeetingSessionError MeetingSessionError::permissionDenied(QString text) {
    return {Code::permissionDenied, std::move(text)};
}

MeetingSessionError MeetingSessionError::captureFailed(QString text) {
    return {Code::captureFailed, std::move(text)};
}

MeetingSessionError MeetingSessionError::transcriptionFailed(QString text) {
    return {Code::transcriptionFailed, std::move(text)};
}

MeetingSessionError MeetingSessionError::noteWriteFailed(QString text) {
    return {Code::noteWriteFailed, std::move(text)};
}

MeetingSessionError MeetingSessionError::missingModel() {
    return {Code::missingModel, QStringLiteral("Download the local Whisper model before recording.")};
}

MeetingSessionError MeetingSessionError::noCaptureSource() {
    return {Code::noCaptureSource, QStringLiteral("Select at least one audio source.")};
}

}  // namespace mossly::meeting
