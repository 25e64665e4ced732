#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>
#include <random>
#include <QTextBlock>
#include <QAbstractTextDocumentLayout>
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

// Numbers and checkboxes are drawn at their own width in place of their
// characters; wrapped lines still start under the item's text.
TEST_F(MarkdownTextViewTest, WrappedNumberedAndChecklistItemsHangUnderTheirText) {
    view.resize(320, 500);
    const QString body = QStringLiteral("the charts, the tide table, rain jackets, the camera and something to read");
    for (const QString& marker : {QStringLiteral("1. "), QStringLiteral("- [ ] "), QStringLiteral("- [x] ")}) {
        view.setMarkdown(QStringLiteral("Title\n") + marker + body, {});
        test::spin(30);
        const QTextBlock block = view.document()->findBlockByNumber(1);
        ASSERT_GT(block.layout()->lineCount(), 1);
        const auto x = [&](int position) {
            QTextCursor cursor(view.document());
            cursor.setPosition(position);
            return view.cursorRect(cursor).left();
        };
        const int textStart = block.position() + static_cast<int>(marker.size());
        EXPECT_NEAR(x(block.position() + block.layout()->lineAt(1).textStart()), x(textStart), 3) << marker.toStdString();
    }
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

// Clicking a link to a local file that is not a note shows its folder; the
// file itself (a script, a launcher) is never handed to the desktop.
TEST_F(MarkdownTextViewTest, LinksToLocalFilesShowTheirFolderAndNeverOpenTheFile) {
    QTemporaryDir notes;
    QFile script(notes.filePath(QStringLiteral("install.sh")));
    ASSERT_TRUE(script.open(QIODevice::WriteOnly));
    script.write("#!/bin/sh\ntouch ran\n");
    script.close();
    script.setPermissions(script.permissions() | QFile::ExeOwner);
    QFile launcher(notes.filePath(QStringLiteral("update.desktop")));
    ASSERT_TRUE(launcher.open(QIODevice::WriteOnly));
    launcher.write("[Desktop Entry]\nType=Application\nExec=touch ran\n");
    launcher.close();
    QStringList opened;  // what the desktop was asked to open
    view.setUrlOpener([&](const QUrl& url) {
        opened.append(url.toString());
        return true;
    });
    QStringList refusals;
    QObject::connect(&view, &MarkdownTextView::refusedLink, [&](const QString& message) { refusals.append(message); });
    view.setNotesFolder(notes.path());
    const QString text = QStringLiteral("Links\n\n[Install](install.sh)\n\n[Update](update.desktop)\n\n[Shell](/bin/sh)");
    view.setMarkdown(text, notes.filePath(QStringLiteral("Links.md")));
    const auto click = [&](const QString& label) {
        QTextCursor at(view.document());
        at.setPosition(static_cast<int>(text.indexOf(label)) + 2);
        QTest::mouseClick(view.viewport(), Qt::LeftButton, {}, view.cursorRect(at).center() + QPoint(3, 0));
    };
    click(QStringLiteral("Install"));
    click(QStringLiteral("Update"));
    const QString notesFolder = QUrl::fromLocalFile(QDir(notes.path()).canonicalPath()).toString();
    EXPECT_EQ(opened, QStringList({notesFolder, notesFolder}));
    opened.clear();
    click(QStringLiteral("Shell"));
    EXPECT_TRUE(opened.isEmpty()) << "outside the notes folder";
    EXPECT_EQ(refusals.size(), 1);
    EXPECT_EQ(view.markdown(), text);
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

TEST_F(MarkdownTextViewTest, TableColumnsAlignAsTheirDelimitersSayAndIgnoreHiddenMarkers) {
    const QString text = QStringLiteral(
        "Title\n| Left | Middle | Right |\n|:---|:---:|---:|\n| **wide bold cell** | x | 1 |\n| a | centred text | 12345 |");
    view.setMarkdown(text, {});
    test::spin(20);
    const auto x = [&](int position) {
        QTextCursor cursor(view.document());
        cursor.setPosition(position);
        return view.cursorRect(cursor).left();
    };
    const auto cellStart = [&](const QString& cell) { return x(static_cast<int>(text.indexOf(cell))); };
    const auto cellEnd = [&](const QString& cell) { return x(static_cast<int>(text.indexOf(cell) + cell.size())); };
    const auto middle = [&](int from, int to) { return (x(from) + x(to)) / 2; };
    const int one = static_cast<int>(text.indexOf("| 1 |")) + 2;
    const int cross = static_cast<int>(text.indexOf("| x |")) + 2;
    // Left: starts line up. Right: ends line up. Centre: middles line up.
    EXPECT_NEAR(cellStart("Left"), cellStart("a |"), 1.5);
    EXPECT_NEAR(cellEnd("Right"), cellEnd("12345"), 1.5);
    EXPECT_NEAR(x(one + 1), cellEnd("12345"), 1.5);
    const double middleOfHeader = (cellStart("Middle") + cellEnd("Middle")) / 2;
    EXPECT_NEAR(middle(cross, cross + 1), middleOfHeader, 1.5);
    EXPECT_NEAR((cellStart("centred text") + cellEnd("centred text")) / 2, middleOfHeader, 1.5);
    // The bold cell's hidden asterisks take no room: the next column starts right
    // after its drawn text plus the cell padding, not four asterisks later.
    const double boldEnd = cellEnd("wide bold cell");
    const double nextColumn = std::min(cellStart("Middle"), cellStart("centred text"));
    EXPECT_LT(nextColumn - boldEnd, QFontMetricsF(view.font()).horizontalAdvance(u' ') * 2 + 1.5);
}

TEST_F(MarkdownTextViewTest, AClosedDetailsBlockTakesNoHeightAndOpeningItShowsTheBody) {
    const QString closed = QStringLiteral("Title\n<details>\n<summary>More</summary>\n\nhidden line one\n\nhidden line two\n</details>\nafter");
    view.setMarkdown(closed, {});
    test::spin(20);
    const auto top = [&](const QString& needle) {
        QTextCursor cursor(view.document());
        cursor.setPosition(static_cast<int>(view.markdown().indexOf(needle)));
        return view.cursorRect(cursor).top();
    };
    const double line = QFontMetricsF(view.font()).lineSpacing();
    const double collapsed = top("after") - top("<summary>");
    EXPECT_LT(collapsed, line * 2.5) << "only the summary line (and the closing tag's) stands between";
    QString open = closed;
    open.replace("<details>", "<details open>");
    view.setMarkdown(open, {});
    test::spin(20);
    EXPECT_GT(top("after") - top("<summary>"), collapsed + line * 3);
    EXPECT_EQ(view.markdown(), open);
}

TEST_F(MarkdownTextViewTest, CodeSitsInsideItsPanelByTheInset) {
    view.setMarkdown(QStringLiteral("Title\nbefore\n```\nlet x = 1\n```\nafter"), {});
    test::spin(20);
    const auto* panel = firstObject(DrawnKind::codePanel);
    ASSERT_TRUE(panel);
    EXPECT_DOUBLE_EQ(panel->inset, 12 * 13.0 / 17.0) << "the inset scales with the text size";
    const auto x = [&](const QString& needle) {
        QTextCursor cursor(view.document());
        cursor.setPosition(static_cast<int>(view.markdown().indexOf(needle)));
        return view.cursorRect(cursor).left();
    };
    EXPECT_NEAR(x("let") - x("before"), panel->inset, 1);
    const auto rect = [&](const QString& needle) {
        QTextCursor cursor(view.document());
        cursor.setPosition(static_cast<int>(view.markdown().indexOf(needle)));
        return view.cursorRect(cursor);
    };
    // The hidden fence gives the panel room above the code, and the line before keeps a gap from the panel.
    const double gap = QFontMetricsF(view.font()).height() * 0.4;
    EXPECT_NEAR(rect("let").top() - rect("before").bottom(), panel->inset / 2 + gap, 1.5);
    EXPECT_NEAR(rect("after").top() - rect("let").bottom(), panel->inset / 2 + gap, 1.5);
    // Plain lines next to each other keep no such gap.
    EXPECT_NEAR(rect("before").top() - rect("Title").bottom(), 0, 1.5);
}

// Renders the drawn rules the way a user sees them; with MOSSLY_SCREENSHOT_DIR
// set, the pictures are kept for the README and for looking at.
TEST_F(MarkdownTextViewTest, ListsTablesAndScriptsAsDrawn) {
    view.resize(620, 560);
    view.setBaseSize(15);
    view.setMarkdown(QStringLiteral(
        "Packing list\n"
        "- pack the charts, the tide table, rain jackets, the camera and something to read on the ferry\n"
        "  - a second level item that is long enough to wrap under its own text as well\n"
        "1. ordered items wrap the same way when their text runs past the edge of the view\n\n"
        "| Item | Count | Price |\n|:---|:---:|---:|\n| **Rain jacket** | 2 | 89.00 |\n| Tide table | 1 | 4.50 |\n"
        "| Charts | 12 | 120.00 |\n\n"
        "Water is H~2~O and the area is r^2^ times pi.\n\n```\nlet x = 1\n```\n"), {});
    test::spin(50);
    const QImage picture = view.viewport()->grab().toImage();
    ASSERT_FALSE(picture.isNull());
    const QRgb background = picture.pixel(picture.width() - 2, picture.height() - 2);
    int inked = 0;
    for (int y = 0; y < picture.height(); y += 3) {
        for (int x = 0; x < picture.width(); x += 3) inked += picture.pixel(x, y) != background;
    }
    EXPECT_GT(inked, 500) << "text, bullets and the table grid are drawn";
    if (const QByteArray dir = qgetenv("MOSSLY_SCREENSHOT_DIR"); !dir.isEmpty()) {
        picture.save(QString::fromLocal8Bit(dir) + QStringLiteral("/markdown-drawing.png"));
    }
}

}  // namespace
}  // namespace mossly

namespace mossly {
namespace {

// Everything the view put on one block: its character formats, paragraph format and visibility.
QString describeBlock(const QTextBlock& block) {
    QString description = QStringLiteral("visible=%1 ").arg(block.isVisible());
    const QTextBlockFormat paragraph = block.blockFormat();
    description += QStringLiteral("margins=%1,%2,%3,%4,%5 line=%6/%7 align=%8 |")
                       .arg(paragraph.leftMargin())
                       .arg(paragraph.rightMargin())
                       .arg(paragraph.textIndent())
                       .arg(paragraph.topMargin())
                       .arg(paragraph.bottomMargin())
                       .arg(paragraph.lineHeight())
                       .arg(paragraph.lineHeightType())
                       .arg(int(paragraph.alignment() & Qt::AlignHorizontal_Mask));
    for (const QTextLayout::FormatRange& range : block.layout()->formats()) {
        description += QStringLiteral(" [%1+%2 ").arg(range.start).arg(range.length);
        const QMap<int, QVariant> properties = range.format.properties();
        for (auto it = properties.cbegin(); it != properties.cend(); ++it) {
            description += QStringLiteral("%1=%2;").arg(it.key()).arg(it.value().toString());
        }
        description += u']';
    }
    return description;
}

// Typing restyles only what an edit can change; what the user then sees must be
// exactly what a note opened with the same text shows. Random edits, including
// the constructs that reach beyond their line, each compared with a fresh view.
TEST(MarkdownTextViewIncremental, EveryEditLeavesTheViewAsAFreshlyOpenedNoteWouldBe) {
    const QString start = QStringLiteral(
        "# Harbour plan\n\nIntro with **bold**, `code`, a [link](https://example.com) and a note[^1].\n"
        "Soft line two.\n\n- item one\n- [ ] task\n- [x] done\n1. first\n2. second\n\n> quoted\n> > nested\n\n"
        "```swift\nlet x = 1\n```\n\n$$\nx^2\n$$\n\n| a | b |\n|:--|--:|\n| 1 | 2 |\n\n"
        "<details><summary>More</summary>\nhidden body\n</details>\n\n"
        "Text with $m$ and &amp; and \\*escaped\\*.\n\n[^1]: The footnote.\n[ref]: https://example.org\n"
        "Use [ref] here.\n\n---\n\nLast line.");
    const QStringList insertions = {
        QStringLiteral("a"), QStringLiteral(" "), QStringLiteral("\n"), QStringLiteral("**"), QStringLiteral("`"),
        QStringLiteral("```\n"), QStringLiteral("$$\n"), QStringLiteral("| x | y |\n"), QStringLiteral("|---|---|\n"),
        QStringLiteral("<details><summary>S</summary>\n"), QStringLiteral("</details>\n"), QStringLiteral("[^1]: def\n"),
        QStringLiteral("[ref]: https://x.test\n"), QStringLiteral("- "), QStringLiteral("> "), QStringLiteral("# "),
        QStringLiteral("\n\n"), QStringLiteral("[^2]"), QStringLiteral("&lt;"), QStringLiteral("$y$"),
    };
    // MOSSLY_VIEW_EDIT_SEEDS runs more seeds for a longer hunt.
    const int seeds = std::max(3, qEnvironmentVariableIntValue("MOSSLY_VIEW_EDIT_SEEDS"));
    for (int seed = 0; seed < seeds; ++seed) {
        MarkdownTextView typed;
        typed.resize(700, 500);
        typed.setMarkdown(start, {});
        MarkdownTextView opened;
        opened.resize(700, 500);
        std::mt19937 random(20261123 + seed);
        for (int step = 0; step < 300; ++step) {
            const int length = typed.document()->characterCount() - 1;
            QTextCursor cursor(typed.document());
            const int at = std::uniform_int_distribution<int>(0, length)(random);
            cursor.setPosition(at);
            if (random() % 3 == 0 && length > 0) {
                const int count = std::uniform_int_distribution<int>(1, std::min(12, length - std::min(at, length - 1)))(random);
                cursor.setPosition(std::min(at, length - 1));
                cursor.setPosition(std::min(length, std::min(at, length - 1) + count), QTextCursor::KeepAnchor);
                cursor.removeSelectedText();
            } else {
                cursor.insertText(insertions[static_cast<qsizetype>(random() % insertions.size())]);
            }
            const QString text = typed.markdown();
            opened.setMarkdown(text, {});
            ASSERT_EQ(typed.document()->blockCount(), opened.document()->blockCount());
            QTextBlock mine = typed.document()->begin();
            QTextBlock theirs = opened.document()->begin();
            for (; mine.isValid(); mine = mine.next(), theirs = theirs.next()) {
                ASSERT_EQ(describeBlock(mine), describeBlock(theirs))
                    << "seed " << seed << ", step " << step << ", block " << mine.blockNumber() << " \"" << mine.text().toStdString()
                    << "\" in:\n" << text.toStdString();
            }
        }
    }
}

}  // namespace
}  // namespace mossly
