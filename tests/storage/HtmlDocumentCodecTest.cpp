#include <gtest/gtest.h>

#include <QRegularExpression>

#include "HtmlDocumentCodec.h"

namespace mossly {
namespace {

const HtmlDocumentCodec codec;

NoteDocumentPayload agentPayload() {
    NoteDocumentPayload payload;
    payload.createdBy = NoteEditor::agent(QStringLiteral("scribe"));
    payload.frontMatterFields = {
        {QStringLiteral("meeting-title"), QStringLiteral("Plan \"B\" <draft> & more")},
        {QStringLiteral("meeting-attendees"), QStringList{"Ann", "Bo"}},
        {QStringLiteral("meeting-minutes"), qint64{42}},
        {QStringLiteral("meeting-score"), 2.0},
        {QStringLiteral("meeting-final"), true}};
    return payload;
}

TEST(HtmlDocumentCodec, DecodesOurMetaTagsAndRemovesExactlyThem) {
    const QString text = QStringLiteral(
        "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">"
        "\n<meta name=\"notes-document-kind\" content=\"html\">"
        "\n<meta name=\"notes-created-by\" content=\"agent:a&amp;b\">"
        "\n<meta name=\"notes-last-edited-by\" content=\"human\">"
        "\n<meta name=\"meeting-count\" content=\"3\">"
        "\n<meta name=\"Notes-Created-By\" content=\"agent:wrong-case\">"
        "\n<meta name=\"meeting-\" content=\"x\">"
        "\n<title>T</title>\n</head>\n<body><p>Hi</p>"
        "<META NAME=\"meeting-room\" CONTENT='\"Blue\"'/></body></html>\n");
    const NoteDocumentPayload payload = codec.decode(text);
    EXPECT_TRUE(payload.hadMetadata);
    EXPECT_EQ(payload.createdBy, NoteEditor::agent(QStringLiteral("a&b")));
    EXPECT_EQ(payload.lastEditedBy, NoteEditor::human());
    const NoteFrontMatterFields expected{{QStringLiteral("meeting-count"), qint64{3}},
                                         {QStringLiteral("meeting-room"), QStringLiteral("Blue")}};
    EXPECT_EQ(payload.frontMatterFields, expected);
    EXPECT_TRUE(payload.unrelatedMetadata.isEmpty());
    EXPECT_EQ(payload.body,
              QStringLiteral("<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">"
                             "\n<meta name=\"Notes-Created-By\" content=\"agent:wrong-case\">"
                             "\n<meta name=\"meeting-\" content=\"x\">"
                             "\n<title>T</title>\n</head>\n<body><p>Hi</p></body></html>\n"));
}

TEST(HtmlDocumentCodec, LaterDuplicatesWinAndLookalikesAreNotTags) {
    const QString text = QStringLiteral(
        "<head><meta name=\"notes-created-by\" content=\"agent:first\">"
        "<meta name=\"notes-created-by\" content=\"agent:second\"></head>"
        "<body><!-- <meta name=\"notes-created-by\" content=\"agent:comment\"> -->"
        "<script>var s = '<meta name=\"notes-created-by\" content=\"agent:script\">';</script>"
        "<textarea><meta name=\"notes-last-edited-by\" content=\"agent:text\"></textarea></body>");
    const NoteDocumentPayload payload = codec.decode(text);
    EXPECT_EQ(payload.createdBy, NoteEditor::agent(QStringLiteral("second")));
    EXPECT_FALSE(payload.lastEditedBy.has_value());
    EXPECT_EQ(payload.body,
              QString(text).remove(QRegularExpression(QStringLiteral("<meta[^>]*agent:(first|second)\">"))));
}

TEST(HtmlDocumentCodec, PlainDocumentsStayPlain) {
    const QString text = QStringLiteral("<html><body><p>No metadata</p></body></html>");
    const NoteDocumentPayload payload = codec.decode(text);
    EXPECT_FALSE(payload.hadMetadata);
    EXPECT_EQ(payload.body, text);
    EXPECT_EQ(codec.encode(payload.body, std::nullopt, payload), text);
    // Once a document carried metadata it keeps it, even with a human creator and nothing else.
    NoteDocumentPayload carried = payload;
    carried.hadMetadata = true;
    EXPECT_EQ(codec.encode(text, std::nullopt, carried),
              QStringLiteral("<html>\n<head>\n<meta name=\"notes-document-kind\" content=\"html\">"
                             "\n<meta name=\"notes-created-by\" content=\"human\">\n</head>"
                             "<body><p>No metadata</p></body></html>"));
}

TEST(HtmlDocumentCodec, EncodesIntoTheHeadOrAHeadOfItsOwn) {
    NoteDocumentPayload payload;
    payload.createdBy = NoteEditor::agent(QStringLiteral("a"));
    const QString tags = QStringLiteral(
        "\n<meta name=\"notes-document-kind\" content=\"html\">"
        "\n<meta name=\"notes-created-by\" content=\"agent:a\">"
        "\n<meta name=\"notes-last-edited-by\" content=\"agent:b\">");
    const auto editor = NoteEditor::agent(QStringLiteral("b"));
    struct Case {
        QString body;
        QString expected;
    };
    const Case cases[] = {
        {QStringLiteral("<html><HEAD id=\"h\"><title>x</title></HEAD><body>b</body></html>"),
         QStringLiteral("<html><HEAD id=\"h\">") + tags +
             QStringLiteral("<title>x</title></HEAD><body>b</body></html>")},
        {QStringLiteral("<!doctype html><html lang=\"de\"><body>b</body></html>"),
         QStringLiteral("<!doctype html><html lang=\"de\">\n<head>") + tags +
             QStringLiteral("\n</head><body>b</body></html>")},
        {QStringLiteral("<!DOCTYPE html>\n<title>x</title><p>b"),
         QStringLiteral("<!DOCTYPE html>\n<head>") + tags +
             QStringLiteral("\n</head>\n<title>x</title><p>b")},
        {QStringLiteral("<p>fragment</p>"),
         QStringLiteral("<head>") + tags + QStringLiteral("\n</head>\n<p>fragment</p>")},
        {QString(), QStringLiteral("<head>") + tags + QStringLiteral("\n</head>\n")},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.body.toStdString());
        EXPECT_EQ(codec.encode(c.body, editor, payload), c.expected);
    }
}

TEST(HtmlDocumentCodec, RoundTrips) {
    const QString bodies[] = {
        QString(),
        QStringLiteral("plain text, no tags at all"),
        QStringLiteral("<p>fragment</p>\n"),
        QStringLiteral(
            "<!DOCTYPE html>\r\n<html>\r\n<head>\r\n<title>CRLF</title>\r\n</head>\r\n<body>x</body>"),
        QStringLiteral("<html><head></head><body></body></html>"),
        QStringLiteral("<html>\n<head>\n</head>\n<body>an author's own empty head</body></html>"),
        QStringLiteral("<head>\n</head>\n<p>the same, at the start</p>"),
        QStringLiteral("<!doctype html>"),
        QStringLiteral("<html"),
        QStringLiteral(
            "\n\n<head><meta name=\"viewport\" content=\"w\"></head><body>caf\u00e9 \U0001F600</body>"),
        QStringLiteral("text<html lang=\"en\"><head><title>late</title></head>"),
        QStringLiteral("<svg><head></head></svg><table><head></table>"),
    };
    const NoteDocumentPayload payloads[] = {agentPayload(), [] {
                                                NoteDocumentPayload p;
                                                p.hadMetadata = true;
                                                p.lastEditedBy =
                                                    NoteEditor::agent(QStringLiteral("q\"<&>\r\n'"));
                                                return p;
                                            }()};
    for (const NoteDocumentPayload& payload : payloads) {
        for (const QString& body : bodies) {
            SCOPED_TRACE(body.toStdString());
            const QString text = codec.encode(body, std::nullopt, payload);
            const NoteDocumentPayload decoded = codec.decode(text);
            EXPECT_EQ(decoded.body, body);
            EXPECT_TRUE(decoded.hadMetadata);
            EXPECT_EQ(decoded.createdBy, payload.createdBy);
            EXPECT_EQ(decoded.lastEditedBy, payload.lastEditedBy);
            EXPECT_EQ(decoded.frontMatterFields, payload.frontMatterFields);
            EXPECT_EQ(codec.encode(decoded.body, std::nullopt, decoded), text);
        }
    }
}

TEST(HtmlDocumentCodec, EncodeWritesOnlyThePayload) {
    NoteDocumentPayload payload;
    payload.createdBy = NoteEditor::agent(QStringLiteral("new"));
    payload.frontMatterFields = {{QStringLiteral("tags"), QStringLiteral("x")},
                                 {QStringLiteral("meeting-a"), QStringLiteral("y")}};
    // Tags left in the body would be read back after ours and override them.
    const QString stale = QStringLiteral(
        "<html><head>\n<meta name=\"notes-created-by\" content=\"agent:old\">\n</head>"
        "<body><meta name=\"meeting-stale\" content=\"1\"></body></html>");
    const QString text = codec.encode(stale, std::nullopt, payload);
    EXPECT_EQ(text.count(QStringLiteral("notes-created-by")), 1);
    const NoteDocumentPayload decoded = codec.decode(text);
    EXPECT_EQ(decoded.createdBy, payload.createdBy);
    // Only "meeting-" fields are carried: others would not read back as fields.
    EXPECT_EQ(decoded.frontMatterFields,
              (NoteFrontMatterFields{{QStringLiteral("meeting-a"), QStringLiteral("y")}}));
    EXPECT_EQ(decoded.body, QStringLiteral("<html><head>\n</head><body></body></html>"));
}

TEST(HtmlDocumentCodec, MalformedInputNeverFails) {
    QString binary;
    for (int i = 0; i < 512; ++i) binary += QChar(static_cast<char16_t>((i * 7919) % 0xD7FF));
    QString deep;
    for (int i = 0; i < 100000; ++i) deep += QStringLiteral("<table><td>");
    const QString inputs[] = {
        QString(),
        QStringLiteral("<"),
        QStringLiteral("<meta name=\"notes-created-by\" content=\"agent:x\""),
        QStringLiteral("<meta name=notes-created-by content=agent:x"),
        QString::fromUtf8("</head></head><head><html></html>\0\0<body", 40),
        QStringLiteral("<![CDATA[<meta name=\"notes-created-by\">]]><!--"),
        QStringLiteral("<svg><meta name=\"notes-created-by\" content=\"agent:svg\"/></svg>"),
        // Foreign content in tables that makes the parser abort when it sees it as such.
        QStringLiteral("<table><svg><select><title><select><td>"),
        QStringLiteral("<table><MATH><annotation-xml encoding=text/html><![CDATA[</nobr>]]>"),
        binary,
        deep,
    };
    for (const QString& input : inputs) {
        const NoteDocumentPayload payload = codec.decode(input);
        (void)codec.visibleText(payload);
        NoteDocumentPayload withEditor = payload;
        withEditor.createdBy = NoteEditor::agent(QStringLiteral("x"));
        EXPECT_EQ(codec.decode(codec.encode(payload.body, std::nullopt, withEditor)).createdBy,
                  withEditor.createdBy);
    }
    EXPECT_EQ(codec.decode(inputs[2]).body, inputs[2]);
    EXPECT_FALSE(codec.decode(inputs[2]).hadMetadata);
}

TEST(HtmlDocumentCodec, VisibleText) {
    NoteDocumentPayload payload;
    payload.body = QStringLiteral(
        "<html><head><title>Not shown</title><style>p{}</style></head><body>\n"
        "  <h1>Title   &amp;  more</h1>\n"
        "  <p>One <b>bold</b>\n   line<br>Second&nbsp;line</p>\n"
        "  <script>hidden()</script><noscript>hidden</noscript><template><p>hidden</p></template>\n"
        "  <ul><li>a</li><li> b </li></ul>\n"
        "  <table><tr><td>c1</td><td>c2</td></tr></table>\n"
        "  <pre>\n  code  here\n\n  more</pre>inline <!-- comment -->tail\n"
        "</body></html>");
    EXPECT_EQ(codec.visibleText(payload),
              QStringLiteral("Title & more\nOne bold line\nSecond\u00a0line\na\nb\nc1 c2\n"
                             "code  here\nmore\ninline tail"));
    payload.body = QStringLiteral("just text");
    EXPECT_EQ(codec.visibleText(payload), QStringLiteral("just text"));
    payload.body.clear();
    EXPECT_EQ(codec.visibleText(payload), QString());
}

}  // namespace
}  // namespace mossly
