#pragma once

#include <QString>
#include <QStringList>
#include <optional>

namespace mossly {

// Builds a JSON object with its keys in insertion order (QJsonObject sorts
// them), for outputs whose key order is part of the interface.
class JsonObjectWriter {
public:
    JsonObjectWriter& add(const QString& key, const QString& value);
    JsonObjectWriter& add(const QString& key, const char* value) { return add(key, QString::fromUtf8(value)); }
    JsonObjectWriter& add(const QString& key, const std::optional<QString>& value);  // null when absent
    JsonObjectWriter& add(const QString& key, double value);
    JsonObjectWriter& add(const QString& key, qint64 value);
    JsonObjectWriter& add(const QString& key, bool value);
    JsonObjectWriter& addNull(const QString& key);
    // `json` must already be valid JSON text.
    JsonObjectWriter& addRaw(const QString& key, const QString& json);
    QString text() const { return text_ + u'}'; }

private:
    JsonObjectWriter& addMember(const QString& key, const QString& json);
    QString text_ = QStringLiteral("{");
    bool empty_ = true;
};

QString jsonArray(const QStringList& elementsAsJson);
// Shortest text that reads back as the same double; never NaN or infinite.
QString jsonNumber(double value);

}  // namespace mossly
