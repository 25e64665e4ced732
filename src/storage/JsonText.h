#pragma once

#include <QString>
#include <QStringList>
#include <optional>

namespace mossly::JsonText {

// A JSON string literal written like a default JSON encoder does: double quotes,
// backslash escapes, control characters as \u00xx, and "/" written as "\/".
QString stringLiteral(const QString& value);
// A compact JSON array of string literals: ["a","b"].
QString stringArray(const QStringList& values);
// Decodes one JSON string literal (the whole text); none when it is not exactly one.
std::optional<QString> decodeStringLiteral(const QString& literal);

}  // namespace mossly::JsonText
