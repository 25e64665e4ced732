#include "SemanticVectorIndex.h"

#include <algorithm>
#include <cmath>

namespace mossly {

namespace {

std::pair<std::vector<qint8>, float> quantise(std::span<const double> values) {
    double largest = 0.0;
    for (double v : values) largest = std::max(largest, std::abs(v));
    const float scale = largest > 0.0 ? static_cast<float>(largest / 127.0) : 1.0f;
    std::vector<qint8> codes(values.size());
    for (size_t i = 0; i < values.size(); ++i) codes[i] = static_cast<qint8>(std::lround(values[i] / scale));
    return {std::move(codes), scale};
}

// Written so that the compiler turns it into vector instructions.
int dot(const qint8* a, const qint8* b, int dimension) {
    int sum = 0;
    for (int i = 0; i < dimension; ++i) sum += int(a[i]) * int(b[i]);
    return sum;
}

bool better(const SemanticVectorIndex::Hit& a, const SemanticVectorIndex::Hit& b) {
    if (a.score != b.score) return a.score > b.score;
    return a.identifier < b.identifier;
}

}  // namespace

void SemanticVectorIndex::put(const QString& identifier, const QString& revision,
                              const std::vector<std::vector<double>>& chunks) {
    Note note{identifier, revision, {}, {}};
    note.codes.reserve(chunks.size() * static_cast<size_t>(dimension_));
    for (const std::vector<double>& chunk : chunks) {
        if (static_cast<int>(chunk.size()) != dimension_) continue;  // written by another table: ignored
        auto [codes, scale] = quantise(chunk);
        note.codes.insert(note.codes.end(), codes.begin(), codes.end());
        note.scales.push_back(scale);
    }
    if (const auto found = positions_.constFind(identifier); found != positions_.constEnd()) {
        notes_[static_cast<size_t>(*found)] = std::move(note);
        return;
    }
    positions_.insert(identifier, static_cast<qsizetype>(notes_.size()));
    notes_.push_back(std::move(note));
}

void SemanticVectorIndex::remove(const QString& identifier) {
    const auto found = positions_.constFind(identifier);
    if (found == positions_.constEnd()) return;
    const qsizetype position = *found;
    positions_.erase(found);
    // The last note takes the removed one's place.
    if (position != static_cast<qsizetype>(notes_.size()) - 1) {
        notes_[static_cast<size_t>(position)] = std::move(notes_.back());
        positions_[notes_[static_cast<size_t>(position)].identifier] = position;
    }
    notes_.pop_back();
}

QString SemanticVectorIndex::revision(const QString& identifier) const {
    const auto found = positions_.constFind(identifier);
    return found == positions_.constEnd() ? QString() : notes_[static_cast<size_t>(*found)].revision;
}

SemanticVectorIndex::QuantisedQuery SemanticVectorIndex::quantised(std::span<const float> query) const {
    std::vector<double> values(query.begin(), query.end());
    values.resize(static_cast<size_t>(dimension_), 0.0);
    auto [codes, scale] = quantise(values);
    return {std::move(codes), scale};
}

std::pair<double, int> SemanticVectorIndex::best(const Note& note, const QuantisedQuery& query) const {
    double bestScore = -2.0;
    int bestChunk = -1;
    for (size_t chunk = 0; chunk < note.scales.size(); ++chunk) {
        const int raw = dot(note.codes.data() + chunk * static_cast<size_t>(dimension_), query.codes.data(), dimension_);
        const double score = double(raw) * note.scales[chunk] * query.scale;
        if (score > bestScore) {
            bestScore = score;
            bestChunk = static_cast<int>(chunk);
        }
    }
    return {bestScore, bestChunk};
}

std::vector<SemanticVectorIndex::Hit> SemanticVectorIndex::nearest(std::span<const float> query, qsizetype limit) const {
    std::vector<Hit> top;
    if (limit <= 0) return top;
    const QuantisedQuery q = quantised(query);
    // A min-heap of the best `limit` so far: its front is the worst kept.
    const auto worseFirst = [](const Hit& a, const Hit& b) { return better(a, b); };
    for (const Note& note : notes_) {
        const auto [score, chunk] = best(note, q);
        if (chunk < 0) continue;
        if (static_cast<qsizetype>(top.size()) == limit) {
            const Hit& worst = top.front();
            if (score < worst.score || (score == worst.score && !(note.identifier < worst.identifier))) continue;
            std::pop_heap(top.begin(), top.end(), worseFirst);
            top.pop_back();
        }
        top.push_back({note.identifier, score, chunk});
        std::push_heap(top.begin(), top.end(), worseFirst);
    }
    std::sort(top.begin(), top.end(), better);
    return top;
}

std::optional<SemanticVectorIndex::Hit> SemanticVectorIndex::score(const QString& identifier,
                                                                  std::span<const float> query) const {
    const auto found = positions_.constFind(identifier);
    if (found == positions_.constEnd()) return std::nullopt;
    const Note& note = notes_[static_cast<size_t>(*found)];
    const auto [value, chunk] = best(note, quantised(query));
    if (chunk < 0) return std::nullopt;
    return Hit{identifier, value, chunk};
}

size_t SemanticVectorIndex::vectorBytes() const {
    size_t bytes = 0;
    for (const Note& note : notes_) bytes += note.codes.size() + note.scales.size() * sizeof(float);
    return bytes;
}

}  // namespace mossly
