#pragma once

#include "NoteDocument.h"

namespace mossly {

// Sketch notes: tldraw ".tldr" JSON documents. The editors (and typed
// "meeting-" fields) live in the "meta" object of the document record
// ("typeName": "document"), where tldraw keeps application data, so the file
// stays a valid tldraw document. Editors are stored values ("human",
// "agent:NAME"); each field is a JSON string holding the value written as in
// Markdown front matter (MarkdownDocumentCodec::writtenValue), because plain
// JSON numbers cannot tell 2 from 2.0. Plain JSON values other tools put there
// are still read. A drawing without our keys is kept byte for byte; one with
// them is re-serialised (indented, keys sorted) without them. Never fails on
// malformed JSON: such a body is kept as it is.
class SketchDocumentCodec final : public NoteDocumentCodec {
  public:
    NoteContentType contentType() const override { return NoteContentType::sketch; }
    NoteDocumentPayload decode(const QString& text) const override;
    QString encode(const QString& body, const std::optional<NoteEditor>& editedBy,
                   const NoteDocumentPayload& payload) const override;
    // The text of the drawing's shapes, one shape a line.
    QString visibleText(const NoteDocumentPayload& payload) const override;

    // An empty drawing, used for a new sketch note created with an empty body.
    static QString emptyDocument();
};

}  // namespace mossly
