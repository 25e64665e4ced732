#include "NoteSearchCatalog.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QSet>
#include <QStandardPaths>
#include <QtEndian>
#include <cerrno>
#include <cstring>
#include <unistd.h>

#include <sqlite3.h>

#include "CatalogSideFile.h"
#include "NoteListingDigest.h"
#include "NoteRepository.h"
#include "NotePrefetcher.h"
#include "NoteSearchCatalogStatements.h"

namespace mossly {

struct NoteSearchCatalog::Fingerprint {
    double modificationTime;
    qint64 fileSize;
    bool operator==(const Fingerprint&) const = default;
};

struct NoteSearchCatalog::FingerprintCache {
    qint64 dataVersion = 0;
    QHash<QString, Fingerprint> byIdentifier;
};

namespace {


QByteArray vectorBlob(const std::vector<double>& vector) {
    QByteArray blob(static_cast<qsizetype>(vector.size() * sizeof(double)), Qt::Uninitialized);
    for (size_t i = 0; i < vector.size(); ++i) {
        qToLittleEndian(vector[i], blob.data() + i * sizeof(double));
    }
    return blob;
}

std::vector<double> vectorFromBlob(const QByteArray& blob) {
    std::vector<double> vector(static_cast<size_t>(blob.size()) / sizeof(double));
    for (size_t i = 0; i < vector.size(); ++i) vector[i] = qFromLittleEndian<double>(blob.constData() + i * sizeof(double));
    return vector;
}

// Notes that cannot be indexed as text are left out (and retried next time)
// rather than making search unavailable for the whole library.
bool isSkippableReadFailure(const Error& error) {
    return error.code() == Error::Code::notFound || error.code() == Error::Code::notRegularFile ||
           error.code() == Error::Code::invalidEncoding;
}

// The first column of the statement's first row; 0 when it has no row.
Result<qint64> firstInteger(SqliteStatement& statement) {
    auto use = statement.use();
    auto row = use.step();
    if (!row) return fail(row.error());
    return *row ? use.integer(0) : 0;
}

QByteArray digestOf(const std::vector<NoteFileMetadata>& listing) {
    NoteListingDigest digest;
    for (const NoteFileMetadata& entry : listing) {
        digest.add(entry.identifier, secondsSinceReferenceDate(entry.modifiedAt), entry.fileSize);
    }
    return digest.bytes();
}

Result<std::unique_ptr<SqliteStatement>> prepare(SqliteDatabase& db, const char* sql) {
    return db.prepare(QString::fromUtf8(sql));
}

}  // namespace

QString NoteSearchCatalog::defaultUrl() {
    const QString caches = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation);
    return caches + QStringLiteral("/com.bellam.notes/agent-search.sqlite");
}

Result<std::unique_ptr<NoteSearchCatalog>> NoteSearchCatalog::open(const QString& url) {
    const QString folder = QFileInfo(url).path();
    if (!QDir().mkpath(folder)) return fail(Error::catalogUnavailable(QStringLiteral("Could not open ") + url));
    auto db = SqliteDatabase::open(url);
    if (!db) return fail(db.error());
    constexpr int busyTimeoutMs = 5000;
    for (const char* sql : CatalogSql::settings) {
        auto done = (*db)->executeRetryingWhileBusy(QString::fromUtf8(sql), busyTimeoutMs);
        if (!done) return fail(done.error());
    }
    // A catalog with the current schema is only read here: opening it must not
    // wait for the write lock while another process indexes.
    // Its state row too: without it, nothing derived from the catalog could be told apart.
    const auto scalar = [&db](const char* sql) -> Result<qint64> {
        auto statement = prepare(**db, sql);
        return statement ? firstInteger(**statement) : fail(statement.error());
    };
    auto version = scalar("PRAGMA user_version");
    if (!version) return fail(version.error());
    bool current = *version == CatalogSql::schemaVersion;
    if (current) {
        auto rows = scalar("SELECT count(*) FROM catalog_state");
        current = rows && *rows == 1;
    }
    if (!current) {
        // One write transaction for the schema: taking the write lock up front lets the
        // busy timeout arbitrate between processes creating the same catalog at once.
        if (auto begun = (*db)->execute(QStringLiteral("BEGIN IMMEDIATE")); !begun) return fail(begun.error());
        for (const char* sql : CatalogSql::schema) {
            if (auto done = (*db)->execute(QString::fromUtf8(sql)); !done) {
                (void)(*db)->execute(QStringLiteral("ROLLBACK"));
                return fail(done.error());
            }
        }
        const QString stamp = QStringLiteral("PRAGMA user_version = %1").arg(CatalogSql::schemaVersion);
        if (auto stamped = (*db)->execute(stamp); !stamped) {
            (void)(*db)->execute(QStringLiteral("ROLLBACK"));
            return fail(stamped.error());
        }
        if (auto committed = (*db)->execute(QStringLiteral("COMMIT")); !committed) return fail(committed.error());
    }

    auto statements = std::make_unique<Statements>();
    const std::pair<std::unique_ptr<SqliteStatement>*, const char*> all[] = {
        {&statements->begin, "BEGIN IMMEDIATE"},
        {&statements->commit, "COMMIT"},
        {&statements->rollback, "ROLLBACK"},
        {&statements->count, CatalogSql::count},
        {&statements->fingerprints, CatalogSql::fingerprints},
        {&statements->state, CatalogSql::state},
        {&statements->storeListing, CatalogSql::storeListing},
        {&statements->markSemanticComplete, CatalogSql::markSemanticComplete},
        {&statements->countKeywordInsertions, CatalogSql::countKeywordInsertions},
        {&statements->countSemanticInsertions, CatalogSql::countSemanticInsertions},
        {&statements->deleteMetadata, CatalogSql::deleteMetadata},
        {&statements->deleteFts, CatalogSql::deleteFts},
        {&statements->deleteSemantic, CatalogSql::deleteSemantic},
        {&statements->insertMetadata, CatalogSql::insertMetadata},
        {&statements->metadataRowid, CatalogSql::metadataRowid},
        {&statements->deleteLinkedFts, CatalogSql::deleteLinkedFts},
        {&statements->insertLinkedFts, CatalogSql::insertLinkedFts},
        {&statements->missingSemantic, CatalogSql::missingSemantic},
        {&statements->insertSemantic, CatalogSql::insertSemantic},
        {&statements->semanticEntries, CatalogSql::semanticEntries},
        {&statements->revisions, CatalogSql::revisions},
        {&statements->semanticVectors, CatalogSql::semanticVectors},
        {&statements->meaningDetails, CatalogSql::meaningDetails},
        {&statements->keywordSearch, CatalogSql::keywordSearch},
        {&statements->matchDetails, CatalogSql::matchDetails},
        {&statements->matchSnippet, CatalogSql::matchSnippet},
        {&statements->beginRead, "BEGIN"},
        {&statements->dataVersion, CatalogSql::dataVersion},
    };
    for (const auto& [slot, sql] : all) {
        auto prepared = prepare(**db, sql);
        if (!prepared) return fail(prepared.error());
        *slot = std::move(*prepared);
    }
    sqlite3* handle = (*db)->handle();
    std::unique_ptr<NoteSearchCatalog> catalog(new NoteSearchCatalog(url, std::move(*db), std::move(statements)));
    // The function writes through the catalog's own slot, which lives as long as the connection.
    if (auto registered = KeywordRanking::registerPhraseFrequencies(handle, &catalog->currentScan_); !registered) {
        return fail(registered.error());
    }
    auto prepared = prepare(*catalog->db_, CatalogSql::phraseFrequencies);
    if (!prepared) return fail(prepared.error());
    catalog->statements_->phraseFrequencies = std::move(*prepared);
    prepared = prepare(*catalog->db_, CatalogSql::rowPhraseFrequencies);
    if (!prepared) return fail(prepared.error());
    catalog->statements_->rowPhraseFrequencies = std::move(*prepared);
    return catalog;
}

NoteSearchCatalog::ReadTransaction::ReadTransaction(NoteSearchCatalog& catalog)
    : catalog_(catalog), begun_(catalog.statements_->beginRead->use().run().has_value()) {}
// Inside a transaction already (a search from a progress handler) nothing was begun, nothing ends.

NoteSearchCatalog::ReadTransaction::~ReadTransaction() {
    if (begun_) (void)catalog_.statements_->commit->use().run();
}

Result<const KeywordRankingSnapshot*> NoteSearchCatalog::currentRankingSnapshot() {
    // data_version tells of commits by other connections; writes_ of this one's.
    auto dataVersion = firstInteger(*statements_->dataVersion);
    if (!dataVersion) return fail(dataVersion.error());
    const qint64 version = *dataVersion;
    if (!rankingSnapshot_ || version != rankingDataVersion_ || writes_ != rankingWrites_) {
        auto loaded = loadRankingSnapshot();
        if (!loaded) return loaded;
        rankingDataVersion_ = version;
        rankingWrites_ = writes_;
    }
    return &*rankingSnapshot_;
}

// Called inside a read transaction, so the stamp and the rows agree.
Result<const KeywordRankingSnapshot*> NoteSearchCatalog::loadRankingSnapshot() {
    static constexpr QByteArrayView magic = "MOSSRANK1";
    std::optional<Generation> stamped;
    if (keepsSnapshotFiles_) {
        auto state = readState();
        if (!state) return fail(state.error());
        stamped = state->generation;
        auto kept = CatalogSideFile::read(rankingFilePath(url_), magic);
        if (kept && kept->stamp == stamped->keywordStamp()) {
            if (auto snapshot = KeywordRankingSnapshot::fromSerialised(kept->payload)) {
                rankingSnapshot_ = std::move(*snapshot);
                return &*rankingSnapshot_;
            }
        }
    }
    auto loaded = KeywordRankingSnapshot::load(*db_);
    if (!loaded) return fail(loaded.error());
    rankingSnapshot_ = std::move(*loaded);
    if (stamped) CatalogSideFile::write(rankingFilePath(url_), magic, stamped->keywordStamp(), rankingSnapshot_->serialised());
    return &*rankingSnapshot_;
}

QString NoteSearchCatalog::Generation::keywordStamp() const {
    return catalogIdentifier + u':' + QString::number(keyword);
}

QString NoteSearchCatalog::Generation::stamp() const { return keywordStamp() + u':' + QString::number(semantic); }

Result<NoteSearchCatalog::State> NoteSearchCatalog::readState() {
    auto use = statements_->state->use();
    auto row = use.step();
    if (!row) return fail(row.error());
    if (!*row) return fail(Error::catalogUnavailable(QStringLiteral("The catalog has no state row.")));
    const auto optionalInteger = [&](int column) {
        return use.optionalText(column) ? std::optional(use.integer(column)) : std::nullopt;
    };
    return State{{use.text(0), use.integer(1), use.integer(2)},
                 use.blob(3),
                 optionalInteger(4),
                 optionalInteger(5),
                 optionalInteger(6)};
}

Result<NoteSearchCatalog::Generation> NoteSearchCatalog::generation() {
    std::lock_guard guard(lock_);
    if (auto open = requireOpen(); !open) return fail(open.error());
    auto state = readState();
    if (!state) return fail(state.error());
    return state->generation;
}

Result<bool> NoteSearchCatalog::linksHold() {
    std::lock_guard guard(lock_);
    if (auto open = requireOpen(); !open) return fail(open.error());
    if (linksVerified_) return true;
    auto intact = linksIntact();
    if (intact && *intact) linksVerified_ = true;
    return intact;
}

Result<bool> NoteSearchCatalog::mirrors(const Listing& listing, const Generation& seen, bool withSemanticRows) {
    const QByteArray listed = digestOf(listing);
    std::lock_guard guard(lock_);
    if (auto open = requireOpen(); !open) return fail(open.error());
    ReadTransaction reading(*this);
    auto state = readState();
    if (!state) return fail(state.error());
    const Generation& now = state->generation;
    if (now.catalogIdentifier != seen.catalogIdentifier || now.keyword != seen.keyword || now.semantic != seen.semantic) {
        return false;
    }
    if (state->listingGeneration != now.keyword || state->listingDigest != listed) return false;
    if (withSemanticRows &&
        (state->completeKeywordGeneration != now.keyword || state->completeSemanticGeneration != now.semantic)) {
        return false;
    }
    return linksHold();
}

Result<bool> NoteSearchCatalog::linksIntact() {
    auto metadata = db_->prepare(QString::fromLatin1(CatalogSql::metadataRowids));
    if (!metadata) return fail(metadata.error());
    auto fullText = db_->prepare(QString::fromLatin1(CatalogSql::fullTextRowids));
    if (!fullText) return fail(fullText.error());
    auto left = (*metadata)->use();
    auto right = (*fullText)->use();
    for (;;) {
        auto leftRow = left.step();
        if (!leftRow) return fail(leftRow.error());
        auto rightRow = right.step();
        if (!rightRow) return fail(rightRow.error());
        if (*leftRow != *rightRow) return false;
        if (!*leftRow) return true;
        if (left.integer(0) != right.integer(0)) return false;
    }
}

NoteSearchCatalog::NoteSearchCatalog(QString url, std::unique_ptr<SqliteDatabase> db,
                                     std::unique_ptr<Statements> statements)
    : url_(std::move(url)), db_(std::move(db)), statements_(std::move(statements)) {}

// Statements must be finalised before their connection closes.
NoteSearchCatalog::~NoteSearchCatalog() {
    statements_.reset();
    db_.reset();
}

Result<void> NoteSearchCatalog::requireOpen() const {
    if (!db_) return fail(Error::catalogUnavailable(QStringLiteral("Database is closed.")));
    return {};
}

template <typename Body>
auto NoteSearchCatalog::inTransaction(Body&& body) -> decltype(body()) {
    if (auto begun = statements_->begin->use().run(); !begun) return fail(begun.error());
    auto result = body();
    if (result) {
        if (auto committed = statements_->commit->use().run(); !committed) {
            (void)statements_->rollback->use().run();
            return fail(committed.error());
        }
    } else {
        (void)statements_->rollback->use().run();
    }
    return result;
}

Result<void> NoteSearchCatalog::deleteRows(const QString& identifier) {
    ++writes_;
    // The full-text row first, through the metadata row's rowid while that still exists.
    std::optional<qint64> rowid;
    {
        auto use = statements_->metadataRowid->use();
        if (auto bound = use.bind(1, identifier); !bound) return bound;
        auto row = use.step();
        if (!row) return fail(row.error());
        if (*row) rowid = use.integer(0);
    }
    bool ftsDeleted = false;
    if (rowid) {
        auto use = statements_->deleteLinkedFts->use();
        Result<void> done = use.bind(1, *rowid);
        if (done) done = use.bind(2, identifier);
        if (done) done = use.run();
        if (!done) return done;
        ftsDeleted = use.changes() > 0;
    }
    if (!ftsDeleted) {
        auto use = statements_->deleteFts->use();
        if (auto bound = use.bind(1, identifier); !bound) return bound;
        if (auto done = use.run(); !done) return done;
    }
    for (SqliteStatement* statement : {statements_->deleteMetadata.get(), statements_->deleteSemantic.get()}) {
        auto use = statement->use();
        if (auto bound = use.bind(1, identifier); !bound) return bound;
        if (auto done = use.run(); !done) return done;
    }
    return {};
}

Result<int> NoteSearchCatalog::synchronize(const NoteRepository& repository, const NoteSemanticProvider* semantic,
                                           std::stop_token stop) {
    auto listing = repository.enumerateMetadata(NoteRepository::ListingOrder::asFound);
    if (!listing) return fail(listing.error());
    return synchronize(repository, std::move(*listing), semantic, stop);
}

Result<int> NoteSearchCatalog::synchronize(const NoteRepository& repository, Listing listing,
                                           const NoteSemanticProvider* semantic, std::stop_token stop) {
    std::lock_guard synchronizing(synchronizationLock_);
    auto indexed = synchronizeKeywords(repository, std::move(listing), stop);
    if (!indexed) return indexed;
    {
        // A catalog that has been searched gets its ranking snapshot renewed
        // here, on the synchronising thread, rather than in the next search.
        std::lock_guard guard(lock_);
        if (rankingSnapshot_ && writes_ != rankingWrites_) {
            ReadTransaction reading(*this);
            // Failing here costs nothing: the next search loads it again.
            if (!currentRankingSnapshot()) rankingSnapshot_.reset();
        }
    }
    if (semantic) {
        std::lock_guard embedding(semanticLock_);
        if (auto done = synchronizeSemantic(repository, *semantic, stop); !done) return fail(done.error());
    }
    return indexed;
}

Result<void> NoteSearchCatalog::synchronizeSemanticRows(const NoteRepository& repository,
                                                        const NoteSemanticProvider& semantic, std::stop_token stop) {
    std::lock_guard embedding(semanticLock_);
    return synchronizeSemantic(repository, semantic, stop);
}

Result<int> NoteSearchCatalog::synchronizeKeywords(const NoteRepository& repository, Listing listingRows,
                                                   std::stop_token stop) {
    const Listing* listing = &listingRows;
    std::lock_guard guard(lock_);
    if (auto open = requireOpen(); !open) return fail(open.error());
    std::unique_ptr<FingerprintCache> working;
    auto synchronized = inTransaction([&]() -> Result<int> {
        // The full-text rows are found through their metadata rows' rowids. If
        // another program (or a VACUUM) broke that link, searches would find
        // nothing and inserts could collide: the catalog is a cache, so it is
        // emptied and rebuilt from the notes.
        if (!linksVerified_) {
            auto intact = linksHold();
            if (!intact) return fail(intact.error());
            if (!*intact) {
                ++writes_;
                fingerprints_.reset();
                for (const char* sql : CatalogSql::clearKeywordRows) {
                    if (auto cleared = db_->execute(QString::fromLatin1(sql)); !cleared) return fail(cleared.error());
                }
            }
            linksVerified_ = true;
        }
        // A catalog that recorded the digest of this very listing, with no
        // change to its rows since, mirrors the folder: nothing to read.
        auto state = readState();
        if (!state) return fail(state.error());
        if (state->listingGeneration == state->generation.keyword && state->listingDigest == digestOf(*listing)) return 0;

        // The fingerprints are kept between synchronisations and read again
        // only when another connection changed the catalog.
        auto version = firstInteger(*statements_->dataVersion);
        if (!version) return fail(version.error());
        const qint64 dataVersion = *version;
        if (!fingerprints_ || fingerprints_->dataVersion != dataVersion) {
            auto loaded = std::make_unique<FingerprintCache>();
            loaded->dataVersion = dataVersion;
            // Sized for the folder up front: growing a hash of 10,000 strings step by step
            // cost a one-shot search a sixth of its time.
            loaded->byIdentifier.reserve(static_cast<qsizetype>(listing->size()));
            auto use = statements_->fingerprints->use();
            for (;;) {
                auto row = use.step();
                if (!row) return fail(row.error());
                if (!*row) break;
                loaded->byIdentifier.insert(use.text(0), Fingerprint{use.real(1), use.integer(2)});
            }
            fingerprints_ = std::move(loaded);
        }
        // Out of the catalog until this transaction commits: a rollback drops it.
        working = std::move(fingerprints_);
        QHash<QString, Fingerprint>& known = working->byIdentifier;

        QStringList changed;
        std::vector<Fingerprint> fingerprints;
        QSet<QString> previouslyIndexed;
        qsizetype listedAndKnown = 0;
        for (const NoteFileMetadata& entry : *listing) {
            const Fingerprint fingerprint{secondsSinceReferenceDate(entry.modifiedAt), entry.fileSize};
            const auto previous = known.constFind(entry.identifier);
            if (previous != known.cend()) ++listedAndKnown;
            if (previous != known.cend() && *previous == fingerprint) continue;
            if (previous != known.cend()) previouslyIndexed.insert(entry.identifier);
            changed.append(entry.identifier);
            fingerprints.push_back(fingerprint);
        }
        // Every known note still listed (identifiers are unique): nothing to delete.
        if (listedAndKnown != known.size()) {
            QSet<QString> listed;
            listed.reserve(static_cast<qsizetype>(listing->size()));
            for (const NoteFileMetadata& entry : *listing) listed.insert(entry.identifier);
            for (auto it = known.begin(); it != known.end();) {
                if (listed.contains(it.key())) {
                    ++it;
                    continue;
                }
                if (auto removed = deleteRows(it.key()); !removed) return fail(removed.error());
                it = known.erase(it);
            }
        }

        int indexed = 0;
        int done = 0;
        const int total = static_cast<int>(fingerprints.size());
        NotePrefetcher prefetcher(repository, changed);
        for (const Fingerprint& fingerprint : fingerprints) {
            if (stop.stop_requested()) return fail(Error::cancelled());
            if (progress_ && done % 250 == 0) progress_(done, total);
            ++done;
            std::optional<NotePrefetcher::Prepared> prepared = prefetcher.next();
            const QString& identifier = prepared->identifier;
            const auto& note = prepared->note;
            if (!note && !isSkippableReadFailure(note.error())) return fail(note.error());
            // A note the catalog has never seen has no rows to replace.
            if (previouslyIndexed.contains(identifier)) {
                if (auto removed = deleteRows(identifier); !removed) return fail(removed.error());
                known.remove(identifier);
            }
            if (!note) continue;

            const QString& visibleText = prepared->visibleText;
            const QString& title = prepared->title;
            qint64 metadataRowid = 0;
            ++writes_;
            {
                auto use = statements_->insertMetadata->use();
                const std::optional<QString> lastEditor =
                    note->document.lastEditedBy ? std::optional(note->document.lastEditedBy->storedValue())
                                                : std::nullopt;
                // The fingerprint recorded is the one listed, so a file that
                // changes while being read is read again next time.
                Result<void> bound = use.bind(1, identifier);
                if (bound) bound = use.bind(2, fingerprint.modificationTime);
                if (bound) bound = use.bind(3, fingerprint.fileSize);
                if (bound) bound = use.bind(4, note->document.revision());
                if (bound) bound = use.bind(5, title);
                if (bound) bound = use.bind(6, note->document.createdBy.storedValue());
                if (bound) bound = use.bind(7, lastEditor);
                if (bound) bound = use.run();
                if (!bound) return fail(bound.error());
                metadataRowid = use.lastInsertRowid();
                known.insert(identifier, fingerprint);
            }
            {
                auto use = statements_->insertLinkedFts->use();
                Result<void> bound = use.bind(1, metadataRowid);
                if (bound) bound = use.bind(2, identifier);
                if (bound) bound = use.bind(3, title);
                if (bound) bound = use.bind(4, visibleText);
                if (bound) bound = use.run();
                if (!bound) return fail(bound.error());
            }
            ++indexed;
        }
        if (progress_ && total > 0) progress_(total, total);
        // What the rows now mirror: notes that could not be read are left
        // out, so the next listing differs and they are tried again.
        if (indexed > 0) {
            if (auto counted = statements_->countKeywordInsertions->use().run(); !counted) return fail(counted.error());
        }
        NoteListingDigest held;
        for (auto it = known.cbegin(); it != known.cend(); ++it) held.add(it.key(), it->modificationTime, it->fileSize);
        auto use = statements_->storeListing->use();
        Result<void> stored = use.bind(1, held.bytes());
        if (stored) stored = use.run();
        if (!stored) return fail(stored.error());
        return indexed;
    });
    if (synchronized && working) fingerprints_ = std::move(working);
    return synchronized;
}

Result<void> NoteSearchCatalog::synchronizeSemantic(const NoteRepository& repository,
                                                    const NoteSemanticProvider& semantic, std::stop_token stop) {
    auto found = notesWithoutSemanticRows();
    if (!found) return fail(found.error());
    const QStringList missing = std::move(found->notes);
    // This pass's own changes to the semantic rows: one count for each note's
    // insertions, one for each row its deletion removed.
    qint64 ownChanges = 0;
    lastSemanticCount_ = 0;
    const int total = static_cast<int>(missing.size());
    for (int done = 0; done < total; ++done) {
        const QString& identifier = missing[done];
        if (semanticProgress_ && done % 100 == 0) semanticProgress_(done, total);
        if (stop.stop_requested()) return fail(Error::cancelled());
        auto note = repository.read(identifier);
        if (!note) {
            if (isSkippableReadFailure(note.error())) continue;
            return fail(note.error());
        }
        // The embedding runs outside the database lock: it may be slow.
        auto chunks = semantic.chunks(note->document.visibleText());
        if (!chunks) return fail(chunks.error());

        std::lock_guard guard(lock_);
        if (auto open = requireOpen(); !open) return open;
        auto stored = inTransaction([&]() -> Result<void> {
            auto use = statements_->deleteSemantic->use();
            if (auto bound = use.bind(1, identifier); !bound) return bound;
            if (auto done = use.run(); !done) return done;
            ownChanges += use.changes() + 1;
            for (size_t index = 0; index < chunks->size(); ++index) {
                const SemanticIndexedChunk& chunk = (*chunks)[index];
                auto insert = statements_->insertSemantic->use();
                Result<void> bound = insert.bind(1, identifier);
                if (bound) bound = insert.bind(2, note->document.revision());
                if (bound) bound = insert.bind(3, static_cast<qint64>(index));
                if (bound) bound = insert.bind(4, chunk.text);
                if (bound) bound = insert.bindBlob(5, vectorBlob(chunk.vector));
                if (bound) bound = insert.run();
                if (!bound) return bound;
            }
            return statements_->countSemanticInsertions->use().run();
        });
        if (!stored) return stored;
        ++lastSemanticCount_;
    }
    if (semanticProgress_ && total > 0) semanticProgress_(total, total);
    if (total > 0 && lastSemanticCount_ == total) {
        // Every note that lacked rows has them. If no other program changed a
        // row meanwhile, the generations tell by exactly this pass's changes.
        const Generation& checked = found->checked;
        auto now = generation();
        if (!now) return fail(now.error());
        if (now->catalogIdentifier == checked.catalogIdentifier && now->keyword == checked.keyword &&
            now->semantic == checked.semantic + ownChanges) {
            markSemanticComplete(*now);
        } else if (auto again = notesWithoutSemanticRows(); !again) {
            return fail(again.error());
        }
    }
    return {};
}

void NoteSearchCatalog::markSemanticComplete(const Generation& generation) {
    std::lock_guard guard(lock_);
    if (!db_) return;
    // A hint for the next check; if another process wrote since, it is simply not set.
    auto use = statements_->markSemanticComplete->use();
    Result<void> marked = use.bind(1, generation.keyword);
    if (marked) marked = use.bind(2, generation.semantic);
    if (marked) (void)use.run();
}

Result<NoteSearchCatalog::SemanticGaps> NoteSearchCatalog::notesWithoutSemanticRows() {
    std::lock_guard guard(lock_);
    if (auto open = requireOpen(); !open) return fail(open.error());
    SemanticGaps gaps;
    {
        ReadTransaction reading(*this);
        auto state = readState();
        if (!state) return fail(state.error());
        gaps.checked = state->generation;
        if (state->completeKeywordGeneration == state->generation.keyword &&
            state->completeSemanticGeneration == state->generation.semantic) {
            return gaps;
        }
        auto use = statements_->missingSemantic->use();
        for (;;) {
            auto row = use.step();
            if (!row) return fail(row.error());
            if (!*row) break;
            gaps.notes.append(use.text(0));
        }
    }
    if (gaps.notes.isEmpty()) markSemanticComplete(gaps.checked);
    return gaps;
}

Result<std::vector<std::pair<QString, QString>>> NoteSearchCatalog::revisions() {
    std::lock_guard guard(lock_);
    if (auto open = requireOpen(); !open) return fail(open.error());
    std::vector<std::pair<QString, QString>> found;
    auto use = statements_->revisions->use();
    for (;;) {
        auto row = use.step();
        if (!row) return fail(row.error());
        if (!*row) break;
        found.emplace_back(use.text(0), use.text(1));
    }
    return found;
}

Result<std::vector<std::vector<double>>> NoteSearchCatalog::semanticVectors(const QString& identifier,
                                                                           const QString& revision) {
    std::lock_guard guard(lock_);
    if (auto open = requireOpen(); !open) return fail(open.error());
    std::vector<std::vector<double>> vectors;
    auto use = statements_->semanticVectors->use();
    Result<void> bound = use.bind(1, identifier);
    if (bound) bound = use.bind(2, revision);
    if (!bound) return fail(bound.error());
    for (;;) {
        auto row = use.step();
        if (!row) return fail(row.error());
        if (!*row) break;
        vectors.push_back(vectorFromBlob(use.blob(0)));
    }
    return vectors;
}

Result<std::optional<NoteSearchResult>> NoteSearchCatalog::meaningResult(const QString& identifier, int chunkIndex) {
    std::lock_guard guard(lock_);
    if (auto open = requireOpen(); !open) return fail(open.error());
    auto use = statements_->meaningDetails->use();
    Result<void> bound = use.bind(1, static_cast<qint64>(chunkIndex));
    if (bound) bound = use.bind(2, identifier);
    if (!bound) return fail(bound.error());
    auto row = use.step();
    if (!row) return fail(row.error());
    if (!*row) return std::optional<NoteSearchResult>();
    NoteSearchResult result;
    result.identifier = identifier;
    result.title = use.text(0);
    result.revision = use.text(1);
    result.createdBy = use.text(2);
    result.lastEditedBy = use.optionalText(3);
    result.excerpt = NoteSearch::clippedExcerpt(use.text(4).simplified());
    return std::optional<NoteSearchResult>(std::move(result));
}

Result<qint64> NoteSearchCatalog::dataVersion() {
    std::lock_guard guard(lock_);
    if (auto open = requireOpen(); !open) return fail(open.error());
    return firstInteger(*statements_->dataVersion);
}

Result<qint64> NoteSearchCatalog::count() {
    std::lock_guard guard(lock_);
    if (auto open = requireOpen(); !open) return fail(open.error());
    return firstInteger(*statements_->count);
}

Result<std::vector<SemanticSearchCatalogEntry>> NoteSearchCatalog::semanticEntries() {
    std::lock_guard guard(lock_);
    if (auto open = requireOpen(); !open) return fail(open.error());
    std::vector<SemanticSearchCatalogEntry> entries;
    auto use = statements_->semanticEntries->use();
    for (;;) {
        auto row = use.step();
        if (!row) return fail(row.error());
        if (!*row) break;
        const QString identifier = use.text(0);
        if (entries.empty() || entries.back().identifier != identifier) {
            entries.push_back({identifier, use.text(1), use.text(2), use.text(3), use.optionalText(4), {}});
        }
        entries.back().chunks.push_back({use.text(5), vectorFromBlob(use.blob(6))});
    }
    return entries;
}

Result<void> NoteSearchCatalog::deleteCatalog() {
    std::scoped_lock guard(synchronizationLock_, lock_);
    statements_.reset();
    db_.reset();
    rankingSnapshot_.reset();
    return deleteCache(url_);
}

Result<void> NoteSearchCatalog::deleteCache(const QString& url) {
    // "-vectors" and "-ranking": meaning search's vectors and the ranking snapshot,
    // kept beside the catalog by one-shot commands.
    for (const QString& path : {url, url + QStringLiteral("-wal"), url + QStringLiteral("-shm"),
                                url + QStringLiteral("-vectors"), rankingFilePath(url)}) {
        if (::unlink(QFile::encodeName(path).constData()) != 0 && errno != ENOENT) {
            return fail(Error::catalogUnavailable(QString::fromLocal8Bit(std::strerror(errno)) + QStringLiteral(": ") + path));
        }
    }
    return {};
}

}  // namespace mossly
