#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace mossly {

// Every note's chunk vectors in memory, as signed bytes with a scale per
// chunk (an eighth of the doubles' size; a component is off by at most 1/254
// of the chunk's largest), so that a meaning search reads no vector from SQLite.
// Not thread-safe: its owner guards it.
class SemanticVectorIndex {
public:
    explicit SemanticVectorIndex(int dimension) : dimension_(dimension) {}

    // Adds or replaces a note's chunks.
    void put(const QString& identifier, const QString& revision, const std::vector<std::vector<double>>& chunks);
    void remove(const QString& identifier);
    // The revision whose vectors are held, or an empty string.
    QString revision(const QString& identifier) const;
    bool contains(const QString& identifier) const;
    qsizetype noteCount() const;
    QStringList identifiers() const;

    struct Hit {
        QString identifier;
        double score;    // the best chunk's cosine similarity
        int bestChunk;   // its position in the note
    };
    // The `limit` notes closest to `query` (unit length), best first; ties by identifier.
    std::vector<Hit> nearest(std::span<const float> query, qsizetype limit) const;
    // One note's score, or nothing if it has no vectors.
    std::optional<Hit> score(const QString& identifier, std::span<const float> query) const;

    // Bytes held by vectors and scales.
    size_t vectorBytes() const;

    // The whole index as bytes, and back: a one-shot command keeps it beside
    // the catalog instead of reading every vector from SQLite each time. Bytes
    // that are not a whole index of this dimension read as nothing.
    QByteArray serialised() const;
    static std::optional<SemanticVectorIndex> fromSerialised(QByteArrayView bytes, int dimension);
    // The same without copying or parsing: the index searches `bytes` where
    // they are (kept alive by `owner`) and parses them only on its first change.
    // What a one-shot search needs, with no time to build anything.
    static std::optional<SemanticVectorIndex> inPlace(std::shared_ptr<const void> owner, QByteArrayView bytes,
                                                      int dimension);

private:
    struct Note {
        QString identifier;
        QString revision;
        std::vector<qint8> codes;  // chunk count × dimension
        std::vector<float> scales;
    };
    // Serialised bytes searched in place; see `inPlace`.
    struct Frozen {
        std::shared_ptr<const void> owner;
        quint32 noteCount = 0;
        const char* table = nullptr;    // per note: identifier and revision (offset, size), first chunk, chunks
        const char* strings = nullptr;  // UTF-8
        const char* scales = nullptr;   // little-endian floats
        const qint8* codes = nullptr;
        QByteArrayView whole;
        quint32 field(quint32 note, int column) const;
        QByteArrayView identifier(quint32 note) const;
        std::optional<quint32> find(const QString& identifier) const;
    };
    struct QuantisedQuery {
        std::vector<qint8> codes;
        float scale;
    };
    QuantisedQuery quantised(std::span<const float> query) const;
    // The best chunk of `chunks` chunks at `codes`, scaled by `scaleOf(chunk)`.
    template <typename ScaleOf>
    std::pair<double, int> best(const qint8* codes, size_t chunks, ScaleOf scaleOf, const QuantisedQuery& query) const;
    std::optional<std::pair<double, int>> bestOf(const QString& identifier, const QuantisedQuery& query) const;
    void thaw();

    int dimension_;
    std::vector<Note> notes_;
    QHash<QString, qsizetype> positions_;
    std::optional<Frozen> frozen_;
};

}  // namespace mossly
