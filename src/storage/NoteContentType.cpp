#include "NoteContentType.h"

#include <algorithm>

namespace mossly {

QString rawValue(NoteContentType type) {
    switch (type) {
        case NoteContentType::markdown: return QStringLiteral("markdown");
        case NoteContentType::html: return QStringLiteral("html");
        case NoteContentType::sketch: return QStringLiteral("sketch");
    }
    return {};
}

std::optional<NoteContentType> noteContentTypeFromRawValue(const QString& raw) {
    for (NoteContentType type : allNoteContentTypes) {
        if (rawValue(type) == raw) return type;
    }
    return std::nullopt;
}

QString displayName(NoteContentType type) {
    switch (type) {
        case NoteContentType::markdown: return QStringLiteral("Markdown");
        case NoteContentType::html: return QStringLiteral("HTML");
        case NoteContentType::sketch: return QStringLiteral("Sketch");
    }
    return {};
}

QString preferredExtension(NoteContentType type) {
    switch (type) {
        case NoteContentType::markdown: return QStringLiteral("md");
        case NoteContentType::html: return QStringLiteral("html");
        case NoteContentType::sketch: return QStringLiteral("tldr");
    }
    return {};
}

std::optional<NoteContentType> noteContentTypeFromPathExtension(QStringView raw) {
    // "Plan.MD" is as much a note as "Plan.md"; the identifier keeps the case it has on disk.
    // Every file of a library passes here on each scan, so plain ASCII is compared without a copy.
    const bool ascii = std::all_of(raw.begin(), raw.end(), [](QChar c) { return c.unicode() < 0x80; });
    const QString lowered = ascii ? QString() : raw.toString().toLower();
    const QStringView extension = ascii ? raw : QStringView(lowered);
    const auto is = [&](QStringView known) {
        return ascii ? extension.compare(known, Qt::CaseInsensitive) == 0 : extension == known;
    };
    if (is(u"md") || is(u"markdown")) return NoteContentType::markdown;
    if (is(u"html") || is(u"htm")) return NoteContentType::html;
    if (is(u"tldr")) return NoteContentType::sketch;
    return std::nullopt;
}

std::optional<NoteContentType> noteContentTypeForFileName(QStringView name) {
    const qsizetype slash = name.lastIndexOf(u'/');
    const qsizetype dot = name.lastIndexOf(u'.');
    if (dot < 0 || dot < slash) return std::nullopt;
    return noteContentTypeFromPathExtension(name.sliced(dot + 1));
}

}  // namespace mossly
