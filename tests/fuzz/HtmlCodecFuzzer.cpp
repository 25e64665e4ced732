#include <cstddef>
#include <cstdint>

#include "CodecFuzzing.h"

// HTML notes come from anywhere (saved pages, imports): any bytes must parse
// without a crash and keep the author's document through a rewrite.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    mossly::fuzz::checkRewriteIsStable(mossly::NoteContentType::html, text);
    return 0;
}
