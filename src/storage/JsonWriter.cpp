#include "JsonWriter.h"

#include <charconv>
#include <cmath>

#include "JsonText.h"

namespace mossly {

JsonObjectWriter& JsonObjectWriter::addMember(const QString& key, const QString& json) {
    if (!empty_) text_ += u',';
    empty_ = false;
    text_ += JsonText::stringLiteral(key) + u':' + json;
    return *this;
}

JsonObjectWriter& JsonObjectWriter::add(const QString& key, const QString& value) {
    return addMember(key, JsonText::stringLiteral(value));
}

JsonObjectWriter& JsonObjectWriter::add(const QString& key, const std::optional<QString>& value) {
    return value ? add(key, *value) : addNull(key);
}

JsonObjectWriter& JsonObjectWriter::add(const QString& key, double value) { return addMember(key, jsonNumber(value)); }

JsonObjectWriter& JsonObjectWriter::add(const QString& key, qint64 value) {
    return addMember(key, QString::number(value));
}

JsonObjectWriter& JsonObjectWriter::add(const QString& key, bool value) {
    return addMember(key, value ? QStringLiteral("true") : QStringLiteral("false"));
}

JsonObjectWriter& JsonObjectWriter::addNull(const QString& key) { return addMember(key, QStringLiteral("null")); }

JsonObjectWriter& JsonObjectWriter::addRaw(const QString& key, const QString& json) { return addMember(key, json); }

QString jsonArray(const QStringList& elementsAsJson) { return u'[' + elementsAsJson.join(u',') + u']'; }

QString jsonNumber(double value) {
    if (!std::isfinite(value)) return QStringLiteral("null");
    char buffer[64];
    const auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
    return QString::fromLatin1(buffer, ec == std::errc() ? end - buffer : 0);
}

}  // namespace mossly
