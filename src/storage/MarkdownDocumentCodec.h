#pragma once

#include "NoteDocument.h"

namespace mossly {

// Markdown notes: plain Markdown, optionally preceded by a front-matter block
// ("---\n" … "\n---\n") carrying the editors and typed "meeting-" fields.
class MarkdownDocumentCodec final : public NoteDocumentCodec {
public:
    NoteContentType contentType() const override { return NoteContentType::markdown; }
    NoteDocumentPayload decode(const QString& text) const override;
    QString encode(const QString& body, const std::optional<NoteEditor>& editedBy,
                   const NoteDocumentPayload& payload) const override;
    QString visibleText(const NoteDocumentPayload& payload) const override { return payload.body; }

    // The body of a Markdown file's text, without its front-matter block.
    static QString visibleText(const QString& text);

    // The front-matter value grammar: true/false, 64-bit integer, C-locale
    // double, JSON array of strings, else a (possibly JSON-quoted) string.
    static NoteFrontMatterValue value(const QString& trimmedText);
    // How a value is written after "key: ".
    static QString writtenValue(const NoteFrontMatterValue& value);
};

}  // namespace mossly
