#include "SemanticVectorIndex.h"

#include <QtEndian>
#include <algorithm>
#include <cmath>
#include <cstring>

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

namespace {

constexpr char snapshotMagic[8] = {'M', 'O', 'S', 'S', 'V', 'I', '0', '1'};

void appendU32(QByteArray& out, quint32 value) {
    char bytes[4];
    qToLittleEndian(value, bytes);
    out.append(bytes, 4);
}

void appendText(QByteArray& out, const QString& text) {
    const QByteArray utf8 = text.toUtf8();
    appendU32(out, static_cast<quint32>(utf8.size()));
    out.append(utf8);
}

// Reads forward through the bytes; any read past the end fails the whole parse.
struct Reader {
    QByteArrayView bytes;
    qsizetype at = 0;
    bool failed = false;
    const char* take(qsizetype count) {
        if (failed || count < 0 || bytes.size() - at < count) {
            failed = true;
            return nullptr;
        }
        const char* start = bytes.data() + at;
        at += count;
        return start;
    }
    quint32 u32() {
        const char* p = take(4);
        return p ? qFromLittleEndian<quint32>(p) : 0;
    }
    QString text() {
        const quint32 size = u32();
        const char* p = take(size);
        return p ? QString::fromUtf8(p, size) : QString();
    }
};

}  // namespace

QByteArray SemanticVectorIndex::serialised() const {
    QByteArray out(snapshotMagic, sizeof snapshotMagic);
    appendU32(out, static_cast<quint32>(dimension_));
    appendU32(out, static_cast<quint32>(notes_.size()));
    for (const Note& note : notes_) {
        appendText(out, note.identifier);
        appendText(out, note.revision);
        appendU32(out, static_cast<quint32>(note.scales.size()));
        for (float scale : note.scales) {
            char bytes[4];
            qToLittleEndian(scale, bytes);
            out.append(bytes, 4);
        }
        out.append(reinterpret_cast<const char*>(note.codes.data()), static_cast<qsizetype>(note.codes.size()));
    }
    return out;
}

std::optional<SemanticVectorIndex> SemanticVectorIndex::fromSerialised(QByteArrayView bytes, int dimension) {
    Reader reader{bytes};
    const char* magic = reader.take(sizeof snapshotMagic);
    if (!magic || std::memcmp(magic, snapshotMagic, sizeof snapshotMagic) != 0) return std::nullopt;
    if (reader.u32() != static_cast<quint32>(dimension)) return std::nullopt;
    const quint32 count = reader.u32();
    SemanticVectorIndex index(dimension);
    for (quint32 n = 0; n < count && !reader.failed; ++n) {
        Note note;
        note.identifier = reader.text();
        note.revision = reader.text();
        const quint32 chunks = reader.u32();
        const char* scales = reader.take(qsizetype{4} * chunks);
        const char* codes = reader.take(qsizetype{chunks} * dimension);
        if (reader.failed || index.positions_.contains(note.identifier)) return std::nullopt;
        note.scales.resize(chunks);
        for (quint32 c = 0; c < chunks; ++c) note.scales[c] = qFromLittleEndian<float>(scales + 4 * c);
        note.codes.assign(reinterpret_cast<const qint8*>(codes), reinterpret_cast<const qint8*>(codes) + chunks * dimension);
        index.positions_.insert(note.identifier, static_cast<qsizetype>(index.notes_.size()));
        index.notes_.push_back(std::move(note));
    }
    if (reader.failed || reader.at != bytes.size()) return std::nullopt;
    return index;
}

}  // namespace mossly
