#include "NotePathPolicy.h"

#include <QDir>

#include "NoteContentType.h"

namespace mossly {

namespace {

// Without copies: every file of a library is checked on each scan.
bool hasControlCharacter(QStringView text) {
    for (qsizetype i = 0; i < text.size(); ++i) {
        char32_t codePoint = text[i].unicode();
        if (codePoint < 0x80) {
            if (codePoint < 0x20 || codePoint == 0x7f) return true;
            continue;
        }
        if (text[i].isHighSurrogate() && i + 1 < text.size() && text[i + 1].isLowSurrogate()) {
            codePoint = QChar::surrogateToUcs4(text[i], text[i + 1]);
            ++i;
        }
        const QChar::Category category = QChar::category(codePoint);
        if (category == QChar::Other_Control || category == QChar::Other_Format) return true;
    }
    return false;
}

bool hasAcceptableComponents(QStringView identifier) {
    qsizetype start = 0;
    for (;;) {
        const qsizetype slash = identifier.indexOf(u'/', start);
        const QStringView piece = identifier.sliced(start, (slash < 0 ? identifier.size() : slash) - start);
        if (piece.isEmpty() || piece.startsWith(u'.')) return false;  // also rejects "." and ".."
        if (slash < 0) return true;
        start = slash + 1;
    }
}

}  // namespace

bool NotePathPolicy::accepts(QStringView identifier) const {
    return !identifier.isEmpty() && !identifier.startsWith(u'/') && noteContentTypeForFileName(identifier).has_value() &&
           hasAcceptableComponents(identifier) && !identifier.contains(u'\\') && !hasControlCharacter(identifier);
}

Result<QString> NotePathPolicy::validated(const QString& identifier) const {
    if (!accepts(identifier)) return fail(Error::invalidIdentifier(identifier));
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
