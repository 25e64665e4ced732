#pragma once

#include <QByteArray>
#include <QString>
#include <memory>
#include <optional>
#include <span>
#include <string_view>

#include "Error.h"

namespace mossly {

// The word vectors that meaning search is built from, memory-mapped from the
// table that make-word-table.mjs writes at build time: loading costs a check
// of the layout, not a read of 12 MB, so a one-shot command can use it.
class WordVectorTable {
public:
    // Fails with `embeddingsUnavailable` when the file is missing, truncated or
    // not a table of this layout.
    static Result<std::shared_ptr<const WordVectorTable>> open(const QString& path);
    // Where the table is: $MOSSLY_WORD_VECTORS, beside the installed programs
    // (../share/mossly/), or in the build tree.
    static QString defaultPath();
    ~WordVectorTable();

    int dimension() const { return dimension_; }
    qsizetype wordCount() const { return wordCount_; }

    struct Word {
        quint32 rank;  // 0: the most frequent word
        float scale;   // component i is vector[i] * scale
        std::span<const qint8> vector;
    };
    // `word` folded as the search folds query terms, UTF-8.
    std::optional<Word> find(std::string_view word) const;
    // The direction that weighted sentence vectors share most (unit length).
    std::span<const float> commonDirection() const { return {common_, static_cast<size_t>(dimension_)}; }

private:
    WordVectorTable() = default;
    std::string_view wordAt(qsizetype index) const;

    void* mapping_ = nullptr;
    size_t mappingSize_ = 0;
    int dimension_ = 0;
    qsizetype wordCount_ = 0;
    const float* common_ = nullptr;
    const quint32* ranks_ = nullptr;
    const float* scales_ = nullptr;
    const quint32* wordEnds_ = nullptr;
    const qint8* vectors_ = nullptr;
    const char* pool_ = nullptr;
};

}  // namespace mossly
