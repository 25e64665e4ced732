#include "PlainNoteEditor.h"

#include <utility>

#include "EditorTextSync.h"
#include "NoteStore.h"

namespace mossly {

PlainNoteEditor::PlainNoteEditor(NoteStore& store, QWidget* parent) : QPlainTextEdit(parent), store_(store) {
    setObjectName(QStringLiteral("noteEditor"));
    setFrameShape(QFrame::NoFrame);
    document()->setDocumentMargin(16);
    connect(this, &QPlainTextEdit::textChanged, this, [this] {
        if (loading_ || url_.isEmpty()) return;
        const QString text = documentText(*document());
        store_.applyEditorChange(url_, std::exchange(shownText_, text), text);
    });
    connect(&store_, &NoteStore::noteContentChanged, this, [this](const QString& url) {
        if (url == url_) reloadText();
    });
}

void PlainNoteEditor::showNote(const QString& url) {
    url_ = url;
    loading_ = true;
    shownText_ = store_.body(url_);
    setPlainText(shownText_);
    loading_ = false;
    setReadOnly(url_.isEmpty());
}

// Another view or the disk changed the note: take its text, keeping the caret on the same words.
void PlainNoteEditor::reloadText() {
    const QString text = store_.body(url_);
    if (text == shownText_) return;  // our own edit coming back
    loading_ = true;
    replaceTextKeepingView(*this, shownText_, text, [this](const QString& after) { setPlainText(after); });
    shownText_ = text;
    loading_ = false;
}

}  // namespace mossly
