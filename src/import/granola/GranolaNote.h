#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <optional>
#include <vector>

namespace mossly {

// One row of the notes list.
struct GranolaNoteSummary {
    QString id;
    QString title;
    QDateTime updatedAt;
};

struct GranolaNotesPage {
    std::vector<GranolaNoteSummary> notes;
    bool hasMore = false;
    std::optional<QString> cursor;
};

struct GranolaPerson {
    QString name;
    QString email;
};

struct GranolaTranscriptSegment {
    QString source;  // "microphone" (the user) or "speaker" (everyone else)
    QString diarizationLabel;
    QString text;
    QDateTime startTime;
};

// A note as the API gives it, with its transcript when asked for.
struct GranolaNote {
    QString id;
    QString title;
    QDateTime createdAt;
    QDateTime updatedAt;
    QString webUrl;
    QString calendarEventTitle;
    std::optional<QDateTime> scheduledStart;
    std::optional<QDateTime> scheduledEnd;
    std::vector<GranolaPerson> attendees;
    std::vector<std::pair<QString, QString>> folders;  // id, name
    QString summaryMarkdown;  // or the plain-text summary when there is no Markdown one
    std::vector<GranolaTranscriptSegment> transcript;
};

// Reading the API's JSON; nothing when a required field is missing or of the wrong kind.
std::optional<GranolaNotesPage> granolaNotesPageFromJson(const QJsonObject& json);
std::optional<GranolaNote> granolaNoteFromJson(const QJsonObject& json);

}  // namespace mossly
