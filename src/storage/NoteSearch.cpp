#include "NoteSearch.h"

#include "NoteTitle.h"

#include <QUrl>
#include <algorithm>

#include "JsonWriter.h"

namespace mossly {

QString NoteSearch::foldedCharacter(char32_t codePoint) {
    QString character = QString::fromUcs4(&codePoint, 1);
    const QString decomposed = character.normalized(QString::NormalizationForm_D);
    if (decomposed.size() > 1 && std::all_of(decomposed.begin() + 1, decomposed.end(), [](QChar c) {
            return c.unicode() >= 0x0300 && c.unicode() <= 0x036F;
        })) {
        character = decomposed.left(1);
    }
    return character.toLower();
}

QStringList NoteSearch::normalizedTerms(const QString& query) {
    // Split exactly where the catalog's unicode61 tokenizer splits: only
    // letters, numbers and private-use characters make up words, so every
    // combining mark (a virama, a Thai vowel sign, a haraka) separates, as it
    // does in the index. Like remove_diacritics, a precomposed Latin letter
    // loses its accents ("é" is "e"), and case is folded.
    const QString composed = query.normalized(QString::NormalizationForm_C);
    QStringList terms;
    QString current;
    for (const char32_t codePoint : composed.toUcs4()) {
        const QChar::Category category = QChar::category(codePoint);
        if (!QChar::isLetterOrNumber(codePoint) && category != QChar::Other_PrivateUse) {
            if (!current.isEmpty()) terms.append(current);
            current.clear();
            continue;
        }
        current += foldedCharacter(codePoint);
    }
    if (!current.isEmpty()) terms.append(current);
    return terms;
}

QString NoteSearch::ftsExpression(const QStringList& terms) {
    QStringList quoted;
    for (QString term : terms) quoted.append(u'"' + term.replace(u'"', QStringLiteral("\"\"")) + u'"');
    return quoted.join(QStringLiteral(" OR "));
}

QString NoteSearch::clippedExcerpt(const QString& snippet) {
    // Characters as people count them: an emoji or an accented letter is one.
    if (snippet.size() <= maximumExcerptLength) return snippet;
    if (leadingGraphemes(snippet, maximumExcerptLength) == snippet) return snippet;
    return leadingGraphemes(snippet, maximumExcerptLength - 3) + QStringLiteral("…");
}

QString NoteSearch::openURL(const QString& identifier) {
    return QStringLiteral("mossly://note/") + QString::fromLatin1(QUrl::toPercentEncoding(identifier, "/"));
}

QString NoteSearch::toJson(const NoteSearchResult& result) {
    JsonObjectWriter json;
    json.add(QStringLiteral("identifier"), result.identifier)
        .add(QStringLiteral("title"), result.title)
        .add(QStringLiteral("excerpt"), result.excerpt)
        .add(QStringLiteral("score"), result.score)
        .add(QStringLiteral("keywordScore"), result.keywordScore);
    if (result.meaningScore) json.add(QStringLiteral("meaningScore"), *result.meaningScore);
    json.add(QStringLiteral("revision"), result.revision).add(QStringLiteral("createdBy"), result.createdBy);
    if (result.lastEditedBy) json.add(QStringLiteral("lastEditedBy"), *result.lastEditedBy);
    json.add(QStringLiteral("semanticAvailable"), result.semanticAvailable)
        .add(QStringLiteral("openURL"), openURL(result.identifier));
    return json.text();
}

QString NoteSearch::toJson(const NoteSearchResponse& response) {
    QStringList results;
    for (const NoteSearchResult& result : response.results) results.append(toJson(result));
    JsonObjectWriter json;
    json.addRaw(QStringLiteral("results"), jsonArray(results))
        .add(QStringLiteral("semanticAvailable"), response.semanticAvailable);
    if (response.warning) json.add(QStringLiteral("warning"), *response.warning);
    return json.text();
}

}  // namespace mossly
