#pragma once

#include <QString>
#include <memory>
#include <vector>

#include "NoteSearchCatalog.h"
#include "NoteChunking.h"
#include "WordVectorTable.h"

namespace mossly {

// The two refinements over a plain average, each measurable on its own.
struct WordVectorWeighting {
    bool inverseFrequency = true;
    bool removeCommonDirection = true;
};

// Meaning vectors from word vectors: a text's vector is the average of its
// words' vectors, each weighted by a / (a + p(word)) (rare words count more
// than "the"), less the direction that all such averages share, at unit
// length. English only: a word the table does not know adds nothing.
class WordVectorEmbedder final : public NoteSemanticProvider {
public:
    explicit WordVectorEmbedder(std::shared_ptr<const WordVectorTable> table, NoteChunking::Sizes sizes = {},
                                WordVectorWeighting weighting = {});

    int dimension() const { return table_->dimension(); }
    // Unit length, or all zeros when no word of `text` is known.
    std::vector<float> embed(QStringView text) const;
    // The words as the table spells them: case and Latin accents folded, split
    // wherever the search splits query terms. UTF-8.
    static std::vector<std::string> words(QStringView text);

    Result<std::vector<SemanticIndexedChunk>> chunks(const QString& visibleText) const override;

private:
    std::shared_ptr<const WordVectorTable> table_;
    NoteChunking::Sizes sizes_;
    WordVectorWeighting weighting_;
};

}  // namespace mossly
