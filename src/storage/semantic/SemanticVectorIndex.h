#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>
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
    bool contains(const QString& identifier) const { return positions_.contains(identifier); }
    qsizetype noteCount() const { return positions_.size(); }
    QStringList identifiers() const { return positions_.keys(); }

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

private:
    struct Note {
        QString identifier;
        QString revision;
        std::vector<qint8> codes;  // chunk count × dimension
        std::vector<float> scales;
    };
    struct QuantisedQuery {
        std::vector<qint8> codes;
        float scale;
    };
    QuantisedQuery quantised(std::span<const float> query) const;
    std::pair<double, int> best(const Note& note, const QuantisedQuery& query) const;

    int dimension_;
    std::vector<Note> notes_;
    QHash<QString, qsizetype> positions_;
};

}  // namespace mossly
