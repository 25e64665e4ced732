#include <cstddef>
#include <cstdint>

#include "CodecFuzzing.h"
#include "MarkdownDocumentCodec.h"

// Any text is a note someone may have written: it must read, write back and
// keep its body, whether as a whole file or as the body of a new note.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace mossly;
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    fuzz::checkRewriteIsStable(NoteContentType::markdown, text);

    const MarkdownDocumentCodec codec;
    const NoteDocumentPayload fresh;
    for (const auto& editor : {std::optional<NoteEditor>{}, std::optional(NoteEditor::agent(QStringLiteral("fuzz")))}) {
        const NoteDocumentPayload read = codec.decode(codec.encode(text, editor, fresh));
        fuzz::require(read.body == text, "any body reads back exactly", text);
        fuzz::require(read.lastEditedBy == editor, "the editor reads back", text);
    }
    return 0;
}
