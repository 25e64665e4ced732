#include "WordVectorEmbedder.h"

#include <algorithm>
#include <cmath>

#include "NoteSearch.h"

namespace mossly {

namespace {

// The smoothing of the inverse-frequency weight; word probabilities follow
// Zipf's law from each word's frequency rank.
constexpr double smoothing = 1e-3;

double wordWeight(quint32 rank) { return smoothing / (smoothing + 0.1 / (double(rank) + 1.0)); }

bool isAsciiWordCharacter(char16_t c) { return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9'); }

}  // namespace

WordVectorEmbedder::WordVectorEmbedder(std::shared_ptr<const WordVectorTable> table, NoteChunking::Sizes sizes,
                                       WordVectorWeighting weighting)
    : table_(std::move(table)), sizes_(sizes), weighting_(weighting) {}

std::vector<std::string> WordVectorEmbedder::words(QStringView text) {
    // The query terms' folding (NoteSearch::normalizedTerms), with a fast path
    // for ASCII, which is nearly all of most notes.
    const bool ascii = std::all_of(text.begin(), text.end(), [](QChar c) { return c.unicode() < 0x80; });
    const QString composed = ascii ? QString() : text.toString().normalized(QString::NormalizationForm_C);
    const QStringView source = ascii ? text : QStringView(composed);
    std::vector<std::string> found;
    std::string current;
    const auto endWord = [&] {
        if (!current.empty()) found.push_back(std::move(current));
        current.clear();
    };
    for (qsizetype i = 0; i < source.size(); ++i) {
        const char16_t c = source[i].unicode();
        if (c < 0x80) {
            if (isAsciiWordCharacter(c)) {
                current.push_back(static_cast<char>(c >= u'A' && c <= u'Z' ? c + 32 : c));
            } else {
                endWord();
            }
            continue;
        }
        char32_t codePoint = c;
        if (QChar::isHighSurrogate(c) && i + 1 < source.size() && source[i + 1].isLowSurrogate()) {
            codePoint = QChar::surrogateToUcs4(c, source[i + 1].unicode());
            ++i;
        }
        if (!QChar::isLetterOrNumber(codePoint) && QChar::category(codePoint) != QChar::Other_PrivateUse) {
            endWord();
            continue;
        }
        current += NoteSearch::foldedCharacter(codePoint).toStdString();
    }
    endWord();
    return found;
}

std::vector<float> WordVectorEmbedder::embed(QStringView text) const {
    const int dimension = table_->dimension();
    std::vector<double> sum(static_cast<size_t>(dimension), 0.0);
    bool any = false;
    for (const std::string& word : words(text)) {
        const auto found = table_->find(word);
        if (!found) continue;
        any = true;
        const double weight = (weighting_.inverseFrequency ? wordWeight(found->rank) : 1.0) * found->scale;
        for (int d = 0; d < dimension; ++d) sum[d] += weight * found->vector[d];
    }
    std::vector<float> vector(static_cast<size_t>(dimension), 0.0f);
    if (!any) return vector;
    const std::span<const float> common = table_->commonDirection();
    double along = 0.0;
    if (weighting_.removeCommonDirection) {
        for (int d = 0; d < dimension; ++d) along += sum[d] * common[d];
    }
    double norm = 0.0;
    for (int d = 0; d < dimension; ++d) {
        sum[d] -= along * common[d];
        norm += sum[d] * sum[d];
    }
    norm = std::sqrt(norm);
    if (norm == 0.0) return vector;
    for (int d = 0; d < dimension; ++d) vector[d] = static_cast<float>(sum[d] / norm);
    return vector;
}

Result<std::vector<SemanticIndexedChunk>> WordVectorEmbedder::chunks(const QString& visibleText) const {
    std::vector<SemanticIndexedChunk> result;
    for (const QString& text : NoteChunking::chunks(visibleText, sizes_)) {
        const std::vector<float> vector = embed(text);
        result.push_back({text, std::vector<double>(vector.begin(), vector.end())});
    }
    // A note without words still gets a row, so that it counts as indexed.
    if (result.empty()) result.push_back({QString(), std::vector<double>(static_cast<size_t>(dimension()), 0.0)});
    return result;
}

}  // namespace mossly
