#include "SketchDocumentCodec.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>
#include <optional>

#include "MarkdownDocumentCodec.h"

namespace mossly {

namespace {

const QString meetingKeyPrefix = QStringLiteral("meeting-");
const QString recordsKey = QStringLiteral("records");
const QString typeNameKey = QStringLiteral("typeName");
const QString metaKey = QStringLiteral("meta");

bool isFieldKey(const QString& key) {
    return key.startsWith(meetingKeyPrefix) && key.size() > meetingKeyPrefix.size();
}

bool isOurKey(const QString& key) {
    return key == NoteDocument::createdByKey || key == NoteDocument::lastEditedByKey || isFieldKey(key);
}

// The text's top-level object, when it looks like a tldraw file (an object with a records array).
std::optional<QJsonObject> drawing(const QString& text) {
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8(), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) return std::nullopt;
    QJsonObject object = document.object();
    if (!object.value(recordsKey).isArray()) return std::nullopt;
    return object;
}

QString serialized(const QJsonObject& object) {
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Indented));
}

qsizetype documentRecordIndex(const QJsonArray& records) {
    for (qsizetype i = 0; i < records.size(); ++i) {
        const QJsonValue record = records.at(i);
        if (record.isObject() && record.toObject().value(typeNameKey).toString() == u"document") return i;
    }
    return -1;
}

// Our own fields hold the front-matter text of the value; values other tools
// wrote as plain JSON are taken for what they are.
std::optional<NoteFrontMatterValue> fieldValue(const QJsonValue& json) {
    switch (json.type()) {
        case QJsonValue::String:
            return MarkdownDocumentCodec::value(json.toString().trimmed());
        case QJsonValue::Bool:
            return json.toBool();
        case QJsonValue::Double: {
            const qint64 integer = json.toInteger(0);
            if (json.toInteger(1) == integer) return integer;
            return json.toDouble();
        }
        case QJsonValue::Array: {
            QStringList strings;
            for (const QJsonValue& element : json.toArray()) {
                if (!element.isString()) {
                    return QString::fromUtf8(QJsonDocument(json.toArray()).toJson(QJsonDocument::Compact));
                }
                strings.append(element.toString());
            }
            return strings;
        }
        case QJsonValue::Object:
            return QString::fromUtf8(QJsonDocument(json.toObject()).toJson(QJsonDocument::Compact));
        default:
            return std::nullopt;
    }
}

QString richTextOf(const QJsonValue& node) {
    const QJsonObject object = node.toObject();
    const QString type = object.value(QStringLiteral("type")).toString();
    if (type == u"text") return object.value(QStringLiteral("text")).toString();
    if (type == u"hardBreak") return QStringLiteral("\n");
    QStringList parts;
    bool blocks = false;
    for (const QJsonValue& child : object.value(QStringLiteral("content")).toArray()) {
        const QString childType = child.toObject().value(QStringLiteral("type")).toString();
        blocks = blocks || !(childType == u"text" || childType == u"hardBreak" || childType == u"mention" ||
                             childType == u"emoji");
        parts.append(richTextOf(child));
    }
    return parts.join(blocks ? QStringLiteral("\n") : QString());
}

QString shapeText(const QJsonObject& shape) {
    const QJsonObject props = shape.value(QStringLiteral("props")).toObject();
    QStringList parts;
    if (shape.value(QStringLiteral("type")).toString() == u"frame") {
        parts.append(props.value(QStringLiteral("name")).toString());
    }
    // Current tldraw keeps rich text; older files a plain string.
    QString text = richTextOf(props.value(QStringLiteral("richText")));
    if (text.trimmed().isEmpty()) text = props.value(QStringLiteral("text")).toString();
    parts.append(text);
    return parts.join(u'\n');
}

}  // namespace

QString SketchDocumentCodec::emptyDocument() {
    return QStringLiteral(
        R"({"tldrawFileFormatVersion":1,"schema":{"schemaVersion":2,"sequences":{}},"records":[)"
        R"({"gridSize":10,"name":"","meta":{},"id":"document:document","typeName":"document"},)"
        R"({"meta":{},"id":"page:page","name":"Page 1","index":"a1","typeName":"page"}]})");
}

NoteDocumentPayload SketchDocumentCodec::decode(const QString& text) const {
    NoteDocumentPayload payload;
    payload.body = text;
    std::optional<QJsonObject> object = drawing(text);
    if (!object) return payload;
    QJsonArray records = object->value(recordsKey).toArray();
    const qsizetype index = documentRecordIndex(records);
    if (index < 0) return payload;
    QJsonObject record = records.at(index).toObject();
    QJsonObject meta = record.value(metaKey).toObject();

    const QStringList keys = meta.keys();
    for (const QString& key : keys) {
        if (!isOurKey(key)) continue;
        const QJsonValue value = meta.take(key);
        payload.hadMetadata = true;
        if (key == NoteDocument::createdByKey) {
            if (value.isString()) payload.createdBy = NoteEditor::fromStoredValue(value.toString());
        } else if (key == NoteDocument::lastEditedByKey) {
            if (value.isString()) payload.lastEditedBy = NoteEditor::fromStoredValue(value.toString());
        } else if (auto field = fieldValue(value)) {
            payload.frontMatterFields.insert_or_assign(key, *field);
        }
    }
    if (!payload.hadMetadata) return payload;

    record.insert(metaKey, meta);
    records.replace(index, record);
    object->insert(recordsKey, records);
    payload.body = serialized(*object);
    return payload;
}

QString SketchDocumentCodec::encode(const QString& body, const std::optional<NoteEditor>& editedBy,
                                    const NoteDocumentPayload& payload) const {
    const std::optional<NoteEditor> lastEditor = editedBy ? editedBy : payload.lastEditedBy;
    const bool plain = !payload.hadMetadata && payload.createdBy.isHuman() && !lastEditor &&
                       payload.frontMatterFields.empty();
    if (plain) return body;

    std::optional<QJsonObject> object = drawing(body.trimmed().isEmpty() ? emptyDocument() : body);
    // Nowhere to carry the editors in something that is not a drawing; keep it as it is.
    if (!object) return body;
    QJsonArray records = object->value(recordsKey).toArray();
    qsizetype index = documentRecordIndex(records);
    if (index < 0) {
        records.prepend(QJsonObject{{QStringLiteral("gridSize"), 10},
                                    {QStringLiteral("name"), QString()},
                                    {metaKey, QJsonObject()},
                                    {QStringLiteral("id"), QStringLiteral("document:document")},
                                    {typeNameKey, QStringLiteral("document")}});
        index = 0;
    }
    QJsonObject record = records.at(index).toObject();
    QJsonObject meta = record.value(metaKey).toObject();
    // The payload is the whole truth: stale keys left in the body must not outlive it.
    for (const QString& key : meta.keys()) {
        if (isOurKey(key)) meta.remove(key);
    }
    meta.insert(NoteDocument::createdByKey, payload.createdBy.storedValue());
    if (lastEditor) meta.insert(NoteDocument::lastEditedByKey, lastEditor->storedValue());
    for (const auto& [key, value] : payload.frontMatterFields) {
        // Other keys would not be read back as fields.
        if (isFieldKey(key)) meta.insert(key, MarkdownDocumentCodec::writtenValue(value));
    }
    record.insert(metaKey, meta);
    records.replace(index, record);
    object->insert(recordsKey, records);
    return serialized(*object);
}

QString SketchDocumentCodec::visibleText(const NoteDocumentPayload& payload) const {
    const std::optional<QJsonObject> object = drawing(payload.body);
    if (!object) return {};
    QStringList lines;
    for (const QJsonValue& value : object->value(recordsKey).toArray()) {
        const QJsonObject record = value.toObject();
        if (record.value(typeNameKey).toString() != u"shape") continue;
        for (const QString& line : shapeText(record).split(u'\n')) {
            const QString trimmed = line.trimmed();
            if (!trimmed.isEmpty()) lines.append(trimmed);
        }
    }
    return lines.join(u'\n');
}

}  // namespace mossly
