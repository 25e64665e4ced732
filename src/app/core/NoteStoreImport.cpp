#include "BackgroundTask.h"
#include "Diagnostics.h"
#include "NoteFileImporter.h"
#include "NoteModel.h"
#include "NoteStore.h"

namespace mossly {

void NoteStore::importNoteFiles(const QStringList& paths) {
    (void)flushPendingSaves();
    const NoteRepository repository = repository_;
    runInBackground(
        this, [repository, paths] { return mossly::importNoteFiles(repository, paths); },
        [this](NoteFileImportReport report) {
            for (const auto& [file, reason] : report.failures) {
                DiagnosticsCenter::shared().event(QStringLiteral("Note file import failed"),
                                                  {{"file", file}, {"reason", reason}});
            }
            for (const QString& identifier : report.imported) {
                auto stored = repository_.read(identifier);
                if (!stored) {
                    DiagnosticsCenter::shared().event(QStringLiteral("Imported note could not be loaded"),
                                                      {{"file", identifier}});
                    continue;
                }
                if (!note(stored->url)) notes_.push_back(noteFromStored(*stored));
            }
            sortNotes();
            emit notesChanged();
            refreshSearchIndexInBackground();
            emit importFinished(report);
        });
}

}  // namespace mossly
