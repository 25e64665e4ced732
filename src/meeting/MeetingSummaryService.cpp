#include "MeetingSummaryService.h"

#include <QStringList>
#include <cmath>

#include "MeetingNoteFormat.h"

namespace mossly::meeting {

namespace {

QString listText(const QStringList& items) {
    if (items.isEmpty()) return QStringLiteral("_None recorded._");
    QStringList lines;
    for (const QString& item : items) lines.append(QStringLiteral("- ") + item);
    return lines.join(u'\n');
}

// A line break inside a segment would start a line that is not a transcript line.
QString oneLine(QString text) {
    text.replace(QLatin1String("\r\n"), QLatin1String(" "));
    text.replace(u'\n', u' ');
    text.replace(u'\r', u' ');
    return text;
}

}  // namespace

QString speakerLabel(MeetingCaptureSource source) {
    return source == MeetingCaptureSource::microphone ? QStringLiteral("You") : QStringLiteral("System");
}

QString MeetingSummaryService::transcript(const QList<MeetingTranscriptSegment>& segments) {
    QStringList lines;
    for (const MeetingTranscriptSegment& segment : segments) {
        if (!segment.isStable) continue;
        const auto seconds = static_cast<long long>(std::floor(std::max(segment.startTime, 0.0)));
        lines.append(QString::asprintf("[%02lld:%02lld] ", seconds / 60, seconds % 60) + speakerLabel(segment.source) +
                     QStringLiteral(": ") + oneLine(segment.text));
    }
    return lines.join(u'\n');
}

QString MeetingSummaryService::render(const MeetingSummary& summary) {
    return MeetingNoteFormat::summaryStartMarker + QStringLiteral("\n## Summary\n\n") + summary.summary +
           QStringLiteral("\n\n## Decisions\n\n") + listText(summary.decisions) +
           QStringLiteral("\n\n## Action items\n\n") + listText(summary.actionItems) +
           QStringLiteral("\n\n## Open questions\n\n") + listText(summary.openQuestions) + u'\n' +
           MeetingNoteFormat::summaryEndMarker;
}

QString MeetingSummaryService::replacingGeneratedSummary(const QString& body, const QString& block) {
    return MeetingNoteFormat::replacingBlock(body, MeetingNoteFormat::summaryStartMarker,
                                             MeetingNoteFormat::summaryEndMarker, block);
}

}  // namespace mossly::meeting
