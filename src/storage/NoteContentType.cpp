#include "NoteContentType.h"

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

std::optional<NoteContentType> noteContentTypeFromPathExtension(const QString& raw) {
    // "Plan.MD" is as much a note as "Plan.md"; the identifier keeps the case it has on disk.
    const QString extension = raw.toLower();
    if (extension == u"md" || extension == u"markdown") return NoteContentType::markdown;
    if (extension == u"html" || extension == u"htm") return NoteContentType::html;
    if (extension == u"tldr") return NoteContentType::sketch;
    return std::nullopt;
}

std::optional<NoteContentType> noteContentTypeForFileName(const QString& name) {
    const qsizetype slash = name.lastIndexOf(u'/');
    const qsizetype dot = name.lastIndexOf(u'.');
    if (dot < 0 || dot < slash) return std::nullopt;
    return noteContentTypeFromPathExtension(name.mid(dot + 1));
}

}  // namespace mossly
