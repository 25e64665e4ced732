#pragma once

#include "NoteDocument.h"

namespace mossly {

// HTML notes: the author's document, with the editors (and typed "meeting-"
// fields) carried as <meta name="…" content="…"> tags in its head. Decoding
// removes exactly those tags from the text; encoding puts them back right
// after the <head> start tag, or in a head of their own when the document has
// none (which decoding then removes too). Everything else in the document is
// left as the author wrote it. Never fails on malformed HTML.
class HtmlDocumentCodec final : public NoteDocumentCodec {
  public:
    static inline const QString documentKindKey = QStringLiteral("notes-document-kind");

    NoteContentType contentType() const override { return NoteContentType::html; }
    NoteDocumentPayload decode(const QString& text) const override;
    QString encode(const QString& body, const std::optional<NoteEditor>& editedBy,
                   const NoteDocumentPayload& payload) const override;
    // The text of the document's <body>, as a reader would see it.
    QString visibleText(const NoteDocumentPayload& payload) const override;
    // The text of the page's <title>, white space folded; empty when it has none.
    static QString documentTitle(const QString& html);
};

}  // namespace mossly
