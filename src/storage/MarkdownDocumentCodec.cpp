#include "MarkdownDocumentCodec.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <algorithm>
#include <charconv>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <locale.h>

#include "JsonText.h"

namespace mossly {

namespace {

const QString openingDelimiter = QStringLiteral("---\n");
const QString closingDelimiter = QStringLiteral("\n---\n");
const QString meetingKeyPrefix = QStringLiteral("meeting-");

struct SplitText {
    bool hasFrontMatter = false;
    QString frontMatter;
    QString body;
};

// An editor's name never breaks its line, whatever a caller passes: a line
// break there would let a name forge other metadata lines. Names are read the
// same way, so a file written elsewhere reads as it will be written back.
QString singleLine(QString value) {
    for (QChar& c : value) {
        const auto category = c.category();
        if (category == QChar::Other_Control || category == QChar::Separator_Line ||
            category == QChar::Separator_Paragraph) {
            c = QChar::ReplacementCharacter;
        }
    }
    return value;
}

SplitText splitFrontMatter(const QString& text) {
    if (!text.startsWith(openingDelimiter)) return {false, {}, text};
    // Two rules at the top are the body's, whatever follows: a block never holds
    // a "---" line, and reading one as its first line would hide the user's
    // lines up to the next rule and move them on the next write.
    if (QStringView(text).sliced(openingDelimiter.size()).startsWith(openingDelimiter)) return {false, {}, text};
    const qsizetype close = text.indexOf(closingDelimiter, openingDelimiter.size());
    if (close < 0) return {false, {}, text};
    const qsizetype start = openingDelimiter.size();
    return {true, close > start ? text.mid(start, close - start) : QString(),
            text.mid(close + closingDelimiter.size())};
}

std::optional<qint64> parseInteger(const QString& text) {
    const QByteArray bytes = text.toLatin1();
    if (text.isEmpty() || bytes.size() != text.size()) return std::nullopt;
    const char* begin = bytes.constData();
    const char* end = begin + bytes.size();
    if (*begin == '+') ++begin;  // from_chars accepts "-" but not "+"
    if (begin == end || (*begin == '-' && begin != bytes.constData())) return std::nullopt;
    qint64 result = 0;
    const auto [ptr, ec] = std::from_chars(begin, end, result, 10);
    if (ec != std::errc() || ptr != end) return std::nullopt;
    return result;
}

std::optional<double> parseDouble(const QString& text) {
    // strtod's grammar in the C locale, whatever locale the app has set.
    static const locale_t cLocale = newlocale(LC_ALL_MASK, "C", nullptr);
    const QByteArray bytes = text.toUtf8();
    if (bytes.isEmpty() || std::isspace(static_cast<unsigned char>(bytes.front()))) return std::nullopt;
    char* end = nullptr;
    const double result = strtod_l(bytes.constData(), &end, cLocale);
    if (end != bytes.constData() + bytes.size()) return std::nullopt;
    return result;
}

std::optional<QStringList> parseStringArray(const QString& text) {
    if (!text.startsWith(u'[')) return std::nullopt;
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8(), &error);
    if (error.error != QJsonParseError::NoError || !document.isArray()) return std::nullopt;
    QStringList strings;
    for (const QJsonValue& element : document.array()) {
        if (!element.isString()) return std::nullopt;
        strings.append(element.toString());
    }
    return strings;
}

QString unquoted(const QString& text) {
    if (!text.startsWith(u'"')) return text;
    return JsonText::decodeStringLiteral(text).value_or(text);
}

QString shortestRoundTrip(double value) {
    if (std::isnan(value)) return QStringLiteral("nan");
    if (std::isinf(value)) return value < 0 ? QStringLiteral("-inf") : QStringLiteral("inf");
    char buffer[64];
    const auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
    QString written = QString::fromLatin1(buffer, ec == std::errc() ? end - buffer : 0);
    // Keep a visible fraction so the value reads back as a number, not an integer ("2.0").
    if (!written.contains(u'.') && !written.contains(u'e')) written += QStringLiteral(".0");
    return written;
}

// Ascending Unicode code-point order (QString's operator< compares UTF-16 units).
bool codePointLess(const QString& a, const QString& b) {
    const QList<uint> left = a.toUcs4();
    const QList<uint> right = b.toUcs4();
    return std::lexicographical_compare(left.begin(), left.end(), right.begin(), right.end());
}

}  // namespace

NoteFrontMatterValue MarkdownDocumentCodec::value(const QString& text) {
    if (text == u"true") return true;
    if (text == u"false") return false;
    if (auto integer = parseInteger(text)) return *integer;
    if (auto number = parseDouble(text)) return *number;
    if (auto strings = parseStringArray(text)) return *strings;
    return unquoted(text);
}

QString MarkdownDocumentCodec::writtenValue(const NoteFrontMatterValue& value) {
    return std::visit(
        [](const auto& v) -> QString {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, QString>) {
                return JsonText::stringLiteral(v);
            } else if constexpr (std::is_same_v<T, QStringList>) {
                return JsonText::stringArray(v);
            } else if constexpr (std::is_same_v<T, bool>) {
                return v ? QStringLiteral("true") : QStringLiteral("false");
            } else if constexpr (std::is_same_v<T, qint64>) {
                return QString::number(v);
            } else {
                return shortestRoundTrip(v);
            }
        },
        value.storage());
}

NoteDocumentPayload MarkdownDocumentCodec::decode(const QString& text) const {
    const SplitText split = splitFrontMatter(text);
    NoteDocumentPayload payload;
    payload.body = split.body;
    payload.hadMetadata = split.hasFrontMatter;
    if (!split.hasFrontMatter) return payload;

    for (const QString& rawLine : split.frontMatter.split(u'\n')) {
        const QString line = rawLine.trimmed();
        if (line.isEmpty()) continue;
        const qsizetype colon = line.indexOf(u':');
        const QString key = colon < 0 ? QString() : line.left(colon).trimmed();
        const QString value = colon < 0 ? QString() : line.mid(colon + 1).trimmed();
        if (colon >= 0 && key == NoteDocument::createdByKey) {
            payload.createdBy = NoteEditor::fromStoredValue(singleLine(value));
        } else if (colon >= 0 && key == NoteDocument::lastEditedByKey) {
            payload.lastEditedBy = NoteEditor::fromStoredValue(singleLine(value));
        } else if (colon >= 0 && key.startsWith(meetingKeyPrefix)) {
            payload.frontMatterFields.insert_or_assign(key, MarkdownDocumentCodec::value(value));
        } else {
            // As it stands, blanks included: trimmed, " ---" would be written as a closing line.
            payload.unrelatedMetadata.append(rawLine);
        }
    }
    return payload;
}

QString MarkdownDocumentCodec::encode(const QString& body, const std::optional<NoteEditor>& editedBy,
                                      const NoteDocumentPayload& payload) const {
    const std::optional<NoteEditor> lastEditor = editedBy ? editedBy : payload.lastEditedBy;
    // A body that would itself read as a block (it starts with "---" lines) gets a
    // block of its own, so that it reads back exactly as written.
    const bool plain = !payload.hadMetadata && payload.createdBy.isHuman() && !lastEditor &&
                       payload.frontMatterFields.empty() && payload.unrelatedMetadata.isEmpty() &&
                       !splitFrontMatter(body).hasFrontMatter;
    if (plain) return body;

    QString text = openingDelimiter;
    text += NoteDocument::createdByKey + QStringLiteral(": ") + singleLine(payload.createdBy.storedValue()) + u'\n';
    if (lastEditor) {
        text += NoteDocument::lastEditedByKey + QStringLiteral(": ") + singleLine(lastEditor->storedValue()) + u'\n';
    }

    QStringList keys;
    for (const auto& entry : payload.frontMatterFields) keys.append(entry.first);
    std::stable_sort(keys.begin(), keys.end(), codePointLess);
    for (const QString& key : keys) {
        text += key + QStringLiteral(": ") + writtenValue(payload.frontMatterFields.at(key)) + u'\n';
    }
    for (const QString& line : payload.unrelatedMetadata) {
        // A key set as a field replaces its old line instead of adding a second one.
        const QString key = line.section(u':', 0, 0).trimmed();
        if (line.contains(u':') && payload.frontMatterFields.contains(key)) continue;
        text += line + u'\n';
    }
    text += openingDelimiter;
    text += body;
    return text;
}

QString MarkdownDocumentCodec::visibleText(const QString& text) { return splitFrontMatter(text).body; }

}  // namespace mossly
