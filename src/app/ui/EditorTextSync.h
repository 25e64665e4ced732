#pragma once

#include <QPlainTextEdit>
#include <QScrollBar>
#include <QTextCursor>
#include <QTextDocument>
#include <type_traits>

#include "TextChangeMapping.h"

namespace mossly {

// The document's text exactly as the user typed it. toPlainText() would turn
// non-breaking spaces into plain ones and change the user's words on save.
inline QString documentText(const QTextDocument& document) {
    QString text = document.toRawText();
    text.replace(QChar::ParagraphSeparator, u'\n');
    return text;
}

// Replaces what a text view shows (`setText(after)`) when the note changed
// under it, keeping the selection and the line at the top of the view on the
// same words: a user reading while an agent edits is not thrown around.
template <typename View, typename SetText>
void replaceTextKeepingView(View& view, const QString& before, const QString& after, SetText setText) {
    const QTextCursor cursor = view.textCursor();
    const int anchor = cursor.anchor();
    const int position = cursor.position();
    const QTextCursor top = view.cursorForPosition(QPoint(0, 0));
    const int topPosition = top.position();
    const int topOffset = view.cursorRect(top).top();

    setText(after);

    const auto mapped = [&](int p) { return static_cast<int>(mapPositionThroughChange(before, after, p)); };
    QTextCursor restored(view.document());
    restored.setPosition(mapped(anchor));
    restored.setPosition(mapped(position), QTextCursor::KeepAnchor);
    view.setTextCursor(restored);
    QTextCursor newTop(view.document());
    newTop.setPosition(mapped(topPosition));
    QScrollBar* bar = view.verticalScrollBar();
    if constexpr (std::is_base_of_v<QPlainTextEdit, View>) {
        bar->setValue(newTop.blockNumber());  // a plain text view scrolls by lines
    } else {
        bar->setValue(bar->value() + view.cursorRect(newTop).top() - topOffset);
    }
}

}  // namespace mossly
