#include <cstddef>
#include <cstdint>

#include "CodecFuzzing.h"

// Sketch files are JSON written by another program: any text must decode
// without a crash and keep the drawing through a rewrite.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    mossly::fuzz::checkRewriteIsStable(mossly::NoteContentType::sketch, text);
    return 0;
}
