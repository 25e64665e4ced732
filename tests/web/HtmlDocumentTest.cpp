#include <gtest/gtest.h>

#include <QRandomGenerator>

#include "HtmlDocument.h"
#include "QtPrinting.h"

namespace mossly::html {
namespace {

QString bodyOf(const QByteArray& page) {
    HtmlDocument document(page);
    return document.innerHTML(document.body());
}

QString fragment(const char* markup) {
    return bodyOf(QByteArray("<body>") + markup);
}

// Markup and what the serialiser must write for it.
using Written = std::pair<const char*, const char16_t*>;

void expectWritten(std::initializer_list<Written> cases) {
    for (const auto& [markup, expected] : cases) EXPECT_EQ(fragment(markup), QStringView(expected)) << markup;
}

TEST(HtmlSerialiser, EscapesTextAndAttributeValuesSoNothingBecomesMarkup) {
    EXPECT_EQ(fragment("a &amp; b &lt;c&gt; d&nbsp;e"), u"a &amp; b &lt;c&gt; d&nbsp;e");
    EXPECT_EQ(fragment(R"(<p title='say "hi" &amp; <b>&nbsp;'>x</p>)"),
              u"<p title=\"say &quot;hi&quot; &amp; &lt;b&gt;&nbsp;\">x</p>");
    // An attribute holding a closing tag stays a value even where a browser reads <noscript> as raw text.
    EXPECT_EQ(fragment(R"(<noscript><p title="</noscript><img src=x onerror=alert(1)>"></p></noscript>)"),
              u"<noscript><p title=\"&lt;/noscript&gt;&lt;img src=x onerror=alert(1)&gt;\"></p></noscript>");
}

TEST(HtmlSerialiser, WritesRawTextVoidElementsTemplatesAndComments) {
    expectWritten({
        {"<style>p > a { content: \"&amp;\" }</style>", u"<style>p > a { content: \"&amp;\" }</style>"},
        {"<xmp><b>&amp;</b></xmp>", u"<xmp><b>&amp;</b></xmp>"},
        {"<textarea><b>&amp;</textarea>", u"<textarea>&lt;b&gt;&amp;</textarea>"},
        {"a<br>b<img src=x.png><hr/><input></input>", u"a<br>b<img src=\"x.png\"><hr><input>"},
        {"<template><td>cell</td><b>x</b></template>", u"<template><td>cell</td><b>x</b></template>"},
        {"<!-- note -- here --><p>x</p>", u"<!-- note -- here --><p>x</p>"},
    });
}

TEST(HtmlSerialiser, ForeignContentKeepsItsNamesAndEscapesWhatABrowserReadsAsMarkup) {
    expectWritten({
        {"<SVG viewBox='0 0 1 1'><path d='M0'/><path d='M1'/></SVG>",
         u"<svg viewbox=\"0 0 1 1\"><path d=\"M0\"/><path d=\"M1\"/></svg>"},
        {"<math><mi>x</mi></MATH>", u"<math><mi>x</mi></math>"},
        // What follows a self-closed element stays outside it, and outside the <svg>.
        {"<svg><g><circle r='1'/><polygon points='0,0 1,1'/></g><path "
         "d='M0'/></svg><p>after</p><style>a>b{}</style>",
         u"<svg><g><circle r=\"1\"/><polygon points=\"0,0 1,1\"/></g><path d=\"M0\"/></svg><p>after</p>"
         u"<style>a>b{}</style>"},
        // In <svg>, <style> is an element with markup inside: its text is escaped.
        {"<svg><style>a>b{}</style></svg>", u"<svg><style>a&gt;b{}</style></svg>"},
        // A browser that has left the <svg> (after a <b>) reads <style/> as raw text up to </style>: the
        // text stays text and the end tag is written, so no reading can end it elsewhere.
        {"<svg><b><style/></b></svg><!-- </style><i>",
         u"<svg><b><style>&lt;/b&gt;&lt;/svg&gt;&lt;!-- </style><i></i></b></svg>"},
        // The parser saw <image> as <img>; inside <svg> the author's name is written.
        {"<svg><image href='a.png'/></svg>", u"<svg><image href=\"a.png\"/></svg>"},
        // CDATA is a comment outside foreign content, escaped so it cannot end early.
        {"<svg><![CDATA[</svg><b>]]></svg>", u"<svg><!--[CDATA[&lt;/svg--><b>]]&gt;</b></svg>"},
    });
}

TEST(HtmlSerialiser, SvgAndMathInsideTextsStayAsTheAuthorWroteThem) {
    EXPECT_EQ(fragment("<p title='<svg> and </MATH>'>&lt;svg&gt; <!-- <svg> --></p>"),
              u"<p title=\"&lt;svg&gt; and &lt;/MATH&gt;\">&lt;svg&gt; <!-- <svg> --></p>");
    EXPECT_EQ(bodyOf("<title><svg></title><body><style>/* </svg> */</style>"),
              u"<style>/* </svg> */</style>");
    HtmlDocument document("<title>a <svg> b</title>");
    EXPECT_EQ(document.innerHTML(document.head()), u"<title>a &lt;svg&gt; b</title>");
}

TEST(HtmlSerialiser, NoscriptContentCannotEndTheNoscriptElement) {
    const QString html = fragment(
        "<noscript><!-- </noscript><img src=x onerror=y> --><style></noscript><i></style>"
        "</noscript>");
    EXPECT_EQ(html.count(u"</noscript"), html.count(u"<noscript"));
    EXPECT_FALSE(html.contains(u"<img"));
    EXPECT_FALSE(html.contains(u"<i>"));
}

TEST(HtmlDocument, SelectsRemovesAndReadsText) {
    HtmlDocument document(
        "<head><meta http-equiv=refresh content=1><meta charset=utf-8><link rel=IMPORT href=a><link "
        "rel=stylesheet>"
        "</head><body><div id=a>one <b>two</b><script>three</script></div><div>four</div>");
    const auto selected =
        document.select(document.root(), parseSelectorList("meta[http-equiv], link[rel=import], b"));
    ASSERT_EQ(selected.size(), 3u);
    EXPECT_EQ(document.tagName(selected[0]), "meta");
    EXPECT_EQ(document.tagName(selected[1]), "link");
    const GumboNode* firstDiv = document.select(document.body(), parseSelectorList("div")).front();
    EXPECT_EQ(document.text(firstDiv), u"one twothree");
    document.remove(selected[2]);
    document.removeAttribute(document.attributes(firstDiv).front().source);
    EXPECT_EQ(document.text(firstDiv), u"one three");
    EXPECT_EQ(document.innerHTML(document.body()), u"<div>one <script>three</script></div><div>four</div>");
    EXPECT_TRUE(document.select(document.body(), parseSelectorList("b")).empty());
}

TEST(HtmlDocument, DeepNestingNeedsNoStack) {
    const int depth = 100000;
    QByteArray deep = "<body>";
    for (int i = 0; i < depth; ++i) deep += "<span>";
    deep += "x";
    HtmlDocument document(deep);
    const QString html = document.innerHTML(document.body());
    EXPECT_EQ(html.count(u"<span>"), depth);
    EXPECT_EQ(html.count(u"</span>"), depth);
    EXPECT_EQ(document.elements(document.body()).size(), size_t(depth) + 1);
    EXPECT_EQ(document.text(document.body()), u"x");
}

// Random well-formed markup (no foreign content: there the parser reads HTML
// rules, so <style> in <svg> reads differently from a browser).
QByteArray generatedMarkup(QRandomGenerator& random) {
    static const char* const blocks[] = {"div class=\"a b\"", "blockquote", "ul", "table", "p", "h2", "pre",
                                         "template",          "style"};
    static const char* const inlines[] = {"b", "i", "span title='x \"y\" &amp; <z>'", "a href=\"#top\"",
                                          "em"};
    static const char* const leaves[] = {"text",     " & ",  "&lt;tag&gt;",          "&nbsp;",
                                         "\xC3\xA9", "<br>", "<img alt=\"&nbsp;\">", "<!-- comment -->",
                                         "\n"};
    struct Open {
        QByteArray name;
        bool takesBlocks;
        bool inLink;
    };
    std::vector<Open> open{{"body", true, false}};
    QByteArray markup;
    const auto push = [&](const QByteArray& tag, bool takesBlocks) {
        markup += '<' + tag + '>';
        open.push_back({tag.left(tag.indexOf(' ')), takesBlocks, open.back().inLink || tag.startsWith("a ")});
    };
    for (int step = random.bounded(1, 60); step > 0; --step) {
        const int choice = random.bounded(10);
        if (choice < 2 && open.back().takesBlocks) {
            const QByteArray block = blocks[random.bounded(int(std::size(blocks)))];
            if (block == "ul")
                markup += "<ul>", open.push_back({"ul", false, open.back().inLink}), push("li", true);
            else if (block == "table") {
                markup += "<table><tbody><tr>";
                open.push_back({"table", false, false});
                open.push_back({"tbody", false, false});
                open.push_back({"tr", false, false});
                push("td", true);
            } else if (block == "pre" && random.bounded(2))
                markup += "<pre>\n\nx</pre>";
            else if (block == "style")
                markup += "<style>p>b{}</style>";
            else
                push(block, block == "div class=\"a b\"" || block == "blockquote" || block == "template");
        } else if (choice < 4) {
            const QByteArray tag = inlines[random.bounded(int(std::size(inlines)))];
            if (!(tag.startsWith("a ") && open.back().inLink)) push(tag, false);
        } else if (choice < 8) {
            markup += leaves[random.bounded(int(std::size(leaves)))];
        } else if (open.size() > 1) {
            markup += "</" + open.back().name + '>';
            open.pop_back();
        }
    }
    while (open.size() > 1) markup += "</" + open.back().name + '>', open.pop_back();
    if (random.bounded(2)) markup += "<style>p > b { content: \"&\" }</style>";
    return markup;
}

TEST(HtmlSerialiser, SerialisedDocumentsParseBackToTheSameTree) {
    QRandomGenerator random(13);
    for (int round = 0; round < 500; ++round) {
        const QByteArray markup = generatedMarkup(random);
        const QString once = bodyOf("<body>" + markup);
        const QString twice = bodyOf("<body>" + once.toUtf8());
        ASSERT_EQ(once, twice) << markup.constData();
    }
}

TEST(HtmlSerialiser, InvalidUtf8IsReadAsReplacementCharacters) {
    EXPECT_EQ(bodyOf("<body><p title=\"\xff\">\xfe\xc3</p>"), u"<p title=\"\uFFFD\">\uFFFD\uFFFD</p>");
}

}  // namespace
}  // namespace mossly::html
