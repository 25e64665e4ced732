#include "NoteDocument.h"

#include <QCryptographicHash>
#include <openssl/evp.h>

#include "HtmlDocumentCodec.h"
#include "MarkdownDocumentCodec.h"
#include "SketchDocumentCodec.h"

namespace mossly {

NoteDocument::NoteDocument(const QString& persistedContent, NoteContentType contentType)
    : NoteDocument(persistedContent, persistedContent.toUtf8(), contentType) {}

NoteDocument::NoteDocument(const QString& persistedContent, const QByteArray& persistedBytes,
                           NoteContentType contentType)
    : contentType_(contentType),
      revision_(revision(persistedBytes)),
      payload_(NoteDocumentCodecs::codec(contentType).decode(persistedContent)) {
    body = payload_.body;
    createdBy = payload_.createdBy;
    lastEditedBy = payload_.lastEditedBy;
    frontMatterFields = payload_.frontMatterFields;
}

NoteDocument::NoteDocument(QString newBody, NoteEditor creator, NoteContentType contentType,
                           NoteFrontMatterFields fields)
    : body(std::move(newBody)),
      createdBy(std::move(creator)),
      frontMatterFields(std::move(fields)),
      contentType_(contentType) {
    payload_.body = body;
    payload_.createdBy = createdBy;
    payload_.frontMatterFields = frontMatterFields;
    revision_ = revision(serialized());
}

QString NoteDocument::serialized(const std::optional<QString>& newBody, const std::optional<NoteEditor>& editedBy,
                                 const NoteFrontMatterFields& frontMatterUpdates) const {
    // The public fields may have been edited since decoding; they win over the payload.
    NoteDocumentPayload merged = payload_;
    merged.body = newBody.value_or(body);
    merged.createdBy = createdBy;
    merged.lastEditedBy = lastEditedBy;
    merged.frontMatterFields = frontMatterFields;
    for (const auto& [key, value] : frontMatterUpdates) merged.frontMatterFields.insert_or_assign(key, value);
    return NoteDocumentCodecs::codec(contentType_).encode(merged.body, editedBy, merged);
}

QString NoteDocument::visibleText() const {
    NoteDocumentPayload current = payload_;
    current.body = body;
    return NoteDocumentCodecs::codec(contentType_).visibleText(current);
}

QString NoteDocument::revision(const QByteArray& utf8Bytes) {
    // OpenSSL's SHA-256 uses the CPU's SHA instructions: about ten times Qt's speed,
    // which matters when a whole library is read at start-up.
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(utf8Bytes.constData(), static_cast<size_t>(utf8Bytes.size()), digest, &length, EVP_sha256(),
                   nullptr) != 1) {
        return QString::fromLatin1(QCryptographicHash::hash(utf8Bytes, QCryptographicHash::Sha256).toHex());
    }
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char*>(digest), length).toHex());
}

const NoteDocumentCodec& NoteDocumentCodecs::codec(NoteContentType type) {
    static const MarkdownDocumentCodec markdown;
    static const HtmlDocumentCodec html;
    static const SketchDocumentCodec sketch;
    switch (type) {
        case NoteContentType::markdown: return markdown;
        case NoteContentType::html: return html;
        case NoteContentType::sketch: return sketch;
    }
    return markdown;
}

}  // namespace mossly
