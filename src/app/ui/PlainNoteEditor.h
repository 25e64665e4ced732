#pragma once

#include <QPlainTextEdit>

#include "FormattingHandler.h"

namespace mossly {

class NoteStore;

// A plain-text editor bound to one note of the store: every change goes to
// the store (which saves it, debounced and revision-checked), and a reload
// from disk replaces the text. Markdown notes get Bold and Italic.
class PlainNoteEditor : public QPlainTextEdit, public FormattingHandler {
    Q_OBJECT
public:
    explicit PlainNoteEditor(NoteStore& store, QWidget* parent = nullptr);

    void showNote(const QString& url);
    const QString& noteUrl() const { return url_; }
    bool supportsFormatting() const;

    void applyBold() override { wrapSelection(QStringLiteral("**")); }
    void applyItalic() override { wrapSelection(QStringLiteral("*")); }

private:
    void wrapSelection(const QString& marker);
    void reloadText();

    NoteStore& store_;
    QString url_;
    bool loading_ = false;
};

}  // namespace mossly
