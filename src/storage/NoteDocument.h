#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <map>
#include <optional>

#include "NoteContentType.h"
#include "NoteEditor.h"
#include "NoteFrontMatterValue.h"

namespace mossly {

using NoteFrontMatterFields = std::map<QString, NoteFrontMatterValue>;

// What a codec extracts from a note file's text.
struct NoteDocumentPayload {
    QString body;
    NoteEditor createdBy = NoteEditor::human();
    std::optional<NoteEditor> lastEditedBy;
    NoteFrontMatterFields frontMatterFields;
    // Metadata lines the codec does not interpret, kept verbatim in file order.
    QStringList unrelatedMetadata;
    // Whether the text carried a metadata block at all; lets plain files stay plain.
    bool hadMetadata = false;

    bool operator==(const NoteDocumentPayload&) const = default;
};

// The in-memory form of one note file. A value type; the revision identifies
// the exact bytes the document was read from (or will be written as).
class NoteDocument {
public:
    // Reserved keys naming the editors in every format.
    static inline const QString createdByKey = QStringLiteral("notes-created-by");
    static inline const QString lastEditedByKey = QStringLiteral("notes-last-edited-by");

    // Decodes a file's whole text. Never fails: codecs degrade gracefully.
    NoteDocument(const QString& persistedContent, NoteContentType contentType);
    // Same, when the caller already holds the file's UTF-8 bytes (saves re-encoding to hash them).
    NoteDocument(const QString& persistedContent, const QByteArray& persistedBytes, NoteContentType contentType);
    // A new note about to be created; its revision is that of its own serialised text.
    NoteDocument(QString body, NoteEditor createdBy, NoteContentType contentType,
                 NoteFrontMatterFields frontMatterFields = {});

    // The file text for a new version of this document. The document itself is unchanged.
    QString serialized(const std::optional<QString>& body = std::nullopt,
                       const std::optional<NoteEditor>& editedBy = std::nullopt,
                       const NoteFrontMatterFields& frontMatterUpdates = {}) const;
    // What a reader sees: the Markdown body, or the HTML/sketch codec's visible text.
    QString visibleText() const;

    // Lower-case hex SHA-256 of the bytes, with no normalisation.
    static QString revision(const QByteArray& utf8Bytes);
    static QString revision(const QString& text) { return revision(text.toUtf8()); }

    QString body;
    NoteEditor createdBy = NoteEditor::human();
    std::optional<NoteEditor> lastEditedBy;
    NoteFrontMatterFields frontMatterFields;

    NoteContentType contentType() const { return contentType_; }
    // Metadata lines no field of ours describes ("status: draft"), as they stand in the file.
    const QStringList& unrelatedMetadata() const { return payload_.unrelatedMetadata; }
    const QString& revision() const { return revision_; }

    bool operator==(const NoteDocument&) const = default;

private:
    NoteContentType contentType_;
    QString revision_;
    NoteDocumentPayload payload_;
};

// The contract every note format's codec fulfils. Codecs never fail: malformed
// input degrades to body text.
class NoteDocumentCodec {
public:
    virtual ~NoteDocumentCodec() = default;
    virtual NoteContentType contentType() const = 0;
    virtual NoteDocumentPayload decode(const QString& text) const = 0;
    virtual QString encode(const QString& body, const std::optional<NoteEditor>& editedBy,
                           const NoteDocumentPayload& payload) const = 0;
    // The text a reader sees in a payload's body.
    virtual QString visibleText(const NoteDocumentPayload& payload) const = 0;
};

namespace NoteDocumentCodecs {
// The codec for a content type; codecs are stateless and live for the whole program.
const NoteDocumentCodec& codec(NoteContentType type);
}  // namespace NoteDocumentCodecs

}  // namespace mossly
