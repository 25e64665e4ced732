#include "GranolaNote.h"

#include <QJsonArray>

namespace mossly {

namespace {

std::optional<QDateTime> dateFrom(const QJsonValue& value) {
    if (!value.isString()) return std::nullopt;
    QDateTime date = QDateTime::fromString(value.toString(), Qt::ISODateWithMs);
    if (!date.isValid()) date = QDateTime::fromString(value.toString(), Qt::ISODate);
    if (!date.isValid()) return std::nullopt;
    return date.toUTC();
}

}  // namespace

std::optional<GranolaNotesPage> granolaNotesPageFromJson(const QJsonObject& json) {
    if (!json.value(u"notes").isArray() || !json.value(u"hasMore").isBool()) return std::nullopt;
    GranolaNotesPage page;
    page.hasMore = json.value(u"hasMore").toBool();
    if (json.value(u"cursor").isString()) page.cursor = json.value(u"cursor").toString();
    if (page.hasMore && !page.cursor) return std::nullopt;  // more, but no way to ask for it
    for (const QJsonValue& value : json.value(u"notes").toArray()) {
        const QJsonObject note = value.toObject();
        const auto updated = dateFrom(note.value(u"updated_at"));
        if (!note.value(u"id").isString() || !updated) return std::nullopt;
        page.notes.push_back({note.value(u"id").toString(), note.value(u"title").toString(), *updated});
    }
    return page;
}

std::optional<GranolaNote> granolaNoteFromJson(const QJsonObject& json) {
    const auto created = dateFrom(json.value(u"created_at"));
    if (!json.value(u"id").isString() || !created) return std::nullopt;
    GranolaNote note;
    note.id = json.value(u"id").toString();
    note.title = json.value(u"title").toString();
    note.createdAt = *created;
    note.updatedAt = dateFrom(json.value(u"updated_at")).value_or(*created);
    note.webUrl = json.value(u"web_url").toString();
    const QJsonObject event = json.value(u"calendar_event").toObject();
    note.calendarEventTitle = event.value(u"event_title").toString();
    note.scheduledStart = dateFrom(event.value(u"scheduled_start_time"));
    note.scheduledEnd = dateFrom(event.value(u"scheduled_end_time"));
    for (const QJsonValue& value : json.value(u"attendees").toArray()) {
        const QJsonObject person = value.toObject();
        note.attendees.push_back({person.value(u"name").toString(), person.value(u"email").toString()});
    }
    for (const QJsonValue& value : json.value(u"folder_membership").toArray()) {
        const QJsonObject folder = value.toObject();
        if (folder.value(u"id").isString()) note.folders.emplace_back(folder.value(u"id").toString(), folder.value(u"name").toString());
    }
    note.summaryMarkdown = json.value(u"summary_markdown").toString();
    if (note.summaryMarkdown.trimmed().isEmpty()) note.summaryMarkdown = json.value(u"summary_text").toString();
    if (json.contains(u"transcript") && !json.value(u"transcript").isNull() && !json.value(u"transcript").isArray()) {
        return std::nullopt;
    }
    for (const QJsonValue& value : json.value(u"transcript").toArray()) {
        const QJsonObject segment = value.toObject();
        if (!segment.value(u"text").isString()) return std::nullopt;
        const QJsonObject speaker = segment.value(u"speaker").toObject();
        note.transcript.push_back({speaker.value(u"source").toString(), speaker.value(u"diarization_label").toString(),
                                   segment.value(u"text").toString(),
                                   dateFrom(segment.value(u"start_time")).value_or(note.createdAt)});
    }
    return note;
}

}  // namespace mossly
