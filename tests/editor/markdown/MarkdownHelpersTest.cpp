#include <gtest/gtest.h>

#include "HtmlEntities.h"
#include "LinkResolution.h"
#include "MarkdownStyler.h"
#include "TexReplacements.h"

using namespace mossly::markdown;
using namespace Qt::StringLiterals;

namespace {

TEST(TexDisplayText, SymbolsStructuresAndExponents) {
    EXPECT_EQ(texDisplayText(u"a \\pm b \\times c \\cdot d"_s), u"a ± b × c ⋅ d"_s);
    EXPECT_EQ(texDisplayText(u"x \\le y \\ge z \\neq \\infty"_s), u"x ≤ y ≥ z ≠ ∞"_s);
    // A longer command is not cut at a known prefix.
    EXPECT_EQ(texDisplayText(u"\\left( x \\leq y"_s), u"\\left( x ≤ y"_s);
    EXPECT_EQ(texDisplayText(u"\\sqrt{x+1}"_s), u"√(x+1)"_s);
    EXPECT_EQ(texDisplayText(u"\\frac{a+b}{2}"_s), u"(a+b)⁄(2)"_s);
    EXPECT_EQ(texDisplayText(u"\\frac{1}{\\sqrt{\\frac{x}{y}}}"_s), u"(1)⁄(√((x)⁄(y)))"_s);
    EXPECT_EQ(texDisplayText(u"e^{-10} + x^2"_s), u"e⁻¹⁰ + x²"_s);
    // Unbalanced groups are left as typed.
    EXPECT_EQ(texDisplayText(u"\\frac{a}"_s), u"\\frac{a}"_s);
    EXPECT_EQ(texDisplayText(u"\\sqrt{x"_s), u"\\sqrt{x"_s);
}

TEST(HtmlEntities, NamedNumericAndInvalid) {
    EXPECT_EQ(decodeHtmlEntity(u"&amp;"_s), u"&"_s);
    EXPECT_EQ(decodeHtmlEntity(u"&eacute;"_s), u"é"_s);
    EXPECT_EQ(decodeHtmlEntity(u"&#233;"_s), u"é"_s);
    EXPECT_EQ(decodeHtmlEntity(u"&#x1F600;"_s), u"😀"_s);
    EXPECT_EQ(decodeHtmlEntity(u"&#0;"_s), u"\uFFFD"_s);
    EXPECT_EQ(decodeHtmlEntity(u"&#xD800;"_s), u"\uFFFD"_s);
    EXPECT_EQ(decodeHtmlEntity(u"&#99999999999;"_s), u"\uFFFD"_s);
    EXPECT_FALSE(decodeHtmlEntity(u"&nosuch;"_s).has_value());
    EXPECT_FALSE(decodeHtmlEntity(u"&AMP;"_s).has_value());  // names are case-sensitive
    EXPECT_FALSE(decodeHtmlEntity(u"&amp"_s).has_value());
    EXPECT_EQ(decodeHtmlEntities(u"a &lt;b&gt; &nosuch; &amp"_s), u"a <b> &nosuch; &amp"_s);
}

TEST(LinkResolution, RelativeNoteFileAndWebDestinations) {
    const QString directory = u"/home/u/Notes/Work"_s;
    const LinkTarget note = resolveLinkDestination(u"<Plans 2024.md>"_s, directory);
    EXPECT_EQ(note.kind, LinkKind::note);
    EXPECT_EQ(note.localPath, u"/home/u/Notes/Work/Plans 2024.md"_s);
    EXPECT_EQ(note.url, u"file:///home/u/Notes/Work/Plans%202024.md"_s);

    const LinkTarget up = resolveLinkDestination(u"../Other%20Note.markdown#part \"Title\""_s, directory);
    EXPECT_EQ(up.kind, LinkKind::note);
    EXPECT_EQ(up.localPath, u"/home/u/Notes/Other Note.markdown"_s);

    const LinkTarget image = resolveLinkDestination(u"assets/pic.png"_s, directory);
    EXPECT_EQ(image.kind, LinkKind::file);
    EXPECT_EQ(image.localPath, u"/home/u/Notes/Work/assets/pic.png"_s);

    EXPECT_EQ(resolveLinkDestination(u"https://e.com/a?b=1#c"_s, directory),
              (LinkTarget{u"https://e.com/a?b=1#c"_s, {}, LinkKind::web}));
    EXPECT_EQ(resolveLinkDestination(u"mailto:a@b.c"_s, directory).kind, LinkKind::web);
    EXPECT_EQ(resolveLinkDestination(u"file:///tmp/x.md"_s, directory).kind, LinkKind::note);
}

TEST(LinkResolution, FootnoteUrlsCarryTheLabelAndResolveAgainstThePass) {
    // Labels with blanks, slashes, percent signs and non-Latin letters survive the URL.
    const QString label = u"a b/c%d?é#"_s;
    const QString text =
        u"Title\nSee[^"_s + label + u"] and [^2].\n\n[^"_s + label + u"]: One.\n[^2]: Two."_s;
    const StylePass pass = styleMarkdown(text, Presentation::styled, 17, {});
    ASSERT_EQ(pass.footnoteDefinitions.size(), 2u);
    const int reference = static_cast<int>(text.indexOf(u"[^a"_s));
    const int definition = static_cast<int>(text.indexOf(u"[^a"_s, reference + 1));
    const int second = static_cast<int>(text.lastIndexOf(u"[^2]"_s));

    EXPECT_TRUE(footnoteDefinitionUrl(label).startsWith(u"mossly-footnote://definition/"_s));
    EXPECT_EQ(footnoteJumpTarget(pass, QUrl(footnoteDefinitionUrl(label))), definition);
    EXPECT_EQ(footnoteJumpTarget(pass, QUrl(footnoteReferenceUrl(label))), reference);
    EXPECT_EQ(footnoteJumpTarget(pass, QUrl(footnoteDefinitionUrl(u"2"_s))), second);
    EXPECT_EQ(resolveLinkDestination(footnoteDefinitionUrl(u"2"_s), {}).kind, LinkKind::footnote);

    // Unknown labels, other hosts and other schemes go nowhere.
    EXPECT_FALSE(footnoteJumpTarget(pass, QUrl(footnoteDefinitionUrl(u"A B/C%D?É#"_s))).has_value());
    EXPECT_FALSE(footnoteJumpTarget(pass, QUrl(u"mossly-footnote://jump/2"_s)).has_value());
    EXPECT_FALSE(footnoteJumpTarget(pass, QUrl(u"https://definition/2"_s)).has_value());

    // A definition nobody refers to has no way back.
    const StylePass lonely = styleMarkdown(u"T\n[^x]: alone"_s, Presentation::styled, 17, {});
    EXPECT_FALSE(footnoteJumpTarget(lonely, QUrl(footnoteReferenceUrl(u"x"_s))).has_value());
    EXPECT_EQ(footnoteJumpTarget(lonely, QUrl(footnoteDefinitionUrl(u"x"_s))), 2);
}

}  // namespace
