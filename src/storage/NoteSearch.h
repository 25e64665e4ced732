#pragma once

#include <QString>
#include <QStringList>
#include <optional>
#include <vector>

namespace mossly {

enum class NoteSearchMode { keyword, meaning, hybrid };

struct NoteSearchResult {
    QString identifier;
    QString title;
    QString excerpt;
    double score = 0;
    double keywordScore = 0;
    std::optional<double> meaningScore;
    QString revision;
    QString createdBy;
    std::optional<QString> lastEditedBy;
    bool semanticAvailable = false;

    bool operator==(const NoteSearchResult&) const = default;
};

struct NoteSearchResponse {
    std::vector<NoteSearchResult> results;
    bool semanticAvailable = false;
    std::optional<QString> warning;
};

namespace NoteSearch {

constexpr int maximumLimit = 500;
constexpr qsizetype maximumExcerptLength = 240;

// Case- and diacritic-folded query terms, split at everything that is neither
// a letter nor a number; duplicates kept, in query order.
QStringList normalizedTerms(const QString& query);
// One letter or number as a term holds it: a precomposed Latin letter without
// its accents, in lower case.
QString foldedCharacter(char32_t codePoint);
// Each term double-quoted (inner quotes doubled), joined with " OR ".
QString ftsExpression(const QStringList& terms);
// The excerpt rule: at most 240 characters, else the first 237 and "…".
QString clippedExcerpt(const QString& snippet);
// A stable link that opens the note in the app.
QString openURL(const QString& identifier);

// JSON with the keys in their documented order, plus "openURL".
QString toJson(const NoteSearchResult& result);
QString toJson(const NoteSearchResponse& response);

}  // namespace NoteSearch

}  // namespace mossly
