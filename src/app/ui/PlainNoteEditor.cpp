#include "PlainNoteEditor.h"

#include "NoteStore.h"

namespace mossly {

PlainNoteEditor::PlainNoteEditor(NoteStore& store, QWidget* parent) : QPlainTextEdit(parent), store_(store) {
    setObjectName(QStringLiteral("noteEditor"));
    setFrameShape(QFrame::NoFrame);
    document()->setDocumentMargin(16);
    connect(this, &QPlainTextEdit::textChanged, this, [this] {
        if (!loading_ && !url_.isEmpty()) store_.setBody(url_, toPlainText());
    });
    connect(&store_, &NoteStore::noteReloaded, this, [this](const QString& url) {
        if (url == url_) reloadText();
    });
}

void PlainNoteEditor::showNote(const QString& url) {
    url_ = url;
    reloadText();
    setReadOnly(url_.isEmpty());
}

void PlainNoteEditor::reloadText() {
    const int position = textCursor().position();
    loading_ = true;
    setPlainText(store_.body(url_));
    loading_ = false;
    QTextCursor cursor = textCursor();
    cursor.setPosition(std::min(position, static_cast<int>(document()->characterCount()) - 1));
    setTextCursor(cursor);
}

}  // namespace mossly
