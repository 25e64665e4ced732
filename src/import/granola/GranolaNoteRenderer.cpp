#include "GranolaNoteRenderer.h"

#include <algorithm>

namespace mossly {

namespace {

QString isoDate(const QDateTime& date) { return date.toUTC().toString(Qt::ISODate); }

// "[mm:ss] You: …", minutes from the first words, as the recorder writes transcripts.
QString transcriptLines(const std::vector<GranolaTranscriptSegment>& segments) {
    if (segments.empty()) return QStringLiteral("_No transcript in Granola._");
    QDateTime origin = segments.front().startTime;
    for (const auto& segment : segments) origin = std::min(origin, segment.startTime);
    QStringList lines;
    for (const auto& segment : segments) {
        const qint64 seconds = std::max<qint64>(0, origin.secsTo(segment.startTime));
        QString speaker = segment.source == u"microphone" ? QStringLiteral("You") : QStringLiteral("System");
        if (!segment.diarizationLabel.isEmpty()) speaker += QStringLiteral(" (%1)").arg(segment.diarizationLabel);
        QString text = segment.text;
        text.replace(u'\n', u' ');
        lines.append(QString::asprintf("[%02lld:%02lld] ", seconds / 60, seconds % 60) + speaker + QStringLiteral(": ") + text);
    }
    return lines.join(u'\n');
}

}  // namespace

RenderedGranolaNote renderGranolaNote(const GranolaNote& note) {
    RenderedGranolaNote rendered;
    rendered.title = note.title.trimmed().isEmpty() ? QStringLiteral("Granola meeting ") + note.createdAt.toString(Qt::ISODate)
                                                    : note.title.trimmed();
    const QString summary = note.summaryMarkdown.trimmed().isEmpty() ? QStringLiteral("_No summary in Granola._")
                                                                     : note.summaryMarkdown.trimmed();
    rendered.body = QStringLiteral("# ") + rendered.title + QStringLiteral("\n\n") +
                    QStringLiteral("<!-- notes:meeting-summary:start -->\n## Summary\n\n") + summary +
                    QStringLiteral("\n<!-- notes:meeting-summary:end -->\n\n") +
                    QStringLiteral("<!-- notes:meeting-transcript:start -->\n## Transcript\n\n") +
                    transcriptLines(note.transcript) + QStringLiteral("\n<!-- notes:meeting-transcript:end -->");

    rendered.fields.emplace(QStringLiteral("meeting-id"), note.id);
    rendered.fields.emplace(QStringLiteral("meeting-source"), QStringLiteral("granola"));
    rendered.fields.emplace(QStringLiteral("meeting-started-at"), isoDate(note.scheduledStart.value_or(note.createdAt)));
    if (note.scheduledEnd) rendered.fields.emplace(QStringLiteral("meeting-ended-at"), isoDate(*note.scheduledEnd));
    if (!note.calendarEventTitle.isEmpty()) {
        rendered.fields.emplace(QStringLiteral("meeting-calendar-event"), note.calendarEventTitle);
    }
    QStringList attendees;
    for (const GranolaPerson& person : note.attendees) {
        attendees.append(person.email.isEmpty() ? person.name
                         : person.name.isEmpty() ? person.email
                                                 : QStringLiteral("%1 <%2>").arg(person.name, person.email));
    }
    if (!attendees.isEmpty()) rendered.fields.emplace(QStringLiteral("meeting-attendees"), attendees);
    if (!note.webUrl.isEmpty()) rendered.fields.emplace(QStringLiteral("meeting-source-url"), note.webUrl);
    rendered.fields.emplace(QStringLiteral("meeting-summary-status"),
                            note.summaryMarkdown.trimmed().isEmpty() ? QStringLiteral("disabled") : QStringLiteral("complete"));
    return rendered;
}

}  // namespace mossly
