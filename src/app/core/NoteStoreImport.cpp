#include <QPointer>

#include "BackgroundTask.h"
#include "Diagnostics.h"
#include "NoteFileImporter.h"
#include "NoteModel.h"
#include "NoteStore.h"

namespace mossly {

void NoteStore::importNoteFiles(const QStringList& paths) {
    (void)flushPendingSaves();  // what cannot be saved now stays pending and is retried
    const std::shared_ptr<NoteFileAccess> files = files_;
    const std::stop_token stop = importStop_.get_token();
    QPointer<NoteStore> self(this);
    const ImportProgress progress = [self](int done, int total) {
        QMetaObject::invokeMethod(QCoreApplication::instance(), [self, done, total] {
            if (self) emit self->importProgress(done, total);
        }, Qt::QueuedConnection);
    };
    runInBackground(
        this, [files, paths, progress, stop] { return mossly::importNoteFiles(files->repository(), paths, progress, stop); },
        [this, files](NoteFileImportReport report) {
            if (files != files_) return;  // the library moved meanwhile
            for (const auto& [file, reason] : report.failures) {
                DiagnosticsCenter::shared().event(QStringLiteral("Note file import failed"),
                                                  {{"file", file}, {"reason", reason}});
            }
            for (const QString& identifier : report.imported) {
                auto stored = files_->read(identifier);
                if (!stored) {
                    DiagnosticsCenter::shared().event(QStringLiteral("Imported note could not be loaded"),
                                                      {{"file", identifier}});
                    continue;
                }
                if (note(stored->url)) continue;  // a scan found it first
                Note imported = noteListEntryFromStored(*stored);
                touch(imported);
                notes_.push_back(std::move(imported));
            }
            sortNotes();
            emit notesChanged();
            refreshSearchIndexInBackground();
            emit importFinished(report);
        });
}

}  // namespace mossly
