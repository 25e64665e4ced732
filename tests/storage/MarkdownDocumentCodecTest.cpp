#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "MarkdownDocumentCodec.h"

namespace mossly {
namespace {

const MarkdownDocumentCodec codec;

TEST(MarkdownDocumentCodec, DecodesEditorsAndBody) {
    const auto payload = codec.decode(QStringLiteral("---\nnotes-created-by: agent:codex\n---\nHello"));
    EXPECT_EQ(payload.createdBy, NoteEditor::agent(QStringLiteral("codex")));
    EXPECT_FALSE(payload.lastEditedBy.has_value());
    EXPECT_EQ(payload.body, QStringLiteral("Hello"));
    EXPECT_TRUE(payload.hadMetadata);
}

TEST(MarkdownDocumentCodec, BlockBoundaries) {
    // Only the first closing delimiter ends the block; the body keeps later ones.
    auto payload = codec.decode(QStringLiteral("---\nmeeting-x: 1\n---\nA\n---\nB\n"));
    EXPECT_EQ(payload.body, QStringLiteral("A\n---\nB\n"));
    // No closing delimiter: everything is body.
    payload = codec.decode(QStringLiteral("---\nnotes-created-by: agent:a\nno end"));
    EXPECT_FALSE(payload.hadMetadata);
    EXPECT_EQ(payload.body, QStringLiteral("---\nnotes-created-by: agent:a\nno end"));
    EXPECT_TRUE(payload.createdBy.isHuman());
    // Two rules at the top are body: the closing line must come after the opening line.
    payload = codec.decode(QStringLiteral("---\n---\nbody"));
    EXPECT_FALSE(payload.hadMetadata);
    EXPECT_EQ(payload.body, QStringLiteral("---\n---\nbody"));
    // Body is taken exactly, leading blank lines included.
    EXPECT_EQ(codec.decode(QStringLiteral("---\nmeeting-a: 1\n---\n\n\n  x ")).body, QStringLiteral("\n\n  x "));
}

TEST(MarkdownDocumentCodec, ValueGrammar) {
    using V = NoteFrontMatterValue;
    struct Case {
        const char* text;
        V expected;
    };
    const Case cases[] = {
        {"true", V(true)},
        {"false", V(false)},
        {"True", V(QStringLiteral("True"))},
        {"007", V(qint64{7})},
        {"+5", V(qint64{5})},
        {"-12", V(qint64{-12})},
        {"9223372036854775807", V(qint64{9223372036854775807LL})},
        {"9223372036854775808", V(9223372036854775808.0)},  // overflows Int64: a double
        {"1e3", V(1000.0)},
        {"0.5", V(0.5)},
        {"-2.0", V(-2.0)},
        {"1.5x", V(QStringLiteral("1.5x"))},
        {"[\"a\", \"b\"]", V(QStringList{"a", "b"})},
        {"[]", V(QStringList{})},
        {"[1, 2]", V(QStringLiteral("[1, 2]"))},
        {"[broken", V(QStringLiteral("[broken"))},
        {"\"true\"", V(QStringLiteral("true"))},
        {"\"a\\/b \\u00e9\\n\"", V(QStringLiteral("a/b \u00e9\n"))},
        {"\"unterminated", V(QStringLiteral("\"unterminated"))},
        {"\"a\", \"b\"", V(QStringLiteral("\"a\", \"b\""))},
        {"plain text: with colon", V(QStringLiteral("plain text: with colon"))},
        {"", V(QString())},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(MarkdownDocumentCodec::value(QString::fromUtf8(c.text)), c.expected) << c.text;
    }
}

TEST(MarkdownDocumentCodec, WrittenValues) {
    using V = NoteFrontMatterValue;
    EXPECT_EQ(MarkdownDocumentCodec::writtenValue(V(2.0)), QStringLiteral("2.0"));
    EXPECT_EQ(MarkdownDocumentCodec::writtenValue(V(0.1)), QStringLiteral("0.1"));
    EXPECT_EQ(MarkdownDocumentCodec::writtenValue(V(1000.0)), QStringLiteral("1000.0"));
    EXPECT_EQ(MarkdownDocumentCodec::writtenValue(V(1e300)), QStringLiteral("1e+300"));
    EXPECT_EQ(MarkdownDocumentCodec::writtenValue(V(qint64{-3})), QStringLiteral("-3"));
    EXPECT_EQ(MarkdownDocumentCodec::writtenValue(V(QStringLiteral("a/b \"q\" \\ \t\x01"))),
              QStringLiteral("\"a\\/b \\\"q\\\" \\\\ \\t\\u0001\""));
    EXPECT_EQ(MarkdownDocumentCodec::writtenValue(V(QStringList{"x", "y/z"})),
              QStringLiteral("[\"x\",\"y\\/z\"]"));
    EXPECT_EQ(MarkdownDocumentCodec::writtenValue(V(QStringLiteral("é"))), QStringLiteral("\"é\""));
}

TEST(MarkdownDocumentCodec, EveryValueKindRoundTrips) {
    NoteDocumentPayload payload;
    payload.createdBy = NoteEditor::agent(QStringLiteral("claude"));
    payload.frontMatterFields = {
        {"meeting-title", QStringLiteral("Q3 \"plan\" / review\nsecond line")},
        {"meeting-people", QStringList{"Ann", "Bo, Jr.", ""}},
        {"meeting-done", true},
        {"meeting-count", qint64{-42}},
        {"meeting-ratio", 0.1 + 0.2},
        {"meeting-whole", 3.0},
        {"meeting-big", 1.0e21},
        {"meeting-not-a-number", std::nan("")},
        {"meeting-infinite", -HUGE_VAL},
        {"meeting-numeric-text", QStringLiteral("123")},
    };
    const QString text = codec.encode(QStringLiteral("Body\n"), NoteEditor::human(), payload);
    const NoteDocumentPayload decoded = codec.decode(text);
    EXPECT_EQ(decoded.frontMatterFields, payload.frontMatterFields) << text.toStdString();
    EXPECT_EQ(decoded.createdBy, payload.createdBy);
    EXPECT_EQ(decoded.lastEditedBy, NoteEditor::human());
    EXPECT_EQ(decoded.body, QStringLiteral("Body\n"));
}

TEST(MarkdownDocumentCodec, EncodeOrderAndUnrelatedLines) {
    const QString original = QStringLiteral(
        "---\nstatus: \"draft\"\nmeeting-b: 2\nnotes-last-edited-by: human\nTagline without colon\n"
        "meeting-a: \"x\"\nnotes-created-by: agent:\n---\nText");
    const NoteDocumentPayload payload = codec.decode(original);
    EXPECT_EQ(payload.createdBy, NoteEditor::agent(QString()));
    EXPECT_EQ(payload.unrelatedMetadata, (QStringList{"status: \"draft\"", "Tagline without colon"}));
    EXPECT_EQ(payload.frontMatterFields.count("status"), 0u);
    EXPECT_EQ(
        codec.encode(payload.body, NoteEditor::agent(QStringLiteral("codex")), payload),
        QStringLiteral("---\nnotes-created-by: agent:\nnotes-last-edited-by: agent:codex\nmeeting-a: \"x\"\n"
                       "meeting-b: 2\nstatus: \"draft\"\nTagline without colon\n---\nText"));
}

TEST(MarkdownDocumentCodec, LaterDuplicateKeyWinsAndUnparsableMeetingValueStaysString) {
    const auto payload = codec.decode(QStringLiteral("---\nmeeting-x: 1\nmeeting-x: [oops\n---\n"));
    EXPECT_EQ(payload.frontMatterFields.at("meeting-x"), NoteFrontMatterValue(QStringLiteral("[oops")));
}

TEST(MarkdownDocumentCodec, PlainFilesStayPlain) {
    const QString plain = QStringLiteral("# Title\n\nNo front matter.\n");
    const NoteDocumentPayload payload = codec.decode(plain);
    EXPECT_FALSE(payload.hadMetadata);
    EXPECT_EQ(codec.encode(payload.body, std::nullopt, payload), plain);
    // Once someone edits it, the editor must be recorded.
    EXPECT_TRUE(codec.encode(payload.body, NoteEditor::human(), payload).startsWith(QStringLiteral("---\n")));
    // A file that had a (human-only) block keeps one.
    const auto blocked = codec.decode(QStringLiteral("---\nnotes-created-by: human\n---\nx"));
    EXPECT_EQ(codec.encode(blocked.body, std::nullopt, blocked),
              QStringLiteral("---\nnotes-created-by: human\n---\nx"));
}

TEST(MarkdownDocumentCodec, MalformedInputNeverFails) {
    const QString inputs[] = {QStringLiteral(""),
                              QStringLiteral("---"),
                              QStringLiteral("---\n"),
                              QStringLiteral("---\n:\n: :\n---\n"),
                              QStringLiteral("---\n\r\n---\n\0x"),
                              QStringLiteral("---\nmeeting-: \"\\ud800\"\n---\n")};
    for (const QString& input : inputs) {
        const auto payload = codec.decode(input);
        const QString again = codec.encode(payload.body, std::nullopt, payload);
        EXPECT_EQ(codec.decode(again).body, payload.body);
    }
}

// Whatever the body and the editors, what is written reads back the same.
TEST(MarkdownDocumentCodec, BodiesThatLookLikeMetadataReadBackExactly) {
    for (const QString& body : {QStringLiteral("---\ntags: x\n---\nHello"), QStringLiteral("---\n---\n"),
                                QStringLiteral("---\nmeeting-id: 1\n---\n"), QStringLiteral("---\nnot closed"),
                                QStringLiteral("plain"), QString()}) {
        const NoteDocumentPayload fresh;
        const QString written = codec.encode(body, std::nullopt, fresh);
        const auto read = codec.decode(written);
        EXPECT_EQ(read.body, body) << written.toStdString();
        EXPECT_TRUE(read.frontMatterFields.empty()) << written.toStdString();
        EXPECT_TRUE(read.unrelatedMetadata.isEmpty()) << written.toStdString();
    }
}

// Found by the codec fuzzer: two rules, a line and a third rule read as a block
// holding "---", and an edit then moved the user's hidden line into the body.
TEST(MarkdownDocumentCodec, TwoRulesAtTheTopAreBodyWhateverFollows) {
    const QString text = QStringLiteral("---\n---\nrule \n---\nrule lines\n");
    const auto read = codec.decode(text);
    EXPECT_EQ(read.body, text);
    EXPECT_FALSE(read.hadMetadata);
    const auto rewritten = codec.decode(codec.encode(read.body, NoteEditor::human(), read));
    EXPECT_EQ(rewritten.body, text);
}

// Found by the codec fuzzer: a control character in a stored name was read as
// it stood but written as U+FFFD, so a rewrite changed who created the note.
TEST(MarkdownDocumentCodec, AControlCharacterInAStoredNameReadsAsItWillBeWritten) {
    const auto read = codec.decode(QStringLiteral("---\nnotes-created-by: agent:a\u0016z\n---\nbody"));
    EXPECT_EQ(read.createdBy, NoteEditor::agent(QStringLiteral("a\uFFFDz")));
    EXPECT_EQ(codec.decode(codec.encode(read.body, std::nullopt, read)).createdBy, read.createdBy);
}

// Found by the codec fuzzer: an indented " ---" line in a block was kept trimmed,
// so the rewrite closed the block there and spilled the rest into the body.
TEST(MarkdownDocumentCodec, UnrelatedLinesAreKeptAsTheyStand) {
    const auto read = codec.decode(QStringLiteral("---\nstatus: draft\n ---\n  tags: a\n---\nbody"));
    EXPECT_EQ(read.unrelatedMetadata, (QStringList{"status: draft", " ---", "  tags: a"}));
    const auto rewritten = codec.decode(codec.encode(read.body, NoteEditor::human(), read));
    EXPECT_EQ(rewritten.body, "body");
    EXPECT_EQ(rewritten.unrelatedMetadata, read.unrelatedMetadata);
}

TEST(MarkdownDocumentCodec, AnEditorNameCannotWriteALineBreak) {
    NoteDocumentPayload payload;
    payload.createdBy = NoteEditor::agent(QStringLiteral("x\nnotes-created-by: human"));
    const QString written = codec.encode(QStringLiteral("body"), NoteEditor::agent(QStringLiteral("y\r\n---\nz\u2028w")), payload);
    EXPECT_EQ(written.count(u'\n'), 4) << written.toStdString();  // two editor lines between the delimiters
    const auto read = codec.decode(written);
    EXPECT_TRUE(read.createdBy.isAgent());
    EXPECT_EQ(read.body, QStringLiteral("body"));
    EXPECT_FALSE(NoteEditor::isValidAgentName(QStringLiteral("x\nnotes-created-by: human")));
    EXPECT_FALSE(NoteEditor::isValidAgentName(QStringLiteral("zero\u200Bwidth")));
    EXPECT_FALSE(NoteEditor::isValidAgentName(QStringLiteral("  ")));
    EXPECT_TRUE(NoteEditor::isValidAgentName(QStringLiteral("Claude Desktop")));
}

TEST(MarkdownDocumentCodec, SettingAFieldReplacesItsLine) {
    auto payload = codec.decode(QStringLiteral("---\nnotes-created-by: human\nstatus: \"draft\"\nowner: me\n---\nbody"));
    payload.frontMatterFields.insert_or_assign(QStringLiteral("status"), QStringLiteral("final"));
    const QString written = codec.encode(payload.body, NoteEditor::agent(QStringLiteral("a")), payload);
    EXPECT_EQ(written.count(QStringLiteral("status:")), 1) << written.toStdString();
    EXPECT_TRUE(written.contains(QStringLiteral("status: \"final\"")));
    EXPECT_TRUE(written.contains(QStringLiteral("owner: me")));
}

}  // namespace
}  // namespace mossly

namespace mossly {
namespace {

// decode(encode(document)) gives the document back, for bodies and fields drawn
// at random from the characters that matter (delimiters, colons, quotes, line breaks).
TEST(MarkdownDocumentCodec, RandomDocumentsRoundTrip) {
    const MarkdownDocumentCodec codec;
    std::mt19937 random(20261123);
    const QStringList pieces{"---", "\n", "---\n", ":", " ", "\"", "a", "é", "notes-created-by: human", "#", "\r\n",
                             "meeting-x: 1", "[", "]", "\\", "😀", "\t"};
    const auto text = [&](int maximum) {
        QString out;
        const int count = std::uniform_int_distribution<int>(0, maximum)(random);
        for (int i = 0; i < count; ++i) out += pieces[std::uniform_int_distribution<int>(0, int(pieces.size()) - 1)(random)];
        return out;
    };
    for (int round = 0; round < 3000; ++round) {
        NoteDocumentPayload payload;
        payload.createdBy = round % 3 == 0 ? NoteEditor::human() : NoteEditor::agent(QStringLiteral("a%1").arg(round % 7));
        if (round % 2) payload.frontMatterFields.emplace(QStringLiteral("meeting-s"), text(6));
        if (round % 5 == 0) payload.frontMatterFields.emplace(QStringLiteral("meeting-n"), qint64(round));
        if (round % 7 == 0) payload.frontMatterFields.emplace(QStringLiteral("meeting-l"), QStringList{text(3), text(3)});
        const QString body = text(12);
        const std::optional<NoteEditor> editor =
            round % 4 == 0 ? std::optional(NoteEditor::agent(QStringLiteral("e"))) : std::nullopt;
        const QString written = codec.encode(body, editor, payload);
        const NoteDocumentPayload read = codec.decode(written);
        ASSERT_EQ(read.body, body) << written.toStdString();
        ASSERT_EQ(read.createdBy, payload.createdBy) << written.toStdString();
        ASSERT_EQ(read.lastEditedBy, editor) << written.toStdString();
        ASSERT_EQ(read.frontMatterFields, payload.frontMatterFields) << written.toStdString();
    }
}

}  // namespace
}  // namespace mossly
