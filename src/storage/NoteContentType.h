#pragma once

#include <QString>
#include <array>
#include <optional>

namespace mossly {

// The three kinds of note file. The order is meaningful: extension lookup
// tries the types in this order.
enum class NoteContentType { markdown, html, sketch };

inline constexpr std::array<NoteContentType, 3> allNoteContentTypes{
    NoteContentType::markdown, NoteContentType::html, NoteContentType::sketch};

// "markdown", "html", "sketch": the value stored in files and in the search catalog.
QString rawValue(NoteContentType type);
std::optional<NoteContentType> noteContentTypeFromRawValue(const QString& raw);
QString displayName(NoteContentType type);
// "md", "html", "tldr": used when a note of this type is created.
QString preferredExtension(NoteContentType type);
// Exact (case-sensitive) match against the recognised extensions; none for any other.
std::optional<NoteContentType> noteContentTypeFromPathExtension(QStringView extension);
// The content type of a file name or identifier, from the text after its last ".".
std::optional<NoteContentType> noteContentTypeForFileName(QStringView name);

inline const QString sketchUniformTypeIdentifier = QStringLiteral("com.bellam.notes.tldraw");

}  // namespace mossly
