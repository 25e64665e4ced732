#include <gtest/gtest.h>

#include <QTest>
#include <QTextBlock>
#include <QTextLayout>

#include "AppTestSupport.h"
#include "MarkdownTextView.h"

namespace mossly {
namespace {

using markdown::DrawnKind;

class MarkdownTextViewTest : public ::testing::Test {
protected:
    MarkdownTextView view;
    void SetUp() override {
        view.resize(700, 500);
        view.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    }
    void placeCaret(int position) {
        QTextCursor cursor = view.textCursor();
        cursor.setPosition(position);
        view.setTextCursor(cursor);
    }
    const markdown::DrawnObject* firstObject(DrawnKind kind) const {
        for (const auto& object : view.stylePass().objects) {
            if (object.kind == kind) return &object;
        }
        return nullptr;
    }
};

TEST_F(MarkdownTextViewTest, NonBreakingSpacesSurviveTyping) {
    const QString text = QStringLiteral("It is 10\u00A0km away");
    view.setMarkdown(text, {});
    QString edited;
    QObject::connect(&view, &MarkdownTextView::markdownEdited, [&](const QString& t) { edited = t; });
    placeCaret(static_cast<int>(text.size()));
    QTest::keyClicks(&view, QStringLiteral("!"));
    EXPECT_EQ(edited, text + u'!');
    EXPECT_EQ(view.markdown(), text + u'!');
}

TEST_F(MarkdownTextViewTest, WrappedListItemsHangUnderTheirText) {
    view.resize(320, 500);
    const QString item = QStringLiteral("- pack the charts, the tide table, rain jackets, the camera and something to read");
    view.setMarkdown(QStringLiteral("Title\n") + item, {});
    test::spin(50);
    const QTextBlock block = view.document()->findBlockByNumber(1);
    ASSERT_GT(block.layout()->lineCount(), 1) << "the item should wrap at this width";
    const int textStart = block.position() + 2;  // after "- "
    const int secondLineStart = block.position() + block.layout()->lineAt(1).textStart();
    const auto x = [&](int position) {
        QTextCursor cursor(view.document());
        cursor.setPosition(position);
        return view.cursorRect(cursor).left();
    };
    EXPECT_NEAR(x(secondLineStart), x(textStart), 3) << "wrapped lines align with the item's text";
    EXPECT_NEAR(x(block.position()), x(0), 3) << "the first line is not pushed right";
}

TEST_F(MarkdownTextViewTest, SuperAndSubscriptsUseTheirOwnSizeAndOffset) {
    view.setBaseSize(17);
    view.setMarkdown(QStringLiteral("Title\nx^2^ and H~2~O"), {});
    const QTextBlock block = view.document()->findBlockByNumber(1);
    // The styling lives in the layout's formats: the text itself is never formatted.
    const auto charFormat = [&](int offset) {
        QTextCharFormat merged;
        for (const QTextLayout::FormatRange& range : block.layout()->formats()) {
            if (range.start <= offset && offset < range.start + range.length) merged.merge(range.format);
        }
        return merged;
    };
    const QTextCharFormat sup = charFormat(2);   // the "2" of x^2^
    const QTextCharFormat sub = charFormat(11);  // the "2" of H~2~O
    EXPECT_NEAR(sup.font().pointSizeF(), 13.0, 0.01);
    EXPECT_EQ(sup.verticalAlignment(), QTextCharFormat::AlignNormal) << "no second shrink by Qt";
    EXPECT_NEAR(sup.baselineOffset(), 100.0 * 5 / 13, 0.1);
    EXPECT_NEAR(sub.baselineOffset(), -100.0 * 3 / 13, 0.1);
}

TEST_F(MarkdownTextViewTest, StylingNeverChangesTheText) {
    const QString text = QStringLiteral("# Title\n\n**bold** _it_ `code` &amp; $x^2$\n\n```\n*raw*\n```\n| a | b |\n|---|---|\n| 1 | 2 |\n");
    view.setMarkdown(text, {});
    EXPECT_EQ(view.markdown(), text);
    view.setPresentation(markdown::Presentation::source);
    EXPECT_EQ(view.markdown(), text);
    for (const auto& run : view.stylePass().runs) EXPECT_FALSE(run.attributes.hidden);  // source hides nothing
    view.setPresentation(markdown::Presentation::styled);
    EXPECT_EQ(view.markdown(), text);
    EXPECT_EQ(view.document()->availableUndoSteps(), 0);  // styling is not an edit
}

TEST_F(MarkdownTextViewTest, ReturnContinuesListsAsOneUndoStep) {
    view.setMarkdown(QStringLiteral("Title\n- [x] done"), {});
    placeCaret(static_cast<int>(view.markdown().size()));
    QTest::keyClick(view.viewport(), Qt::Key_Return);
    EXPECT_EQ(view.markdown(), QStringLiteral("Title\n- [x] done\n- [ ] "));
    QTest::keyClicks(view.viewport(), QStringLiteral("next"));
    view.undo();  // typing
    EXPECT_EQ(view.markdown(), QStringLiteral("Title\n- [x] done\n- [ ] "));
    view.undo();  // the continuation
    EXPECT_EQ(view.markdown(), QStringLiteral("Title\n- [x] done"));
}

TEST_F(MarkdownTextViewTest, CaretStepsOverHiddenMarkers) {
    view.setMarkdown(QStringLiteral("Title\nsay **bold** now"), {});
    placeCaret(10);  // just before "**bold**"
    QTest::keyClick(view.viewport(), Qt::Key_Right);
    // It must not stop between the two hidden asterisks.
    EXPECT_NE(view.textCursor().position(), 11);
    placeCaret(18);  // just after "bold**"
    QTest::keyClick(view.viewport(), Qt::Key_Left);
    EXPECT_NE(view.textCursor().position(), 17);
}

TEST_F(MarkdownTextViewTest, ClickingACheckboxTogglesIt) {
    view.setMarkdown(QStringLiteral("Title\n- [ ] task"), {});
    const auto* box = firstObject(DrawnKind::checkbox);
    ASSERT_TRUE(box);
    QTextCursor at(view.document());
    at.setPosition(box->start);
    const QPoint point = view.cursorRect(at).center() + QPoint(6, 0);
    QTest::mouseClick(view.viewport(), Qt::LeftButton, {}, point);
    EXPECT_EQ(view.markdown(), QStringLiteral("Title\n- [x] task"));
    view.undo();
    EXPECT_EQ(view.markdown(), QStringLiteral("Title\n- [ ] task"));
}

TEST_F(MarkdownTextViewTest, FormattingCommandsAreUndoable) {
    view.setMarkdown(QStringLiteral("Title\nalpha\nbeta"), {});
    QTextCursor cursor = view.textCursor();
    cursor.setPosition(6);
    cursor.setPosition(16, QTextCursor::KeepAnchor);
    view.setTextCursor(cursor);
    view.applyFormatting(markdown::FormattingAction::numberedList);
    EXPECT_EQ(view.markdown(), QStringLiteral("Title\n1. alpha\n2. beta"));
    ASSERT_TRUE(firstObject(DrawnKind::orderedNumber));
    view.undo();
    EXPECT_EQ(view.markdown(), QStringLiteral("Title\nalpha\nbeta"));
    // Paragraph formats follow the text through undo without breaking redo.
    ASSERT_TRUE(view.document()->isRedoAvailable());
    view.redo();
    EXPECT_EQ(view.markdown(), QStringLiteral("Title\n1. alpha\n2. beta"));
    EXPECT_GT(view.document()->findBlockByNumber(1).blockFormat().leftMargin(), 0);
}

}  // namespace
}  // namespace mossly
