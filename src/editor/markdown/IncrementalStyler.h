#pragma once

#include <QHash>
#include <QString>

#include "MarkdownStyle.h"

namespace mossly::markdown {

struct StyleChange {
    TextRange restyled;  // in the new text's coordinates
};

// Keeps a note's styling pass up to date as the note is edited. After every call,
// pass() equals styleMarkdown() over the same text; an edit restyles only the lines
// it can affect and reports them, and everything outside that range is the previous
// pass with positions after the edit shifted by its length change (only the index of
// a drawn code panel or table may be renumbered). Whatever the edit cannot be shown
// to leave alone, and every edit in the source presentation, restyles the whole note.
class IncrementalStyler {
  public:
    IncrementalStyler(Presentation presentation, double baseSize, QString noteDirectory,
                      QString noteFilePath = {});

    // A full pass: on opening, reloading or a settings change.
    const StylePass& restyle(const QString& text);

    // `removed` characters at `position` were replaced by `added` ones; `text` is the new text.
    StyleChange update(const QString& text, int position, int removed, int added);

    const StylePass& pass() const { return pass_; }

  private:
    StyleChange restyleWhole(const QString& text);
    bool restyleInsideCode(const QString& text, int position, int removed, int added, TextRange& restyled);
    bool restyleLines(const QString& text, int position, int removed, int added, TextRange& restyled);

    Presentation presentation_;
    double baseSize_;
    QString noteDirectory_;
    QString noteFilePath_;
    QString text_;  // as last given
    StylePass pass_;
    QHash<QString, QString> linkDefinitions_;  // of the last full pass; edits never touch them
    bool styled_ = false;
};

}  // namespace mossly::markdown
