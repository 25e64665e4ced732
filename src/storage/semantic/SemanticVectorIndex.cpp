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

// Identifiers are ordered by their UTF-8 bytes in the serialised form.
int compareBytes(QByteArrayView a, QByteArrayView b) {
    const int common = std::memcmp(a.data(), b.data(), static_cast<size_t>(std::min(a.size(), b.size())));
    if (common != 0) return common;
    return a.size() < b.size() ? -1 : a.size() > b.size() ? 1 : 0;
}

// Layout (little-endian): magic; dimension, note count, chunk count and string
// bytes (u32 each); per note, sorted by identifier, the identifier's and the
// revision's offset and size in the strings, its first chunk and its chunk
// count (u32 each); the strings (UTF-8); padding to four bytes; a scale per
// chunk (f32); the codes, dimension bytes per chunk.
constexpr char snapshotMagic[8] = {'M', 'O', 'S', 'S', 'V', 'I', '0', '2'};
constexpr int tableColumns = 6;
constexpr qsizetype headerSize = sizeof snapshotMagic + 16;
enum Column { identifierOffset, identifierSize, revisionOffset, revisionSize, firstChunk, chunkCount };

qsizetype paddedToFour(qsizetype size) { return (size + 3) & ~qsizetype{3}; }

}  // namespace

quint32 SemanticVectorIndex::Frozen::field(quint32 note, int column) const {
    return qFromLittleEndian<quint32>(table + (qsizetype{note} * tableColumns + column) * 4);
}

QByteArrayView SemanticVectorIndex::Frozen::identifier(quint32 note) const {
    return {strings + field(note, identifierOffset), qsizetype{field(note, identifierSize)}};
}

std::optional<quint32> SemanticVectorIndex::Frozen::find(const QString& wanted) const {
    const QByteArray key = wanted.toUtf8();
    quint32 low = 0, high = noteCount;
    while (low < high) {
        const quint32 middle = low + (high - low) / 2;
        const int order = compareBytes(identifier(middle), key);
        if (order == 0) return middle;
        if (order < 0) low = middle + 1;
        else high = middle;
    }
    return std::nullopt;
}

void SemanticVectorIndex::thaw() {
    if (!frozen_) return;
    const Frozen frozen = std::move(*frozen_);
    frozen_.reset();
    notes_.reserve(frozen.noteCount);
    positions_.reserve(frozen.noteCount);
    for (quint32 n = 0; n < frozen.noteCount; ++n) {
        const QByteArrayView identifier = frozen.identifier(n);
        const quint32 first = frozen.field(n, firstChunk), chunks = frozen.field(n, chunkCount);
        Note note{QString::fromUtf8(identifier),
                  QString::fromUtf8(frozen.strings + frozen.field(n, revisionOffset), frozen.field(n, revisionSize)),
                  {},
                  std::vector<float>(chunks)};
        const qint8* codes = frozen.codes + size_t{first} * static_cast<size_t>(dimension_);
        note.codes.assign(codes, codes + size_t{chunks} * static_cast<size_t>(dimension_));
        for (quint32 c = 0; c < chunks; ++c) note.scales[c] = qFromLittleEndian<float>(frozen.scales + 4 * (first + c));
        positions_.insert(note.identifier, static_cast<qsizetype>(notes_.size()));
        notes_.push_back(std::move(note));
    }
}

void SemanticVectorIndex::put(const QString& identifier, const QString& revision,
                              const std::vector<std::vector<double>>& chunks) {
    thaw();
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
    thaw();
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
    if (frozen_) {
        const auto n = frozen_->find(identifier);
        if (!n) return {};
        return QString::fromUtf8(frozen_->strings + frozen_->field(*n, revisionOffset), frozen_->field(*n, revisionSize));
    }
    const auto found = positions_.constFind(identifier);
    return found == positions_.constEnd() ? QString() : notes_[static_cast<size_t>(*found)].revision;
}

bool SemanticVectorIndex::contains(const QString& identifier) const {
    return frozen_ ? frozen_->find(identifier).has_value() : positions_.contains(identifier);
}

qsizetype SemanticVectorIndex::noteCount() const { return frozen_ ? qsizetype{frozen_->noteCount} : positions_.size(); }

QStringList SemanticVectorIndex::identifiers() const {
    if (!frozen_) return positions_.keys();
    QStringList all;
    all.reserve(frozen_->noteCount);
    for (quint32 n = 0; n < frozen_->noteCount; ++n) all.append(QString::fromUtf8(frozen_->identifier(n)));
    return all;
}

SemanticVectorIndex::QuantisedQuery SemanticVectorIndex::quantised(std::span<const float> query) const {
    std::vector<double> values(query.begin(), query.end());
    values.resize(static_cast<size_t>(dimension_), 0.0);
    auto [codes, scale] = quantise(values);
    return {std::move(codes), scale};
}

template <typename ScaleOf>
std::pair<double, int> SemanticVectorIndex::best(const qint8* codes, size_t chunks, ScaleOf scaleOf,
                                                 const QuantisedQuery& query) const {
    double bestScore = -2.0;
    int bestChunk = -1;
    for (size_t chunk = 0; chunk < chunks; ++chunk) {
        const int raw = dot(codes + chunk * static_cast<size_t>(dimension_), query.codes.data(), dimension_);
        const double score = double(raw) * scaleOf(chunk) * query.scale;
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
    // Identifiers are made only for notes that may enter the top.
    const auto consider = [&](double score, int chunk, auto identifierOf) {
        if (chunk < 0) return;
        if (static_cast<qsizetype>(top.size()) == limit) {
            const Hit& worst = top.front();
            if (score < worst.score) return;
            const QString identifier = identifierOf();
            if (score == worst.score && !(identifier < worst.identifier)) return;
            std::pop_heap(top.begin(), top.end(), worseFirst);
            top.pop_back();
            top.push_back({identifier, score, chunk});
        } else {
            top.push_back({identifierOf(), score, chunk});
        }
        std::push_heap(top.begin(), top.end(), worseFirst);
    };
    if (frozen_) {
        const Frozen& frozen = *frozen_;
        for (quint32 n = 0; n < frozen.noteCount; ++n) {
            const quint32 first = frozen.field(n, firstChunk);
            const auto [score, chunk] = best(
                frozen.codes + size_t{first} * static_cast<size_t>(dimension_), frozen.field(n, chunkCount),
                [&](size_t c) { return qFromLittleEndian<float>(frozen.scales + 4 * (first + c)); }, q);
            consider(score, chunk, [&] { return QString::fromUtf8(frozen.identifier(n)); });
        }
    } else {
        for (const Note& note : notes_) {
            const auto [score, chunk] =
                best(note.codes.data(), note.scales.size(), [&](size_t c) { return note.scales[c]; }, q);
            consider(score, chunk, [&] { return note.identifier; });
        }
    }
    std::sort(top.begin(), top.end(), better);
    return top;
}

std::optional<std::pair<double, int>> SemanticVectorIndex::bestOf(const QString& identifier,
                                                                 const QuantisedQuery& query) const {
    if (frozen_) {
        const auto n = frozen_->find(identifier);
        if (!n) return std::nullopt;
        const quint32 first = frozen_->field(*n, firstChunk);
        return best(frozen_->codes + size_t{first} * static_cast<size_t>(dimension_), frozen_->field(*n, chunkCount),
                    [&](size_t c) { return qFromLittleEndian<float>(frozen_->scales + 4 * (first + c)); }, query);
    }
    const auto found = positions_.constFind(identifier);
    if (found == positions_.constEnd()) return std::nullopt;
    const Note& note = notes_[static_cast<size_t>(*found)];
    return best(note.codes.data(), note.scales.size(), [&](size_t c) { return note.scales[c]; }, query);
}

std::optional<SemanticVectorIndex::Hit> SemanticVectorIndex::score(const QString& identifier,
                                                                  std::span<const float> query) const {
    const auto found = bestOf(identifier, quantised(query));
    if (!found || found->second < 0) return std::nullopt;
    return Hit{identifier, found->first, found->second};
}

size_t SemanticVectorIndex::vectorBytes() const {
    if (frozen_) {
        const size_t chunks = qFromLittleEndian<quint32>(frozen_->whole.data() + sizeof snapshotMagic + 8);
        return chunks * (static_cast<size_t>(dimension_) + sizeof(float));
    }
    size_t bytes = 0;
    for (const Note& note : notes_) bytes += note.codes.size() + note.scales.size() * sizeof(float);
    return bytes;
}

QByteArray SemanticVectorIndex::serialised() const {
    if (frozen_) return frozen_->whole.toByteArray();
    struct Entry {
        QByteArray identifier, revision;
        const Note* note;
    };
    std::vector<Entry> entries;
    entries.reserve(notes_.size());
    qsizetype stringBytes = 0;
    size_t chunks = 0;
    for (const Note& note : notes_) {
        entries.push_back({note.identifier.toUtf8(), note.revision.toUtf8(), &note});
        stringBytes += entries.back().identifier.size() + entries.back().revision.size();
        chunks += note.scales.size();
    }
    std::sort(entries.begin(), entries.end(),
              [](const Entry& a, const Entry& b) { return compareBytes(a.identifier, b.identifier) < 0; });
    const qsizetype tableBytes = static_cast<qsizetype>(entries.size()) * tableColumns * 4;
    const qsizetype scalesAt = paddedToFour(headerSize + tableBytes + stringBytes);
    const qsizetype codesAt = scalesAt + static_cast<qsizetype>(chunks) * 4;
    QByteArray out(codesAt + static_cast<qsizetype>(chunks) * dimension_, '\0');
    char* data = out.data();
    std::memcpy(data, snapshotMagic, sizeof snapshotMagic);
    const quint32 header[] = {static_cast<quint32>(dimension_), static_cast<quint32>(entries.size()),
                              static_cast<quint32>(chunks), static_cast<quint32>(stringBytes)};
    qToLittleEndian<quint32>(header, 4, data + sizeof snapshotMagic);
    char* row = data + headerSize;
    char* strings = row + tableBytes;
    quint32 stringAt = 0, chunkAt = 0;
    for (const Entry& entry : entries) {
        const auto idSize = static_cast<quint32>(entry.identifier.size());
        const auto revSize = static_cast<quint32>(entry.revision.size());
        const auto noteChunks = static_cast<quint32>(entry.note->scales.size());
        const quint32 fields[tableColumns] = {stringAt, idSize, stringAt + idSize, revSize, chunkAt, noteChunks};
        qToLittleEndian<quint32>(fields, tableColumns, row);
        row += tableColumns * 4;
        std::memcpy(strings + stringAt, entry.identifier.constData(), idSize);
        std::memcpy(strings + stringAt + idSize, entry.revision.constData(), revSize);
        stringAt += idSize + revSize;
        qToLittleEndian<float>(entry.note->scales.data(), noteChunks, data + scalesAt + qsizetype{chunkAt} * 4);
        std::memcpy(data + codesAt + qsizetype{chunkAt} * dimension_, entry.note->codes.data(), entry.note->codes.size());
        chunkAt += noteChunks;
    }
    return out;
}

std::optional<SemanticVectorIndex> SemanticVectorIndex::inPlace(std::shared_ptr<const void> owner, QByteArrayView bytes,
                                                                int dimension) {
    if (bytes.size() < headerSize || std::memcmp(bytes.data(), snapshotMagic, sizeof snapshotMagic) != 0) {
        return std::nullopt;
    }
    quint32 header[4];
    qFromLittleEndian<quint32>(bytes.data() + sizeof snapshotMagic, 4, header);
    const auto [storedDimension, notes, chunks, stringBytes] = header;
    if (storedDimension != static_cast<quint32>(dimension)) return std::nullopt;
    const qsizetype tableBytes = qsizetype{notes} * tableColumns * 4;
    const qsizetype scalesAt = paddedToFour(headerSize + tableBytes + qsizetype{stringBytes});
    const qsizetype codesAt = scalesAt + qsizetype{chunks} * 4;
    if (bytes.size() != codesAt + qsizetype{chunks} * dimension) return std::nullopt;

    Frozen frozen;
    frozen.owner = std::move(owner);
    frozen.noteCount = notes;
    frozen.table = bytes.data() + headerSize;
    frozen.strings = frozen.table + tableBytes;
    frozen.scales = bytes.data() + scalesAt;
    frozen.codes = reinterpret_cast<const qint8*>(bytes.data() + codesAt);
    frozen.whole = bytes;
    // Every reference inside the bytes, checked once: a damaged file reads as nothing.
    qint64 nextChunk = 0;
    for (quint32 n = 0; n < notes; ++n) {
        const auto within = [&](int offset, int size) {
            return qsizetype{frozen.field(n, offset)} + frozen.field(n, size) <= qsizetype{stringBytes};
        };
        if (!within(identifierOffset, identifierSize) || !within(revisionOffset, revisionSize)) return std::nullopt;
        if (frozen.field(n, firstChunk) != nextChunk) return std::nullopt;
        nextChunk += frozen.field(n, chunkCount);
        if (nextChunk > chunks) return std::nullopt;
        if (n > 0 && compareBytes(frozen.identifier(n - 1), frozen.identifier(n)) >= 0) return std::nullopt;
    }
    if (nextChunk != chunks) return std::nullopt;
    SemanticVectorIndex index(dimension);
    index.frozen_ = std::move(frozen);
    return index;
}

std::optional<SemanticVectorIndex> SemanticVectorIndex::fromSerialised(QByteArrayView bytes, int dimension) {
    auto copy = std::make_shared<const QByteArray>(bytes.toByteArray());
    const QByteArrayView view(*copy);
    return inPlace(std::move(copy), view, dimension);
}

}  // namespace mossly
