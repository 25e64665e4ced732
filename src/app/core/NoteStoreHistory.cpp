#include "NoteStoreHistory.h"

#include <QCoreApplication>

#include "Diagnostics.h"
#include "NoteEditor.h"
#include "NoteHistory.h"
#include "NoteStore.h"

namespace mossly {

Result<StoredNote> restoreNoteVersionInApp(NoteStore& store, const QString& url, const QString& revision,
                                           const QString& expectedRevision) {
    const Note* note = store.note(url);
    if (!note) return fail(Error::notFound(url));
    const QString identifier = note->identifier;
    if (store.hasPendingSave(url)) {
        if (auto flushed = store.flushPendingSaves(); !flushed) return fail(flushed.error());
    }
    if (store.conflict(url)) return fail(Error::unsavedEdits());
    auto restored = restoreNoteVersion(store.repository(), identifier, revision, expectedRevision, NoteEditor::human());
    if (!restored) return fail(restored.error());
    DiagnosticsCenter::shared().event(QStringLiteral("Note version restored"));
    (void)store.reloadFromDiskPreservingSelection();
    return restored;
}

QString editorDisplayName(const QString& storedEditor) {
    const NoteEditor editor = NoteEditor::fromStoredValue(storedEditor);
    if (editor.isHuman()) return QCoreApplication::translate("NoteHistory", "You");
    return editor.agentName().isEmpty() ? QCoreApplication::translate("NoteHistory", "An agent") : editor.agentName();
}

}  // namespace mossly
