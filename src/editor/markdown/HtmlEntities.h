#pragma once

#include <QRegularExpression>
#include <QString>
#include <QStringView>
#include <optional>

namespace mossly::markdown {

// The text an entity such as "&amp;", "&#233;" or "&#x1F600;" stands for, or nothing
// for a name outside the table or a malformed entity. Code points that HTML forbids
// (zero, surrogates, beyond U+10FFFF) decode to U+FFFD.
std::optional<QString> decodeHtmlEntity(QStringView entity);

// "&name;", "&#digits;" or "&#xhex;": what the styler hides and draws as one character.
const QRegularExpression& htmlEntityPattern();

// Replaces every entity that decodes; anything else is kept as typed.
QString decodeHtmlEntities(const QString& text);

}  // namespace mossly::markdown
