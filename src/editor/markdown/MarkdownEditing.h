#pragma once

#include <QString>
#include <optional>

namespace mossly::markdown {

// A selection as character offsets, start <= end (a caret when equal).
struct TextSelection {
    int start = 0;
    int end = 0;
    bool operator==(const TextSelection&) const = default;
};

// One undoable edit: replace [start, start + length) with `replacement`, then
// select `selection` (offsets in the new text).
struct TextEdit {
    int start = 0;
    int length = 0;
    QString replacement;
    TextSelection selection;
    bool operator==(const TextEdit&) const = default;
};

enum class FormattingAction {
    title, heading, subheading, smallHeading, body, quote, bold, italic, inlineCode,
    bulletedList, numberedList, checklist, codeBlock,
};
QString formattingActionName(FormattingAction action);

// The structural edits of the Markdown editor, as pure functions of the text
// and the selection. Each returns the one edit to make (so it is one undo
// step), or none when the key is not consumed and default behaviour applies.
namespace MarkdownEditing {

inline const QString untitledTitle = QStringLiteral("Untitled Note");
inline const QString indentUnit = QStringLiteral("    ");

// Return: empty-title handling, then list continuation or ending an empty item.
std::optional<TextEdit> insertNewline(const QString& text, TextSelection selection);
// Down on an empty title line: the title becomes "Untitled Note" and the caret moves on.
std::optional<TextEdit> moveDown(const QString& text, TextSelection selection);
// Tab / Shift-Tab on list items of the selected lines; none when no line is a list item.
std::optional<TextEdit> indent(const QString& text, TextSelection selection, bool outdent);
// Delete right after a list marker (outdent or remove the marker), and the
// title's heading marker kept while its text remains.
std::optional<TextEdit> deleteBackward(const QString& text, TextSelection selection);
std::optional<TextEdit> deleteForward(const QString& text, TextSelection selection);
// A formatting-menu command; none when it does not apply.
std::optional<TextEdit> apply(FormattingAction action, const QString& text, TextSelection selection);
// A click on the checkbox of the checklist item on the line containing `position`.
std::optional<TextEdit> toggleChecklist(const QString& text, int position, TextSelection selection);
// A click on the disclosure of the <details> tag that starts at `tagStart`.
std::optional<TextEdit> toggleDetails(const QString& text, int tagStart, TextSelection selection);
// Renumbers runs of ordered items (same indentation, consecutive lines) from
// each run's first number; the selection stays on the same characters.
std::optional<TextEdit> renumberOrderedLists(const QString& text, TextSelection selection);

}  // namespace MarkdownEditing

}  // namespace mossly::markdown
