#pragma once

#include <QString>
#include <cstdio>
#include <cstdlib>

#include "NoteDocument.h"

// What every codec promises for any text at all: decoding never fails, and a
// note written back from what was read reads back the same. A broken promise
// stops the fuzzer with the input that broke it.
namespace mossly::fuzz {

inline void require(bool condition, const char* what, const QString& text) {
    if (condition) return;
    std::fprintf(stderr, "broken promise: %s\ninput: %s\n", what, text.toUtf8().constData());
    std::abort();
}

inline void checkRewriteIsStable(NoteContentType type, const QString& text) {
    const NoteDocumentCodec& codec = NoteDocumentCodecs::codec(type);
    const NoteDocumentPayload first = codec.decode(text);
    (void)codec.visibleText(first);
    const QString written = codec.encode(first.body, first.lastEditedBy, first);
    const NoteDocumentPayload second = codec.decode(written);
    require(second.body == first.body, "the body survives a rewrite", text);
    require(second.createdBy == first.createdBy, "the creator survives a rewrite", text);
    require(second.lastEditedBy == first.lastEditedBy, "the last editor survives a rewrite", text);
    require(second.frontMatterFields == first.frontMatterFields, "typed fields survive a rewrite", text);
    // Writing what was just written changes nothing more.
    require(codec.encode(second.body, second.lastEditedBy, second) == written, "a second rewrite is a no-op", text);
}

}  // namespace mossly::fuzz
