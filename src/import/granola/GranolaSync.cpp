#include "GranolaSync.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>
#include <cerrno>

#include "AtomicFile.h"
#include "GranolaNoteRenderer.h"

namespace mossly {

namespace {

QString isoDate(const QDateTime& date) { return date.toUTC().toString(Qt::ISODateWithMs); }
QDateTime dateFrom(const QJsonValue& value) { return QDateTime::fromString(value.toString(), Qt::ISODateWithMs); }

}  // namespace

Result<GranolaImportManifest> GranolaImportManifest::load(const QString& notesDirectory) {
    GranolaImportManifest manifest;
    auto bytes = AtomicFile::readAll(notesDirectory + u'/' + fileName);
    if (!bytes) {
        if (bytes.error().systemErrno() == ENOENT) return manifest;
        return fail(bytes.error());
    }
    const QJsonObject root = QJsonDocument::fromJson(*bytes).object();
    if (root.value(u"schemaVersion").toInt() != 1) {
        return fail(Error::invalidArgument(QStringLiteral("The Granola import record %1 cannot be read.").arg(fileName)));
    }
    if (root.value(u"highWaterMark").isString()) manifest.highWaterMark = dateFrom(root.value(u"highWaterMark"));
    const QJsonObject notes = root.value(u"notes").toObject();
    for (auto it = notes.begin(); it != notes.end(); ++it) {
        const QJsonObject entry = it.value().toObject();
        manifest.notes.insert(it.key(), {entry.value(u"identifier").toString(), entry.value(u"revision").toString(),
                                         dateFrom(entry.value(u"updatedAt"))});
    }
    return manifest;
}

Result<void> GranolaImportManifest::save(const QString& notesDirectory) const {
    QJsonObject notesJson;
    for (auto it = notes.begin(); it != notes.end(); ++it) {
        notesJson.insert(it.key(), QJsonObject{{"identifier", it->identifier},
                                               {"revision", it->revision},
                                               {"updatedAt", isoDate(it->updatedAt)}});
    }
    QJsonObject root{{"schemaVersion", 1}, {"notes", notesJson}};
    if (highWaterMark) root.insert(u"highWaterMark", isoDate(*highWaterMark));
    return AtomicFile::replaceContents(notesDirectory + u'/' + fileName, QJsonDocument(root).toJson());
}

GranolaSync::GranolaSync(GranolaClient& client, NoteRepository repository, QString notesDirectory)
    : client_(client), repository_(std::move(repository)), notesDirectory_(std::move(notesDirectory)) {}

GranolaImportReport GranolaSync::run(const Progress& progress) {
    GranolaImportReport report;
    auto manifest = GranolaImportManifest::load(notesDirectory_);
    if (!manifest) {
        report.stoppedBecause = manifest.error().description();
        return report;
    }
    auto listed = client_.listNotes(manifest->highWaterMark);
    if (!listed) {
        report.stoppedBecause = listed.error().description();
        return report;
    }
    std::stable_sort(listed->begin(), listed->end(),
                     [](const GranolaNoteSummary& a, const GranolaNoteSummary& b) { return a.updatedAt < b.updatedAt; });
    std::optional<QDateTime> newest = manifest->highWaterMark;
    int done = 0;
    const int total = static_cast<int>(listed->size());
    for (const GranolaNoteSummary& summary : *listed) {
        if (progress) progress(done, total);
        ++done;
        newest = newest ? std::max(*newest, summary.updatedAt) : summary.updatedAt;
        const auto known = manifest->notes.constFind(summary.id);
        if (known != manifest->notes.cend() && known->updatedAt >= summary.updatedAt) continue;  // already have it

        auto fetched = client_.note(summary.id);
        if (!fetched) {
            if (fetched.error().code() == GranolaError::Code::malformed || fetched.error().code() == GranolaError::Code::notFound) {
                report.failed.emplace_back(summary.title, fetched.error().description());
                continue;
            }
            report.stoppedBecause = fetched.error().description();  // the next run resumes here
            return report;
        }
        const RenderedGranolaNote rendered = renderGranolaNote(*fetched);
        Result<StoredNote> written = fail(Error::notFound(summary.id));
        if (known == manifest->notes.cend()) {
            written = repository_.create(rendered.title, rendered.body, editor(), NoteContentType::markdown, rendered.fields);
            if (written) report.imported.append(written->identifier);
        } else {
            auto current = repository_.read(known->identifier);
            if (!current && current.error().code() == Error::Code::notFound) {
                report.skipped.append(known->identifier);  // the user deleted it: that is their choice
                manifest->notes[summary.id].updatedAt = summary.updatedAt;
                (void)manifest->save(notesDirectory_);
                continue;
            }
            if (current && current->document.revision() == known->revision) {
                written = repository_.update(known->identifier, known->revision, rendered.body, editor(),
                                             NoteContentType::markdown, rendered.fields);
                if (written) report.updated.append(written->identifier);
            }
            if (!written) {
                // Edited in Mossly since the import (or changed while we wrote): keep the user's note as it is.
                auto copy = repository_.create(rendered.title + QStringLiteral(" (Granola update)"), rendered.body,
                                               editor(), NoteContentType::markdown, rendered.fields);
                if (copy) {
                    report.conflictCopies.append(copy->identifier);
                    manifest->notes[summary.id].updatedAt = summary.updatedAt;
                    (void)manifest->save(notesDirectory_);
                    report.folders.emplace_back(copy->identifier, QStringList());
                    continue;
                }
                written = std::move(copy);
            }
        }
        if (!written) {
            report.failed.emplace_back(rendered.title, written.error().description());
            continue;
        }
        QStringList folders;
        for (const auto& [id, name] : fetched->folders) folders.append(id + u'\t' + name);
        report.folders.emplace_back(written->identifier, folders);
        manifest->notes.insert(summary.id, {written->identifier, written->document.revision(), summary.updatedAt});
        if (auto saved = manifest->save(notesDirectory_); !saved) {
            report.stoppedBecause = saved.error().description();
            return report;
        }
    }
    if (progress) progress(total, total);
    // Only a complete run moves the mark: an interrupted one looks at the same notes again.
    if (report.failed.empty()) manifest->highWaterMark = newest;
    if (auto saved = manifest->save(notesDirectory_); !saved) report.stoppedBecause = saved.error().description();
    return report;
}

}  // namespace mossly
