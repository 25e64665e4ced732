#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "SketchDocumentCodec.h"

namespace mossly {
namespace {

const SketchDocumentCodec codec;

QJsonObject parsed(const QString& text) {
    return QJsonDocument::fromJson(text.toUtf8()).object();
}

QJsonObject documentMeta(const QString& text) {
    for (const QJsonValue& record : parsed(text).value(QStringLiteral("records")).toArray()) {
        if (record[QStringLiteral("typeName")] == QStringLiteral("document"))
            return record[QStringLiteral("meta")].toObject();
    }
    return {};
}

const QString drawingWithMetadata = QStringLiteral(R"({
 "tldrawFileFormatVersion": 1, "schema": {"schemaVersion": 2, "sequences": {}},
 "records": [
  {"typeName": "page", "id": "page:page", "name": "Page 1", "index": "a1", "meta": {}},
  {"typeName": "document", "id": "document:document", "gridSize": 10, "name": "",
   "meta": {"app": "kept", "notes-created-by": "agent:sketcher", "notes-last-edited-by": "human",
            "meeting-count": "3", "meeting-score": "2.0", "meeting-title": "\"true\"",
            "meeting-people": "[\"Ann\",\"Bo\"]", "meeting-native": [ "x" ], "meeting-flag": true,
            "meeting-n": 7, "meeting-ratio": 0.25, "meeting-obj": {"a": 1}, "meeting-null": null}}
 ]})");

TEST(SketchDocumentCodec, DecodesTheDocumentRecordMeta) {
    const NoteDocumentPayload payload = codec.decode(drawingWithMetadata);
    EXPECT_TRUE(payload.hadMetadata);
    EXPECT_EQ(payload.createdBy, NoteEditor::agent(QStringLiteral("sketcher")));
    EXPECT_EQ(payload.lastEditedBy, NoteEditor::human());
    const NoteFrontMatterFields expected{
        {QStringLiteral("meeting-count"), qint64{3}},
        {QStringLiteral("meeting-score"), 2.0},
        {QStringLiteral("meeting-title"), QStringLiteral("true")},
        {QStringLiteral("meeting-people"), QStringList{"Ann", "Bo"}},
        {QStringLiteral("meeting-native"), QStringList{"x"}},
        {QStringLiteral("meeting-flag"), true},
        {QStringLiteral("meeting-n"), qint64{7}},
        {QStringLiteral("meeting-ratio"), 0.25},
        {QStringLiteral("meeting-obj"), QStringLiteral(R"({"a":1})")},
    };
    EXPECT_EQ(payload.frontMatterFields, expected);
    // The body is the same drawing without our keys.
    EXPECT_EQ(documentMeta(payload.body), (QJsonObject{{QStringLiteral("app"), QStringLiteral("kept")}}));
    QJsonObject original = parsed(drawingWithMetadata);
    QJsonArray records = original[QStringLiteral("records")].toArray();
    QJsonObject document = records[1].toObject();
    document[QStringLiteral("meta")] = QJsonObject{{QStringLiteral("app"), QStringLiteral("kept")}};
    records[1] = document;
    original[QStringLiteral("records")] = records;
    EXPECT_EQ(parsed(payload.body), original);
}

TEST(SketchDocumentCodec, DrawingsWithoutOurKeysAreKeptByteForByte) {
    const QString inputs[] = {
        SketchDocumentCodec::emptyDocument(),
        QStringLiteral("{\"records\":[{\"typeName\":\"document\",\"meta\":{\"other\":1}}],  \"x\" : 1 }\n"),
        QStringLiteral("{\"records\":[]}"),
    };
    for (const QString& input : inputs) {
        const NoteDocumentPayload payload = codec.decode(input);
        EXPECT_FALSE(payload.hadMetadata);
        EXPECT_EQ(payload.body, input);
        EXPECT_EQ(codec.encode(payload.body, std::nullopt, payload), input);
    }
}

TEST(SketchDocumentCodec, EncodeStartsEmptyDrawingsAndCreatesTheDocumentRecord) {
    NoteDocumentPayload payload;
    payload.createdBy = NoteEditor::agent(QStringLiteral("a"));
    // An empty body becomes a real drawing.
    const QString fromEmpty = codec.encode(QStringLiteral("  \n"), std::nullopt, payload);
    EXPECT_EQ(documentMeta(fromEmpty),
              (QJsonObject{{QStringLiteral("notes-created-by"), QStringLiteral("agent:a")}}));
    EXPECT_EQ(parsed(codec.decode(fromEmpty).body), parsed(SketchDocumentCodec::emptyDocument()));

    // A drawing without a document record gets one.
    const QString text = codec.encode(QStringLiteral(R"({"records":[{"typeName":"shape","id":"shape:1"}]})"),
                                      NoteEditor::human(), payload);
    const QJsonArray records = parsed(text)[QStringLiteral("records")].toArray();
    ASSERT_EQ(records.size(), 2);
    EXPECT_EQ(records[0][QStringLiteral("id")], QStringLiteral("document:document"));
    EXPECT_EQ(records[0][QStringLiteral("meta")][QStringLiteral("notes-last-edited-by")],
              QStringLiteral("human"));
    EXPECT_EQ(records[1][QStringLiteral("id")], QStringLiteral("shape:1"));

    // The payload replaces our keys left in the body; other meta keys stay.
    EXPECT_EQ(documentMeta(codec.encode(drawingWithMetadata, std::nullopt, payload)),
              (QJsonObject{{QStringLiteral("app"), QStringLiteral("kept")},
                           {QStringLiteral("notes-created-by"), QStringLiteral("agent:a")}}));
}

TEST(SketchDocumentCodec, RoundTripsTypedValuesExactly) {
    NoteDocumentPayload payload;
    payload.hadMetadata = true;
    payload.lastEditedBy = NoteEditor::agent(QStringLiteral("x \"y\"\n"));
    payload.frontMatterFields = {
        {QStringLiteral("meeting-double"), 2.0},
        {QStringLiteral("meeting-int"), qint64{2}},
        {QStringLiteral("meeting-big"), qint64{9007199254740993LL}},
        {QStringLiteral("meeting-string"), QStringLiteral("2")},
        {QStringLiteral("meeting-list"), QStringList{"a", "[b]", ""}},
        {QStringLiteral("meeting-no"), false},
        {QStringLiteral("meeting-tiny"), 1e-300},
    };
    const QString bodies[] = {
        QString(), SketchDocumentCodec::emptyDocument(),
        QStringLiteral(R"({"records":[{"typeName":"document","meta":"not an object"}]})")};
    for (const QString& body : bodies) {
        const QString text = codec.encode(body, std::nullopt, payload);
        const NoteDocumentPayload decoded = codec.decode(text);
        EXPECT_EQ(decoded.createdBy, payload.createdBy);
        EXPECT_EQ(decoded.lastEditedBy, payload.lastEditedBy);
        EXPECT_EQ(decoded.frontMatterFields, payload.frontMatterFields);
        EXPECT_EQ(codec.encode(decoded.body, std::nullopt, decoded), text);
        EXPECT_EQ(codec.decode(decoded.body).hadMetadata, false);
    }
}

TEST(SketchDocumentCodec, MalformedInputNeverFails) {
    NoteDocumentPayload withEditor;
    withEditor.createdBy = NoteEditor::agent(QStringLiteral("x"));
    QString deep;
    for (int i = 0; i < 100000; ++i) deep += u'[';
    const QString inputs[] = {
        QStringLiteral("not json"),
        QStringLiteral(
            R"({"records":[{"typeName":"document","meta":{"notes-created-by":"agent:x"}})"),  // truncated
        QStringLiteral(R"({"records":{}})"),
        QStringLiteral(R"([{"records":[]}])"),
        QStringLiteral("\"just a string\""),
        QString::fromUtf8("\0\xff\xfe{", 4),
        deep,
    };
    for (const QString& input : inputs) {
        const NoteDocumentPayload payload = codec.decode(input);
        EXPECT_FALSE(payload.hadMetadata);
        EXPECT_EQ(payload.body, input);
        EXPECT_EQ(codec.visibleText(payload), QString());
        // Nothing can be carried in something that is not a drawing: it is kept as it is.
        EXPECT_EQ(codec.encode(input, std::nullopt, withEditor), input);
    }
    // Odd records and odd values in our keys are skipped, not trusted.
    const NoteDocumentPayload odd = codec.decode(QStringLiteral(
        R"({"records":[3,null,"s",{"typeName":"document","meta":{"notes-created-by":5,"notes-last-edited-by":[]}}]})"));
    EXPECT_TRUE(odd.hadMetadata);
    EXPECT_TRUE(odd.createdBy.isHuman());
    EXPECT_FALSE(odd.lastEditedBy.has_value());
    EXPECT_EQ(documentMeta(odd.body), QJsonObject());
}

TEST(SketchDocumentCodec, VisibleTextListsShapeTexts) {
    NoteDocumentPayload payload;
    payload.body = QStringLiteral(R"({"records":[
      {"typeName":"shape","type":"text","props":{"text":"  plain  "}},
      {"typeName":"page","name":"Page names are not shown"},
      {"typeName":"shape","type":"geo","props":{"richText":{"type":"doc","content":[
        {"type":"paragraph","content":[{"type":"text","text":"Rich "},{"type":"text","text":"one"}]},
        {"type":"paragraph"},
        {"type":"bulletList","content":[{"type":"listItem","content":[{"type":"paragraph","content":[
          {"type":"text","text":"two"},{"type":"hardBreak"},{"type":"text","text":"three"}]}]}]}]}}},
      {"typeName":"shape","type":"frame","props":{"name":"Frame A"}},
      {"typeName":"shape","type":"draw","props":{}},
      {"typeName":"shape","type":"note","props":{"text":"","richText":{"type":"doc","content":[]}}},
      {"typeName":"shape","type":"arrow","props":{"text":7,"richText":"bad"}},
      {"typeName":"shape","type":"note","props":{"text":"old","richText":{"type":"doc","content":[
        {"type":"paragraph","content":[{"type":"text","text":"new"}]}]}}}
    ]})");
    EXPECT_EQ(codec.visibleText(payload), QStringLiteral("plain\nRich one\ntwo\nthree\nFrame A\nnew"));
    payload.body = SketchDocumentCodec::emptyDocument();
    EXPECT_EQ(codec.visibleText(payload), QString());
}

}  // namespace
}  // namespace mossly
