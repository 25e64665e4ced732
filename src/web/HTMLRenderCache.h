#pragma once

#include <QCache>
#include <QHash>
#include <QMutex>
#include <QString>
#include <QUrl>

#include "HTMLRenderResult.h"

namespace mossly {

// Prepared HTML notes kept in memory, so re-showing an unchanged note costs a
// lookup. Entries are keyed by the source text and the note's folder (the same
// text elsewhere resolves its file references differently). Thread-safe: the
// lock is not held while a note is prepared, so two threads may prepare the
// same note at once and both get the same result.
class HTMLRenderCache {
  public:
    // Linux has no memory-pressure signal for a process to evict on, so the
    // cache is bounded instead: by the bytes its strings hold.
    static constexpr qsizetype defaultMaxBytes = 256 * 1024 * 1024;

    explicit HTMLRenderCache(qsizetype maxBytes = defaultMaxBytes);
    HTMLRenderCache(const HTMLRenderCache&) = delete;
    HTMLRenderCache& operator=(const HTMLRenderCache&) = delete;

    static HTMLRenderCache& shared();

    // The cached result, or HTMLRenderPolicy::prepare's, which is then kept.
    // Passing the same QString again is answered without reading its text
    // (a string made with QString::fromRawData must not change meanwhile).
    HTMLRenderResult prepare(const QString& source, const QUrl& noteURL = {});

    // Lower-case hex SHA-256 of the length-prefixed source and folder.
    static QString cacheKey(const QString& source, const QUrl& noteURL);

    qsizetype count() const;
    void clear();

  private:
    struct Entry {
        HTMLRenderResult result;
        QString source;  // keeps the text's buffer alive, so its address identifies it
        QString folder;
    };
    const Entry* entryForBuffer(const QString& source, const QString& folder) const;

    mutable QMutex mutex_;
    QCache<QString, Entry> entries_;
    QHash<const QChar*, QString> keysByBuffer_;
};

}  // namespace mossly
