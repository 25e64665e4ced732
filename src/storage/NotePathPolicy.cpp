#include "NotePathPolicy.h"

#include <QDir>

#include "NoteContentType.h"

namespace mossly {

namespace {

bool hasControlCharacter(const QString& text) {
    for (const char32_t codePoint : text.toUcs4()) {
        const QChar::Category category = QChar::category(codePoint);
        if (category == QChar::Other_Control || category == QChar::Other_Format) return true;
    }
    return false;
}

bool hasAcceptableComponents(const QString& identifier) {
    for (const QString& piece : identifier.split(u'/')) {
        if (piece.isEmpty() || piece.startsWith(u'.')) return false;  // also rejects "." and ".."
    }
    return true;
}

}  // namespace

Result<QString> NotePathPolicy::validated(const QString& identifier) const {
    const bool acceptable = !identifier.isEmpty() && !identifier.startsWith(u'/') &&
                            noteContentTypeForFileName(identifier).has_value() &&
                            hasAcceptableComponents(identifier) && !identifier.contains(u'\\') &&
                            !hasControlCharacter(identifier);
    if (!acceptable) return fail(Error::invalidIdentifier(identifier));
    return identifier;
}

Result<QString> NotePathPolicy::url(const QString& identifier, const QString& directory) const {
    auto valid = validated(identifier);
    if (!valid) return fail(valid.error());
    const QString base = QDir::cleanPath(directory);
    const QString candidate = QDir::cleanPath(base + u'/' + identifier);
    const QString prefix = base.endsWith(u'/') ? base : base + u'/';
    if (!candidate.startsWith(prefix) || candidate.size() == prefix.size()) {
        return fail(Error::invalidIdentifier(identifier));
    }
    return candidate;
}

}  // namespace mossly
