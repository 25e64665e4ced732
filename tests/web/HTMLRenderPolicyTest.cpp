#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <array>

#include "HTMLReferencePolicy.h"
#include "HTMLRenderPolicy.h"
#include "HtmlDocument.h"
#include "QtPrinting.h"

namespace mossly {
using namespace Qt::StringLiterals;
namespace {

QString body(const QString& markup, const QUrl& noteURL = {}) {
    return HTMLRenderPolicy::prepareFragment(markup, noteURL);
}
// Markup, what is left of it, and how many elements and attributes went.
struct Cleaned {
    QString markup;
    QString expected;
    int blocked;
};

void expectCleaned(std::initializer_list<Cleaned> cases) {
    for (const Cleaned& c : cases) {
        const auto result = HTMLRenderPolicy::prepare(u"<body>"_s + c.markup);
        EXPECT_EQ(result.bodyHTML, c.expected) << qPrintable(c.markup);
        EXPECT_EQ(result.blockedElements, c.blocked) << qPrintable(c.markup);
    }
}

int blocked(const QString& markup, const QUrl& noteURL = {}) {
    return HTMLRenderPolicy::prepare(u"<body>"_s + markup, noteURL).blockedElements;
}

TEST(HTMLRenderPolicy, BuildsThePageAroundTheCleanedHeadAndBody) {
    const auto result = HTMLRenderPolicy::prepare(
        u"<html><head><title>T</title><meta http-equiv=\"refresh\" content=\"0;url=https://x\"></head>"
        "<body class=\"dark &quot;x&quot;\" onload=\"go()\" data-v=1><p>Hi</p><script>go()</script></body></html>"_s);
    EXPECT_EQ(result.headHTML, u"<title>T</title>");
    EXPECT_EQ(result.bodyHTML, u"<p>Hi</p>");
    EXPECT_EQ(result.bodyAttributes,
              (QMap<QString, QString>{{u"class"_s, u"dark \"x\""_s}, {u"data-v"_s, u"1"_s}}));
    EXPECT_EQ(result.styleSheet, HTMLRenderPolicy::styleSheet());
    EXPECT_EQ(result.blockedElements, 2);  // the script and onload; the note's own policy is replaced
    EXPECT_EQ(
        result.html,
        u"<!doctype html><html><head><meta http-equiv=\"Content-Security-Policy\" content=\"default-src "
        u"'none'; "
        "img-src data: file:; media-src file: data:; style-src 'unsafe-inline'; font-src data: file:; "
        "connect-src 'none'; frame-src 'none'; object-src 'none'; form-action 'none'; base-uri 'none'\">"
        "<style>:root{color-scheme:light dark}body{margin:0;padding:22px 8px;font:17px -apple-system,"
        "BlinkMacSystemFont,sans-serif;line-height:1.55;color:CanvasText;background:transparent}img{max-"
        "width:"
        "100%;height:auto}pre,code{font-family:ui-monospace,SFMono-Regular,monospace}a{color:-apple-system-"
        "link}"
        "</style><title>T</title></head><body class=\"dark &quot;x&quot;\" data-v=\"1\"><p>Hi</p></body></html>"_s);
}

TEST(HTMLRenderPolicy, SourceThatCannotBeParsedIsShownAsEscapedText) {
    const QString source = u"<p class=\"a\">x & y</p>"_s;
    const auto result = HTMLRenderPolicy::prepare(source, {}, 10);
    EXPECT_EQ(result, HTMLRenderPolicy::textPage(source));
    EXPECT_EQ(result.html,
              u"<!doctype html><html><head></head><body><pre>&lt;p class=\"a\"&gt;x &amp; y&lt;/p&gt;</pre>"
              "</body></html>"_s);
    EXPECT_EQ(result.blockedElements, 0);
    EXPECT_EQ(HTMLRenderPolicy::prepare(source, {}, source.size()).bodyHTML, u"<p class=\"a\">x &amp; y</p>");
}

TEST(HTMLRenderPolicy, RemovesActiveContentCountingEveryElement) {
    EXPECT_EQ(
        body(
            u"<form><input><button>b</button><select><option>o</option></select><textarea>t</textarea></form>"
            "<iframe src=a.html></iframe><object data=a.swf><embed src=a.swf></object><base href=/>"
            "<link rel=import href=a.html><link rel=stylesheet href=a.css><p>kept</p>"_s),
        u"<link rel=\"stylesheet\"><p>kept</p>");  // no note location: a.css is blocked too
    EXPECT_EQ(blocked(u"<form><input><button>b</button><select><option>o</option></select></form>"_s), 5);
    EXPECT_EQ(body(u"<svg><script>alert(1)</script><a xlink:href=\"javascript:alert(1)\">x</a></svg>"_s),
              u"<svg><a>x</a></svg>");
    EXPECT_EQ(body(u"<template><script>x</script><img src=https://a onerror=y></template>"_s),
              u"<template><img></template>");
    EXPECT_EQ(body(u"<noscript><img src=\"http://a/b.png\"></noscript>"_s), u"<noscript><img></noscript>");
}

TEST(HTMLRenderPolicy, RemovesRemoteLoadsAndKeepsInlineOnes) {
    expectCleaned({
        {u"<img src=\"https://example.com/a.png\"><img src=\"data:image/png;base64,iVBO\">"_s,
         u"<img><img src=\"data:image/png;base64,iVBO\">"_s, 1},
        {u"<p style=\"background:url('http://x/a.png')\">a</p><p style=\"background:url(a.png)\">b</p>"_s,
         u"<p>a</p><p style=\"background:url(a.png)\">b</p>"_s, 1},
        {u"<style>@import 'x.css';</style><style>p{color:red}</style><style>b { background: URL( \"HTTPS://x\") }</style>"_s,
         u"<style>p{color:red}</style>"_s, 2},
        // What the CSS parser reads counts, not its spelling.
        {u"<style>@\\69 mport 'x.css';</style><p style=\"background:url(h\\74 tp://x/a.png)\">a</p>"
         "<p style='background-image:image-set(\"https://x/a.png\" 1x)'>b</p><p style='content:\"\\\\\"'>c</p>"_s,
         u"<p>a</p><p>b</p><p style=\"content:&quot;\\\\&quot;\">c</p>"_s, 3},
    });
    for (const char* remote :
         {"HTTP://x/a.png", "ftp://x/a", "wss://x", " https://x", "//x/a.png", "\\\\x\\a.png"})
        EXPECT_EQ(body(QString::fromUtf8(remote).prepend(u"<video poster=\"").append(u"\"></video>")),
                  u"<video></video>")
            << remote;
}

TEST(HTMLRenderPolicy, RemovesScriptURLsHoweverTheyAreSpelled) {
    const char* const spellings[] = {"javascript:alert(1)",
                                     "JaVaScRiPt:alert(1)",
                                     "&#106;avascript:alert(1)",
                                     "java\tscript:alert(1)",
                                     "java&#x0A;scr&#x0D;ipt:alert(1)",
                                     "&#x01; javascript:alert(1)",
                                     "javascript&colon;alert(1)",
                                     "vbscript:x",
                                     "data:text/html,<script>x</script>",
                                     "data:text/html;base64,PHNjcmlwdD4=",
                                     "DATA: Text/HTML ;charset=utf-8,x",
                                     "data:application/xhtml+xml,x",
                                     "data:image/svg+xml,<svg onload=x>"};
    for (const char* spelling : spellings) {
        const QString markup = u"<a href=\""_s + QString::fromUtf8(spelling) + u"\">x</a>"_s;
        EXPECT_EQ(body(markup), u"<a>x</a>") << spelling;
        EXPECT_EQ(blocked(markup), 1) << spelling;
    }
    EXPECT_EQ(
        body(u"<button formaction=javascript:x>b</button><a href=mailto:a@b.c>m</a><a href=#top>t</a>"_s),
        u"<a href=\"mailto:a@b.c\">m</a><a href=\"#top\">t</a>");
    EXPECT_EQ(
        body(
            u"<svg><set attributeName=href to=javascript:alert(1) /><animate values=\"#a;javascript:x\"/></svg>"_s),
        u"<svg><set attributename=\"href\"/><animate/></svg>");
}

TEST(HTMLRenderPolicy, RemovesEventHandlersAndOtherReferences) {
    expectCleaned({
        {u"<details open ontoggle=x><summary onclick=\"y\" ONMOUSEOVER=z>s</summary></details>"_s,
         u"<details open=\"\"><summary>s</summary></details>"_s, 3},
        {u"<img srcset=\"a.png 1x, https://x/b.png 2x\"><a ping=\"#a https://x\">p</a>"
         "<table background=\"http://x/t.png\"></table><iframe srcdoc=\"<p>\"></iframe>"_s,
         u"<img><a>p</a><table></table>"_s, 4},
        {u"<p srcdoc=x onclick=y>p</p>"_s, u"<p>p</p>"_s, 2},
    });
    EXPECT_EQ(HTMLReferencePolicy::srcsetURLs(u"data:image/png;base64,a,b 1x,c.png 2x, d.png,e.png (x, y)"_s),
              (QStringList{u"data:image/png;base64,a,b"_s, u"c.png"_s, u"d.png,e.png"_s}));
}

// A notes folder beside a folder that must stay out of reach.
class HTMLFileReferences : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(root.isValid());
        ASSERT_TRUE(QDir(root.path()).mkpath(u"notes/img"_s));
        ASSERT_TRUE(QDir(root.path()).mkpath(u"notes2"_s));
        ASSERT_TRUE(QDir(root.path()).mkpath(u"outside"_s));
        ASSERT_TRUE(QFile::link(root.filePath(u"outside"_s), root.filePath(u"notes/escape"_s)));
        ASSERT_TRUE(QFile::link(root.filePath(u"notes"_s), root.filePath(u"linked-notes"_s)));
        noteURL = QUrl::fromLocalFile(root.filePath(u"notes/note.html"_s));
    }
    bool kept(const QString& reference, const QUrl& note) {
        return body(u"<img src=\""_s + reference.toHtmlEscaped() + u"\">"_s, note) != u"<img>";
    }
    bool kept(const QString& reference) { return kept(reference, noteURL); }
    QString fileURL(const QString& relative) {
        return QUrl::fromLocalFile(root.filePath(relative)).toString();
    }

    QTemporaryDir root;
    QUrl noteURL;
};

TEST_F(HTMLFileReferences, FilesInTheNotesFolderAreKept) {
    for (const QString& reference :
         {u"img/a.png"_s, u"./img/../img/a.png"_s, u"missing/x.png"_s, u"img%2Fa.png"_s, u"a.png?x=1#y"_s,
          fileURL(u"notes/img/a.png"_s), u"file://localhost"_s + root.filePath(u"notes/a.png"_s),
          u"img\\a.png"_s})
        EXPECT_TRUE(kept(reference)) << qPrintable(reference);
}

TEST_F(HTMLFileReferences, FilesOutsideTheNotesFolderAreBlocked) {
    for (const QString& reference :
         {u"../outside/a.png"_s, u"img/../../outside/a.png"_s, u"%2e%2e/outside/a.png"_s,
          u".%2E/outside/a.png"_s, u"img%2f..%2f..%2foutside/a.png"_s, u"..\\outside\\a.png"_s,
          u"/etc/passwd"_s, u"../notes2/a.png"_s, fileURL(u"notes2/a.png"_s), fileURL(u"outside/a.png"_s),
          u"file:///etc/passwd"_s, u"file://server/share/a.png"_s, u"file:img/a.png"_s, u"escape/a.png"_s,
          u"img/%00/a.png"_s, u"img/"_s + QString(5000, u'a')})
        EXPECT_FALSE(kept(reference)) << qPrintable(reference);
}

TEST_F(HTMLFileReferences, AFolderReachedThroughALinkIsTheSameFolder) {
    const QUrl linkedNote = QUrl::fromLocalFile(root.filePath(u"linked-notes/note.html"_s));
    EXPECT_TRUE(kept(u"img/a.png"_s, linkedNote));
    EXPECT_TRUE(kept(fileURL(u"notes/img/a.png"_s), linkedNote));
    EXPECT_FALSE(kept(u"escape/a.png"_s, linkedNote));
    EXPECT_TRUE(kept(fileURL(u"linked-notes/img/a.png"_s)));
}

TEST_F(HTMLFileReferences, WithoutANoteLocationOnlyFragmentsStay) {
    EXPECT_FALSE(kept(u"img/a.png"_s, {}));
    EXPECT_FALSE(kept(fileURL(u"notes/img/a.png"_s), {}));
    // A note on another machine has no folder here.
    EXPECT_FALSE(kept(u"img/a.png"_s, QUrl(u"file://server"_s + root.filePath(u"notes/note.html"_s))));
    EXPECT_FALSE(kept(u"img/a.png"_s, QUrl(u"https://example.com/notes/note.html"_s)));
    EXPECT_EQ(body(u"<a href=\"#part\">p</a>"_s), u"<a href=\"#part\">p</a>");
}

// Reads the page without the parser's own help for self-closed SVG elements,
// as a browser outside <svg> does (where <style/> starts raw text), and checks
// that nothing active is left.
void expectInert(const QString& html, const QString& markup) {
    static const std::array active = {GUMBO_TAG_SCRIPT, GUMBO_TAG_IFRAME, GUMBO_TAG_FRAME, GUMBO_TAG_OBJECT,
                                      GUMBO_TAG_EMBED,  GUMBO_TAG_FORM,   GUMBO_TAG_BASE};
    const html::ParsedHtml reparsed(html.toUtf8());
    html::forEachElement(reparsed.document(), [&](const GumboNode* element) {
        EXPECT_EQ(std::count(active.begin(), active.end(), element->v.element.tag), 0)
            << qPrintable(markup) << "\n"
            << qPrintable(html);
        const GumboVector& attributes = element->v.element.attributes;
        for (unsigned i = 0; i < attributes.length; ++i) {
            const auto* attribute = static_cast<const GumboAttribute*>(attributes.data[i]);
            EXPECT_FALSE(QByteArray(attribute->name).startsWith("on")) << qPrintable(markup) << "\n"
                                                                       << qPrintable(html);
            EXPECT_FALSE(HTMLReferencePolicy::runsScript(QString::fromUtf8(attribute->value), true))
                << qPrintable(markup);
        }
    });
}

// A browser running scripts reads <noscript> as raw text, as the parser always reads <noembed>.
QString withNoscriptAsRawText(QString html) {
    return html.replace(u"<noscript"_s, u"<noembed"_s, Qt::CaseInsensitive)
        .replace(u"</noscript"_s, u"</noembed"_s, Qt::CaseInsensitive);
}

// Hostile pieces; whatever their mix, nothing active survives preparation, however <noscript> is read.
TEST(HTMLRenderPolicy, GeneratedHostileMarkupComesOutInert) {
    static const char* const pieces[] = {"<script>alert(1)</script>",
                                         "<svg>",
                                         "</svg>",
                                         "<math>",
                                         "<mtext>",
                                         "<table>",
                                         "<mglyph>",
                                         "<style>",
                                         "</style>",
                                         "<noscript>",
                                         "</noscript>",
                                         "<p title=\"</noscript><img src=x onerror=alert(1)>\">",
                                         "<!-- </noscript><img src=x onerror=alert(1)> -->",
                                         "<!-- </style><img src=x onerror=alert(1)> -->",
                                         "<!-- </title><img src=x onerror=alert(1)> -->",
                                         "<![CDATA[",
                                         "]]>",
                                         "<a href=\"java&#x09;script:x\">",
                                         "<img src=x onerror=alert(1)>",
                                         "<iframe srcdoc=\"<script>x</script>\">",
                                         "<template>",
                                         "</template>",
                                         "<image href=javascript:x>",
                                         "<xmp>",
                                         "</xmp>",
                                         "<b>",
                                         "</p>",
                                         "\"",
                                         "'",
                                         ">",
                                         "<",
                                         "<path/>",
                                         "<style/>",
                                         "<textarea/>",
                                         "<p/>",
                                         "<noscript/>",
                                         "<title/>",
                                         "</style/>"};
    QRandomGenerator random(4);
    for (int round = 0; round < 1000; ++round) {
        QString markup;
        for (int i = random.bounded(1, 25); i > 0; --i)
            markup += QString::fromUtf8(pieces[random.bounded(int(std::size(pieces)))]);
        const QString page = HTMLRenderPolicy::prepare(markup).html;
        expectInert(page, markup);
        expectInert(withNoscriptAsRawText(page), markup);
    }
}

TEST(HTMLRenderPolicy, DeeplyNestedAndInvalidInputIsPrepared) {
    QString deep;
    for (int i = 0; i < 100000; ++i) deep += u"<svg>"_s;
    const QString cleaned = body(deep + u"<script>x</script>"_s);
    EXPECT_EQ(cleaned.count(u"<svg>"), 100000);
    EXPECT_FALSE(cleaned.contains(u"script"));
    EXPECT_EQ(body(QString::fromUtf8("<p>\xff\xfe</p>")), u"<p>\uFFFD\uFFFD</p>");
}

}  // namespace
}  // namespace mossly
