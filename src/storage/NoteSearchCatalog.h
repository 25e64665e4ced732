#pragma once

#include <QByteArray>
#include <QString>
#include <memory>
#include <functional>
#include <mutex>
#include <stop_token>
#include <vector>

#include "Error.h"
#include "StoredNote.h"
#include "KeywordRanking.h"
#include "NoteSearch.h"

namespace mossly {

class NoteRepository;
class SqliteDatabase;
class SqliteStatement;

struct SemanticIndexedChunk {
    QString text;
    std::vector<double> vector;
};

struct SemanticSearchCatalogEntry {
    QString identifier;
    QString title;
    QString revision;
    QString createdBy;
    std::optional<QString> lastEditedBy;
    std::vector<SemanticIndexedChunk> chunks;
};

// Turns a note's visible text into chunks with embedding vectors.
class NoteSemanticProvider {
public:
    virtual ~NoteSemanticProvider() = default;
    virtual Result<std::vector<SemanticIndexedChunk>> chunks(const QString& visibleText) const = 0;
};

// The SQLite search catalog that mirrors a notes folder: one metadata row and
// one full-text row per note, plus semantic chunks. It is a cache: deleting
// it loses nothing, and `synchronize` rebuilds it. Several processes may open
// the same file (WAL and a busy timeout arbitrate); within a process one
// object may be shared between threads.
class NoteSearchCatalog {
public:
    // $XDG_CACHE_HOME/com.bellam.notes/agent-search.sqlite
    static QString defaultUrl();
    // The app keeps its own catalog inside the notes folder.
    static inline const QString notesFolderCatalogName = QStringLiteral(".mossly-search.sqlite");

    // Opens or creates the catalog (and its folder), applies the connection
    // settings and the schema.
    static Result<std::unique_ptr<NoteSearchCatalog>> open(const QString& url);
    ~NoteSearchCatalog();

    // Brings the catalog up to date with the folder; re-reads only notes whose
    // modification time or size changed. Returns the number of notes indexed.
    // `stop` is checked between notes; a stopped run rolls back and fails with `cancelled`.
    // Told how many changed notes are indexed so far, out of how many; called
    // on the synchronising thread, every few hundred notes and at the end.
    using Progress = std::function<void(int done, int total)>;
    void setProgressHandler(Progress progress) { progress_ = std::move(progress); }

    Result<int> synchronize(const NoteRepository& repository, const NoteSemanticProvider* semantic = nullptr,
                            std::stop_token stop = {});
    // The same with the folder listed already, a moment ago.
    using Listing = std::vector<NoteFileMetadata>;
    Result<int> synchronize(const NoteRepository& repository, Listing listing, const NoteSemanticProvider* semantic,
                            std::stop_token stop = {});
    // Only the semantic rows of notes whose current revision has none. Runs
    // beside keyword synchronisations (each note in a transaction of its own),
    // so a long first embedding never holds up a search's keyword rows.
    Result<void> synchronizeSemanticRows(const NoteRepository& repository, const NoteSemanticProvider& semantic,
                                         std::stop_token stop = {});

    // Ranked keyword search; `limit` is clamped to 0…500. Without excerpts,
    // results carry none: for a caller that keeps only some of them and asks
    // `keywordExcerpts` for those (each excerpt reads and tokenises a note's text).
    enum class Excerpts { included, left };
    Result<NoteSearchResponse> search(const QString& query, qint64 limit, Excerpts excerpts = Excerpts::included);
    // The excerpts `search` gives these notes found by `query`, in order; empty for one that no longer matches.
    Result<QStringList> keywordExcerpts(const QString& query, const QStringList& identifiers);
    // The same search run as one SQL statement over every matching row. Slower;
    // kept as the reference that `search` must agree with exactly.
    Result<NoteSearchResponse> searchWithReferenceStatement(const QString& query, qint64 limit);

    Result<qint64> count();
    Result<std::vector<SemanticSearchCatalogEntry>> semanticEntries();

    // Told how many notes are embedded so far, out of how many; on the synchronising thread.
    void setSemanticProgressHandler(Progress progress) { semanticProgress_ = std::move(progress); }
    // How many notes the last synchronisation embedded.
    int lastSemanticCount() const { return lastSemanticCount_; }
    // Every note's identifier and current revision.
    Result<std::vector<std::pair<QString, QString>>> revisions();
    // A note's chunk vectors for `revision`, in chunk order; empty if it has none.
    Result<std::vector<std::vector<double>>> semanticVectors(const QString& identifier, const QString& revision);
    // A result for a note found by meaning: its metadata, and the chunk's text as
    // the excerpt. Nothing if the note is no longer in the catalog.
    Result<std::optional<NoteSearchResult>> meaningResult(const QString& identifier, int chunkIndex);
    // Changes when another connection commits (SQLite's data_version).
    Result<qint64> dataVersion();

    // Where the catalog's rows are at: the generations count every change to
    // the keyword rows and to the semantic rows, by any program; the catalog's
    // identifier is new whenever the file is. Something derived from the rows
    // and tagged with a stamp is still exact while the stamp is the same.
    struct Generation {
        QString catalogIdentifier;
        qint64 keyword = 0;
        qint64 semantic = 0;
        QString stamp() const;
        QString keywordStamp() const;
    };
    Result<Generation> generation();
    // Whether the catalog is still at `seen` and mirrors `listing`: every
    // listed note indexed as listed and nothing else, its rows linked up and,
    // `withSemanticRows`, every note embedded. Then synchronising would change
    // nothing, and what was read from the catalog at `seen` is up to date.
    Result<bool> mirrors(const Listing& listing, const Generation& seen, bool withSemanticRows);
    // Whether every full-text row has its metadata row and the other way round;
    // checked once a connection (another program may have broken the link).
    Result<bool> linksHold();

    // Keeps the keyword ranking snapshot in a file beside the catalog between
    // runs. For one-shot commands, which would otherwise build it from every
    // row each time.
    void keepSnapshotsBesideCatalog() { keepsSnapshotFiles_ = true; }
    static QString rankingFilePath(const QString& url) { return url + QStringLiteral("-ranking"); }

    // Closes the database and removes its files; later calls fail with "Database is closed.".
    Result<void> deleteCatalog();
    // Removes a catalog file and its "-wal" and "-shm" companions.
    static Result<void> deleteCache(const QString& url);

    const QString& url() const { return url_; }

    struct Statements;

private:
    NoteSearchCatalog(QString url, std::unique_ptr<SqliteDatabase> db, std::unique_ptr<Statements> statements);
    Result<void> requireOpen() const;
    Result<int> synchronizeKeywords(const NoteRepository& repository, Listing listing, std::stop_token stop);

    Result<void> synchronizeSemantic(const NoteRepository& repository, const NoteSemanticProvider& semantic,
                                     std::stop_token stop);
    Result<void> deleteRows(const QString& identifier);
    struct State {
        Generation generation;
        QByteArray listingDigest;
        std::optional<qint64> listingGeneration;
        std::optional<qint64> completeKeywordGeneration, completeSemanticGeneration;
    };
    Result<State> readState();
    // Whether every full-text row has its metadata row and the other way round.
    Result<bool> linksIntact();
    // Notes whose current revision has no semantic rows, and the generation at
    // which that was so. Marks the catalog complete when there are none, so
    // that the next check reads only its state.
    struct SemanticGaps {
        QStringList notes;
        Generation checked;
    };
    Result<SemanticGaps> notesWithoutSemanticRows();
    // Marks the catalog complete at `generation` if it is still there.
    void markSemanticComplete(const Generation& generation);
    Result<const KeywordRankingSnapshot*> loadRankingSnapshot();
    template <typename Body>
    auto inTransaction(Body&& body) -> decltype(body());

    // Keeps the snapshot check and a search's queries on one view of the catalog.
    class ReadTransaction {
    public:
        explicit ReadTransaction(NoteSearchCatalog& catalog);
        ~ReadTransaction();

    private:
        NoteSearchCatalog& catalog_;
        bool begun_;
    };
    // The ranking snapshot, reloaded if this or another connection changed the catalog.
    Result<const KeywordRankingSnapshot*> currentRankingSnapshot();
    // One pass over the matches of `expression` (or its one row `rowid`) into
    // `matchScan_` (or `rowScan_`); see PhraseFrequencyScan.
    // The excerpt of full-text row `rowid` for a MATCH `expression`.
    Result<QString> matchExcerpt(const QString& expression, qint64 rowid);
    Result<void> scanMatches(const QString& expression, std::optional<qint64> rowid, bool presenceOnly,
                             std::vector<qint64> wanted = {});

    QString url_;
    std::unique_ptr<SqliteDatabase> db_;
    std::unique_ptr<Statements> statements_;
    // Guards the handle and its statements.
    std::recursive_mutex lock_;
    // One synchronisation at a time, and one semantic pass at a time.
    std::mutex synchronizationLock_;
    std::mutex semanticLock_;
    bool linksVerified_ = false;
    // Each note's modification time and size as the catalog holds them.
    struct Fingerprint;
    struct FingerprintCache;
    std::unique_ptr<FingerprintCache> fingerprints_;
    std::optional<KeywordRankingSnapshot> rankingSnapshot_;
    qint64 rankingDataVersion_ = 0;
    quint64 rankingWrites_ = 0;
    quint64 writes_ = 0;  // counts this connection's changes to the keyword rows
    PhraseFrequencyScan* currentScan_ = nullptr;  // where the ranking's auxiliary function writes
    PhraseFrequencyScan matchScan_, rowScan_;      // kept between searches for their buffers
    Progress progress_;  // checked once per open catalog (see synchronizeKeywords)
    Progress semanticProgress_;
    int lastSemanticCount_ = 0;
    bool keepsSnapshotFiles_ = false;
};

}  // namespace mossly
