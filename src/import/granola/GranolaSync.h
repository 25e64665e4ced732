#pragma once

#include <QDateTime>
#include <QHash>
#include <QStringList>
#include <functional>
#include <optional>

#include "GranolaClient.h"
#include "NoteRepository.h"

namespace mossly {

// What Mossly remembers of earlier imports, in ".granola-import.json" in the
// notes folder: each Granola note's Mossly identifier, the revision Mossly
// wrote and the Granola update it came from, and the high-water mark of the
// last complete run.
struct GranolaImportManifest {
    struct Entry {
        QString identifier;
        QString revision;
        QDateTime updatedAt;
    };
    static inline const QString fileName = QStringLiteral(".granola-import.json");

    std::optional<QDateTime> highWaterMark;
    QHash<QString, Entry> notes;  // by Granola note id

    static Result<GranolaImportManifest> load(const QString& notesDirectory);
    Result<void> save(const QString& notesDirectory) const;
};

struct GranolaImportReport {
    QStringList imported;        // identifiers of new notes
    QStringList updated;         // notes rewritten with Granola's newer version
    QStringList conflictCopies;  // newer versions written beside notes the user had edited
    QStringList skipped;         // Granola notes whose Mossly note the user deleted
    std::vector<std::pair<QString, QString>> failed;  // Granola title, reason
    std::optional<QString> stoppedBecause;           // a run that could not finish
    std::vector<std::pair<QString, QStringList>> folders;  // identifier, Granola folders ("id\tname")
};

// One import run: lists what changed since the last complete run, fetches
// each note, and writes it through the repository as "agent:granola" with
// revision checks. A note the user edited in Mossly since it was imported is
// never overwritten: Granola's new version goes beside it as a copy. Progress
// is saved after every note, so an interrupted run resumes where it stopped.
class GranolaSync {
public:
    using Progress = std::function<void(int done, int total)>;
    GranolaSync(GranolaClient& client, NoteRepository repository, QString notesDirectory);

    GranolaImportReport run(const Progress& progress = {});

    static NoteEditor editor() { return NoteEditor::agent(QStringLiteral("granola")); }

private:
    GranolaClient& client_;
    NoteRepository repository_;
    QString notesDirectory_;
};

}  // namespace mossly
