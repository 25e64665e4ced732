#include <gtest/gtest.h>

#include "MarkdownEditing.h"

namespace mossly::markdown {
namespace {

// Applies an edit and renders the caret/selection into the text as "|" or "[…]".
QString applied(const QString& text, const std::optional<TextEdit>& edit) {
    if (!edit) return QStringLiteral("<not consumed>");
    QString result = text;
    result.replace(edit->start, edit->length, edit->replacement);
    if (edit->selection.start == edit->selection.end) return result.insert(edit->selection.start, u'|');
    return result.insert(edit->selection.end, u']').insert(edit->selection.start, u'[');
}

TextSelection caretAt(const QString& text, const QString& marker = QStringLiteral("|")) {
    const int at = static_cast<int>(text.indexOf(marker));
    return {at, at};
}

// Test texts carry the caret as "|"; this strips it and returns both.
std::pair<QString, TextSelection> withCaret(QString text) {
    const TextSelection caret = caretAt(text);
    text.remove(caret.start, 1);
    return {text, caret};
}

TEST(MarkdownEditing, ReturnContinuesAndEndsLists) {
    struct Case {
        const char* before;
        const char* after;
    };
    const Case cases[] = {
        {"T\n- one|", "T\n- one\n- |"},
        {"T\n  * one|", "T\n  * one\n  * |"},
        {"T\n- [x] done|", "T\n- [x] done\n- [ ] |"},  // a checked item continues unchecked
        {"T\n1. a\n2. b\n3. c|\n4. d", "T\n1. a\n2. b\n3. c\n4. |\n5. d"},
        {"T\n- one\n- |", "T\n- one\n|"},  // an empty item ends the list, no line added
        {"T\n- one\n  - |", "T\n- one\n|"},  // a nested one too, leaving no trailing spaces
        {"T\n    - |", "T\n|"},
        {"T\nplain|", "<not consumed>"},
    };
    for (const Case& c : cases) {
        const auto [text, caret] = withCaret(QString::fromUtf8(c.before));
        EXPECT_EQ(applied(text, MarkdownEditing::insertNewline(text, caret)), QString::fromUtf8(c.after)) << c.before;
    }
}

TEST(MarkdownEditing, EmptyTitleBecomesUntitledNote) {
    EXPECT_EQ(applied(QString(), MarkdownEditing::insertNewline(QString(), {0, 0})),
              QStringLiteral("Untitled Note\n|"));
    EXPECT_EQ(applied(QStringLiteral("\nbody"), MarkdownEditing::moveDown(QStringLiteral("\nbody"), {0, 0})),
              QStringLiteral("Untitled Note\n|body"));
    EXPECT_FALSE(MarkdownEditing::moveDown(QStringLiteral("Title\nbody"), {0, 0}));
}

TEST(MarkdownEditing, TabAndShiftTabMoveItemsAndSelection) {
    const QString text = QStringLiteral("T\n- a\nplain\n- b");
    const TextSelection selection{4, 15};  // from inside "a" to inside "b"
    const auto indented = MarkdownEditing::indent(text, selection, false);
    EXPECT_EQ(applied(text, indented), QStringLiteral("T\n    - [a\nplain\n    - b]"));
    QString once = text;
    once.replace(indented->start, indented->length, indented->replacement);
    EXPECT_EQ(applied(once, MarkdownEditing::indent(once, indented->selection, true)),
              QStringLiteral("T\n- [a\nplain\n- b]"));
    EXPECT_FALSE(MarkdownEditing::indent(QStringLiteral("T\nplain"), {3, 3}, false));  // default Tab
    EXPECT_FALSE(MarkdownEditing::indent(QStringLiteral("T\n- a"), {4, 4}, true));  // nothing to outdent
}

TEST(MarkdownEditing, IndentingRenumbersBothLevels) {
    const auto [text, caret] = withCaret(QStringLiteral("T\n1. a\n2. b|\n3. c"));
    EXPECT_EQ(applied(text, MarkdownEditing::indent(text, caret, false)),
              QStringLiteral("T\n1. a\n    2. b|\n3. c"));
    const QString run = QStringLiteral("T\n1. a\n1. b\n7. c\n\n4. x\n9. y");
    // Only the list holding the caret; the list after the blank line is another list.
    EXPECT_EQ(applied(run, MarkdownEditing::renumberOrderedLists(run, {5, 5})),
              QStringLiteral("T\n1. |a\n2. b\n3. c\n\n4. x\n9. y"));
    EXPECT_FALSE(MarkdownEditing::renumberOrderedLists(run, {0, 0}));
}

TEST(MarkdownEditing, DeleteAtListMarkers) {
    auto [indented, c1] = withCaret(QStringLiteral("T\n    - |item"));
    EXPECT_EQ(applied(indented, MarkdownEditing::deleteBackward(indented, c1)), QStringLiteral("T\n- |item"));
    auto [flat, c2] = withCaret(QStringLiteral("T\n- [ ] |item"));
    EXPECT_EQ(applied(flat, MarkdownEditing::deleteBackward(flat, c2)), QStringLiteral("T\n|item"));
    auto [middle, c3] = withCaret(QStringLiteral("T\n- it|em"));
    EXPECT_FALSE(MarkdownEditing::deleteBackward(middle, c3));
}

TEST(MarkdownEditing, TitleKeepsItsHeadingMarkerWhileTextRemains) {
    auto [title, caret] = withCaret(QStringLiteral("# |Plan\nbody"));
    const auto refused = MarkdownEditing::deleteBackward(title, caret);
    ASSERT_TRUE(refused);
    EXPECT_EQ(applied(title, refused), QStringLiteral("# |Plan\nbody"));  // consumed, nothing changed
    // Removing the whole title line's text with its marker is allowed.
    EXPECT_FALSE(MarkdownEditing::deleteBackward(title, {0, 6}));
    auto [end, caretAtEnd] = withCaret(QStringLiteral("# Plan|"));
    EXPECT_FALSE(MarkdownEditing::deleteBackward(end, caretAtEnd));
}

TEST(MarkdownEditing, LineCommands) {
    const QString lines = QStringLiteral("T\nalpha\n- beta\n3. gamma");
    const TextSelection all{2, static_cast<int>(lines.size())};
    EXPECT_EQ(applied(lines, MarkdownEditing::apply(FormattingAction::numberedList, lines, all)),
              QStringLiteral("T\n[1. alpha\n2. beta\n3. gamma]"));
    EXPECT_EQ(applied(lines, MarkdownEditing::apply(FormattingAction::checklist, lines, all)),
              QStringLiteral("T\n[- [ ] alpha\n- [ ] beta\n- [ ] gamma]"));
    EXPECT_EQ(applied(lines, MarkdownEditing::apply(FormattingAction::codeBlock, lines, all)),
              QStringLiteral("T\n```\n[alpha\n- beta\n3. gamma]\n```"));
    const QString heading = QStringLiteral("## Old");
    EXPECT_EQ(applied(heading, MarkdownEditing::apply(FormattingAction::title, heading, {3, 3})),
              QStringLiteral("[# Old]"));
    EXPECT_EQ(applied(heading, MarkdownEditing::apply(FormattingAction::body, heading, {3, 3})),
              QStringLiteral("[Old]"));
    const QString quoted = QStringLiteral("> a\n> b");
    EXPECT_EQ(applied(quoted, MarkdownEditing::apply(FormattingAction::quote, quoted, {0, 7})),
              QStringLiteral("[a\nb]"));  // quoting quoted lines unquotes them
    // On an empty line the prefix goes in at the caret.
    const QString empty = QStringLiteral("T\n\nx");
    EXPECT_EQ(applied(empty, MarkdownEditing::apply(FormattingAction::bulletedList, empty, {2, 2})),
              QStringLiteral("T\n- |\nx"));
}

TEST(MarkdownEditing, InlineCommandsWrapAndUnwrap) {
    const QString text = QStringLiteral("say hello now");
    const auto bold = MarkdownEditing::apply(FormattingAction::bold, text, {4, 9});
    EXPECT_EQ(applied(text, bold), QStringLiteral("say **[hello]** now"));
    QString wrapped = text;
    wrapped.replace(bold->start, bold->length, bold->replacement);
    EXPECT_EQ(applied(wrapped, MarkdownEditing::apply(FormattingAction::bold, wrapped, bold->selection)),
              QStringLiteral("say [hello] now"));
    // A command that needs a selection does nothing without one.
    for (const auto action : {FormattingAction::inlineCode, FormattingAction::bold, FormattingAction::italic}) {
        EXPECT_FALSE(MarkdownEditing::apply(action, text, {4, 4}));
    }
    // Emphasis composes: italic inside bold adds italic, it does not take the bold away.
    const QString bolded = QStringLiteral("say **hello** now");
    EXPECT_EQ(applied(bolded, MarkdownEditing::apply(FormattingAction::italic, bolded, {6, 11})),
              QStringLiteral("say ***[hello]*** now"));
    const QString both = QStringLiteral("say ***hello*** now");
    EXPECT_EQ(applied(both, MarkdownEditing::apply(FormattingAction::italic, both, {7, 12})),
              QStringLiteral("say **[hello]** now"));
    const QString italic = QStringLiteral("say *hello* now");
    EXPECT_EQ(applied(italic, MarkdownEditing::apply(FormattingAction::bold, italic, {5, 10})),
              QStringLiteral("say ***[hello]*** now"));
}

// Each of these changed or lost the user's characters.
TEST(MarkdownEditing, EditsChangeOnlyWhatTheyAreAbout) {
    // Return renumbers the list being edited, never code or another list.
    const auto [list, caret] = withCaret(QStringLiteral("T\n- milk|\n```\n1. x\n1. y\n```\n\n1. a\n1. b"));
    EXPECT_EQ(applied(list, MarkdownEditing::insertNewline(list, caret)),
              QStringLiteral("T\n- milk\n- |\n```\n1. x\n1. y\n```\n\n1. a\n1. b"));
    const auto [numbered, at] = withCaret(QStringLiteral("T\n1. a|\n1. b\n\ntext\n1. c\n1. d"));
    EXPECT_EQ(applied(numbered, MarkdownEditing::insertNewline(numbered, at)),
              QStringLiteral("T\n1. a\n2. |\n3. b\n\ntext\n1. c\n1. d"));
    // Only a real "open" attribute is toggled.
    const QString opened = QStringLiteral("<details opened>");
    EXPECT_EQ(applied(opened, MarkdownEditing::toggleDetails(opened, 0, {0, 0})),
              QStringLiteral("|<details opened open>"));
    // Converting a checked item keeps its state: only the list marker is replaced.
    const QString checked = QStringLiteral("T\n* [x] done");
    EXPECT_EQ(applied(checked, MarkdownEditing::apply(FormattingAction::bulletedList, checked, {5, 5})),
              QStringLiteral("T\n[- [x] done]"));
    EXPECT_EQ(applied(checked, MarkdownEditing::apply(FormattingAction::checklist, checked, {5, 5})),
              QStringLiteral("T\n[- [x] done]"));
    // "#tag" is a word, not a heading marker to protect.
    const QString tag = QStringLiteral("#tag idea\nbody");
    EXPECT_FALSE(MarkdownEditing::deleteBackward(tag, {1, 1}));
    EXPECT_EQ(applied(tag, MarkdownEditing::apply(FormattingAction::title, tag, {0, 0})), QStringLiteral("[# #tag idea]\nbody"));
    // Return on an empty title with text below moves to it; it adds no line.
    EXPECT_EQ(applied(QStringLiteral("\nbody"), MarkdownEditing::insertNewline(QStringLiteral("\nbody"), {0, 0})),
              QStringLiteral("Untitled Note\n|body"));
    // Tab at the start of an item keeps the caret in front of its character.
    const QString item = QStringLiteral("T\n- a");
    EXPECT_EQ(applied(item, MarkdownEditing::indent(item, {2, 2}, false)), QStringLiteral("T\n    |- a"));
}

TEST(MarkdownEditing, ChecklistAndDetailsToggles) {
    const QString list = QStringLiteral("T\n- [ ] a\n- [X] b");
    EXPECT_EQ(applied(list, MarkdownEditing::toggleChecklist(list, 4, {0, 0})), QStringLiteral("|T\n- [x] a\n- [X] b"));
    EXPECT_EQ(applied(list, MarkdownEditing::toggleChecklist(list, 12, {0, 0})), QStringLiteral("|T\n- [ ] a\n- [ ] b"));
    const QString closed = QStringLiteral("<details>\n<summary>S</summary>\nbody\n</details>");
    EXPECT_EQ(applied(closed, MarkdownEditing::toggleDetails(closed, 0, {0, 0})),
              QStringLiteral("|<details open>\n<summary>S</summary>\nbody\n</details>"));
    const QString open = QStringLiteral("<details class=\"x\" open=\"\">");
    EXPECT_EQ(applied(open, MarkdownEditing::toggleDetails(open, 0, {0, 0})), QStringLiteral("|<details class=\"x\">"));
}

}  // namespace
}  // namespace mossly::markdown
