#pragma once

#include <QDateTime>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutex>
#include <QUrl>
#include <QUrlQuery>

#include "TestHttpServer.h"

namespace mossly::test {

// A Granola stand-in that speaks the documented shapes: pages of two notes with
// a cursor, the updated_after filter, notes with transcripts, and scripted faults.
class FakeGranola {
public:
    QMutex mutex;
    QHash<QString, QJsonObject> notes;  // by id
    QHash<QString, TestHttpServer::Response> faults;  // by path prefix, served once
    QString lastUpdatedAfter;
    QString key = QStringLiteral("grn_good");

    void add(const QString& id, const QString& title, const QString& updatedAt, const QString& summary) {
        QMutexLocker lock(&mutex);
        notes.insert(id, QJsonObject{
                             {"id", id}, {"object", "note"}, {"title", title},
                             {"created_at", "2026-11-20T09:00:00Z"}, {"updated_at", updatedAt},
                             {"web_url", "https://notes.granola.ai/d/" + id},
                             {"calendar_event", QJsonObject{{"event_title", title},
                                                            {"scheduled_start_time", "2026-11-20T09:00:00Z"},
                                                            {"scheduled_end_time", "2026-11-20T09:30:00Z"}}},
                             {"attendees", QJsonArray{QJsonObject{{"name", "Oat Benson"}, {"email", "oat@example.com"}}}},
                             {"folder_membership", QJsonArray{QJsonObject{{"id", "fol_1"}, {"name", "Team"}}}},
                             {"summary_markdown", summary},
                             {"transcript", QJsonArray{
                                  QJsonObject{{"speaker", QJsonObject{{"source", "microphone"}}}, {"text", "Shall we start?"},
                                              {"start_time", "2026-11-20T09:00:02Z"}},
                                  QJsonObject{{"speaker", QJsonObject{{"source", "speaker"}}}, {"text", "Yes, budget first."},
                                              {"start_time", "2026-11-20T09:01:15Z"}}}}});
    }

    TestHttpServer::Response answer(const TestHttpServer::Request& request) {
        QMutexLocker lock(&mutex);
        for (auto it = faults.begin(); it != faults.end(); ++it) {
            if (request.path.startsWith(it.key())) {
                const auto fault = it.value();
                faults.erase(it);
                return fault;
            }
        }
        if (!request.headers.contains("Authorization: Bearer " + key.toUtf8())) return {.status = 401, .body = "{}"};
        const QUrl url(QStringLiteral("http://x") + request.path);
        const QUrlQuery query(url);
        if (url.path() == u"/v1/notes") {
            lastUpdatedAfter = query.queryItemValue(QStringLiteral("updated_after"));
            QStringList ids = notes.keys();
            ids.sort();
            QJsonArray page;
            const int start = query.queryItemValue(QStringLiteral("cursor")).toInt();
            int index = 0, sent = 0;
            bool more = false;
            for (const QString& id : ids) {
                const QJsonObject note = notes.value(id);
                if (!lastUpdatedAfter.isEmpty() &&
                    QDateTime::fromString(note.value("updated_at").toString(), Qt::ISODate) <=
                        QDateTime::fromString(lastUpdatedAfter, Qt::ISODate)) {
                    continue;
                }
                if (index++ < start) continue;
                if (sent == 2) {
                    more = true;
                    break;
                }
                page.append(QJsonObject{{"id", id}, {"title", note.value("title")}, {"updated_at", note.value("updated_at")}});
                ++sent;
            }
            QJsonObject body{{"notes", page}, {"hasMore", more}};
            body.insert("cursor", more ? QJsonValue(QString::number(start + 2)) : QJsonValue());
            return {.contentType = "application/json", .body = QJsonDocument(body).toJson()};
        }
        const QString id = url.path().section(u'/', 3, 3);
        if (!notes.contains(id)) return {.status = 404, .body = "{}"};
        return {.contentType = "application/json", .body = QJsonDocument(notes.value(id)).toJson()};
    }
};

}  // namespace mossly::test
