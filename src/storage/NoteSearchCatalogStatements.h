#pragma once

// Internal to the catalog: its SQL and prepared statements.

#include <memory>

#include "SqliteDatabase.h"

namespace mossly::CatalogSql {

inline const char* const settings[] = {
    "PRAGMA journal_mode=WAL",
    "PRAGMA synchronous=NORMAL",
    "PRAGMA busy_timeout=5000",
};

// Raised with every change to the schema below; catalogs at it skip the schema on open.
constexpr int schemaVersion = 2;

inline const char* const schema[] = {
    "CREATE TABLE IF NOT EXISTS note_metadata (\n    identifier TEXT PRIMARY KEY NOT NULL,\n"
    "    modification_time REAL NOT NULL,\n    file_size INTEGER NOT NULL,\n    revision TEXT NOT NULL,\n"
    "    title TEXT NOT NULL,\n    created_by TEXT NOT NULL,\n    last_edited_by TEXT\n)",
    "CREATE VIRTUAL TABLE IF NOT EXISTS note_fts USING fts5(\n    identifier UNINDEXED,\n    title,\n    body,\n"
    "    tokenize = 'unicode61 remove_diacritics 2'\n)",
    "CREATE TABLE IF NOT EXISTS note_semantic (\n    identifier TEXT NOT NULL,\n    revision TEXT NOT NULL,\n"
    "    chunk_index INTEGER NOT NULL,\n    chunk_text TEXT NOT NULL,\n    vector BLOB NOT NULL,\n"
    "    PRIMARY KEY (identifier, chunk_index)\n)",
    "CREATE INDEX IF NOT EXISTS note_semantic_revision ON note_semantic(identifier, revision)",
    // What the catalog is at: its generations count the changes to its
    // keyword and semantic rows. Updates and deletions, by any program, count
    // through the triggers below; the catalog counts its own insertions once a
    // transaction (a trigger on every inserted row made a first index a
    // quarter slower). Files derived from the catalog are tagged with them,
    // and the listing digest says which folder listing the keyword rows mirror.
    "CREATE TABLE IF NOT EXISTS catalog_state (\n    singleton INTEGER PRIMARY KEY CHECK (singleton = 1),\n"
    "    catalog_id TEXT NOT NULL,\n    keyword_generation INTEGER NOT NULL DEFAULT 0,\n"
    "    semantic_generation INTEGER NOT NULL DEFAULT 0,\n    listing_digest BLOB,\n    listing_generation INTEGER,\n"
    "    complete_keyword_generation INTEGER,\n    complete_semantic_generation INTEGER\n)",
    "INSERT OR IGNORE INTO catalog_state (singleton, catalog_id) VALUES (1, lower(hex(randomblob(16))))",
    "CREATE TRIGGER IF NOT EXISTS note_metadata_updated AFTER UPDATE ON note_metadata\n"
    "BEGIN UPDATE catalog_state SET keyword_generation = keyword_generation + 1; END",
    "CREATE TRIGGER IF NOT EXISTS note_metadata_deleted AFTER DELETE ON note_metadata\n"
    "BEGIN UPDATE catalog_state SET keyword_generation = keyword_generation + 1; END",
    "CREATE TRIGGER IF NOT EXISTS note_semantic_updated AFTER UPDATE ON note_semantic\n"
    "BEGIN UPDATE catalog_state SET semantic_generation = semantic_generation + 1; END",
    "CREATE TRIGGER IF NOT EXISTS note_semantic_deleted AFTER DELETE ON note_semantic\n"
    "BEGIN UPDATE catalog_state SET semantic_generation = semantic_generation + 1; END",
};

inline const char* const state =
    "SELECT catalog_id, keyword_generation, semantic_generation, listing_digest, listing_generation,\n"
    "       complete_keyword_generation, complete_semantic_generation\nFROM catalog_state";
inline const char* const countKeywordInsertions =
    "UPDATE catalog_state SET keyword_generation = keyword_generation + 1";
inline const char* const countSemanticInsertions =
    "UPDATE catalog_state SET semantic_generation = semantic_generation + 1";
inline const char* const storeListing =
    "UPDATE catalog_state SET listing_digest = ?, listing_generation = keyword_generation";
// Only if nothing changed since the check that found every note embedded.
inline const char* const markSemanticComplete =
    "UPDATE catalog_state SET complete_keyword_generation = ?1, complete_semantic_generation = ?2\n"
    "WHERE keyword_generation = ?1 AND semantic_generation = ?2";

inline const char* const count = "SELECT COUNT(*) FROM note_metadata";
inline const char* const fingerprints = "SELECT identifier, modification_time, file_size FROM note_metadata";
inline const char* const deleteMetadata = "DELETE FROM note_metadata WHERE identifier = ?";
inline const char* const deleteFts = "DELETE FROM note_fts WHERE identifier = ?";
inline const char* const deleteSemantic = "DELETE FROM note_semantic WHERE identifier = ?";
inline const char* const insertMetadata =
    "INSERT INTO note_metadata (\n    identifier, modification_time, file_size, revision,\n"
    "    title, created_by, last_edited_by\n) VALUES (?, ?, ?, ?, ?, ?, ?)";
// The identifier column of note_fts is not indexed, so deleting by it scans
// every row. The full-text row is therefore inserted under the rowid of its
// metadata row, and found through that (indexed) row; the scan remains the
// fallback for a row that does not follow the link.
inline const char* const metadataRowid = "SELECT rowid FROM note_metadata WHERE identifier = ?";
// Both sides of the link between metadata rows and full-text rows, in rowid
// order: they must be the same rowids. Read from the full-text table's row
// sizes, not its content: every process that opens the catalog checks this.
inline const char* const metadataRowids = "SELECT rowid FROM note_metadata ORDER BY rowid";
inline const char* const fullTextRowids = "SELECT id FROM note_fts_docsize ORDER BY id";
inline const char* const clearKeywordRows[] = {"DELETE FROM note_fts", "DELETE FROM note_metadata"};
inline const char* const deleteLinkedFts = "DELETE FROM note_fts WHERE rowid = ? AND identifier = ?";
inline const char* const insertLinkedFts = "INSERT INTO note_fts (rowid, identifier, title, body) VALUES (?, ?, ?, ?)";
inline const char* const missingSemantic =
    "SELECT m.identifier\nFROM note_metadata AS m\nLEFT JOIN note_semantic AS s\n"
    "  ON s.identifier = m.identifier AND s.revision = m.revision\nWHERE s.identifier IS NULL";
inline const char* const insertSemantic =
    "INSERT INTO note_semantic (\n    identifier, revision, chunk_index, chunk_text, vector\n) VALUES (?, ?, ?, ?, ?)";
inline const char* const semanticEntries =
    "SELECT m.identifier, m.title, m.revision, m.created_by,\n       m.last_edited_by, s.chunk_text, s.vector\n"
    "FROM note_metadata AS m\nJOIN note_semantic AS s\n  ON s.identifier = m.identifier AND s.revision = m.revision\n"
    "ORDER BY m.identifier, s.chunk_index";
// What meaning search reads besides its vectors in memory.
inline const char* const revisions = "SELECT identifier, revision FROM note_metadata";
inline const char* const semanticVectors =
    "SELECT vector FROM note_semantic WHERE identifier = ? AND revision = ? ORDER BY chunk_index";
inline const char* const meaningDetails =
    "SELECT m.title, m.revision, m.created_by, m.last_edited_by, s.chunk_text\n"
    "FROM note_metadata AS m LEFT JOIN note_semantic AS s\n"
    "  ON s.identifier = m.identifier AND s.revision = m.revision AND s.chunk_index = ?\n"
    "WHERE m.identifier = ?";

// The ranking statement, as the reference for the search.
inline const char* const keywordSearch =
    "SELECT m.identifier, m.title,\n       snippet(note_fts, 2, '', '', ' … ', 40),\n"
    "       bm25(note_fts, 0.0, 8.0, 1.0),\n       CASE\n"
    "           WHEN lower(m.title) = lower(?) THEN 5.0\n"
    "           WHEN instr(lower(m.title), lower(?)) > 0 THEN 2.0\n           ELSE 0.0\n       END + CASE\n"
    "           WHEN instr(lower(note_fts.body), lower(?)) > 0 THEN 1.0\n           ELSE 0.0\n       END,\n"
    "       m.revision, m.created_by, m.last_edited_by\nFROM note_fts\n"
    "JOIN note_metadata AS m ON m.identifier = note_fts.identifier\nWHERE note_fts MATCH ?\n"
    "ORDER BY bm25(note_fts, 0.0, 8.0, 1.0) - (\n    CASE\n        WHEN lower(m.title) = lower(?) THEN 5.0\n"
    "        WHEN instr(lower(m.title), lower(?)) > 0 THEN 2.0\n        ELSE 0.0\n    END + CASE\n"
    "        WHEN instr(lower(note_fts.body), lower(?)) > 0 THEN 1.0\n        ELSE 0.0\n    END\n"
    "), m.identifier\nLIMIT ?";

// The same ranking in steps: BM25 and the title bonus of every match from
// one pass (see KeywordRanking.h), then the body bonus and details only for
// the rows that can still reach the top, then excerpts for the rows returned.
// One pass over the matches: the auxiliary function records each row's phrase frequencies.
inline const char* const phraseFrequencies =
    "SELECT mossly_phrase_frequencies(note_fts) FROM note_fts WHERE note_fts MATCH ?";
inline const char* const rowPhraseFrequencies =
    "SELECT mossly_phrase_frequencies(note_fts) FROM note_fts WHERE note_fts MATCH ? AND rowid = ?";
inline const char* const dataVersion = "PRAGMA data_version";
inline const char* const matchDetails =
    "SELECT m.identifier, m.title, note_fts.body, m.revision, m.created_by, m.last_edited_by\n"
    "FROM note_fts JOIN note_metadata AS m ON m.identifier = note_fts.identifier\nWHERE note_fts.rowid = ?";
inline const char* const matchSnippet =
    "SELECT snippet(note_fts, 2, '', '', ' … ', 40) FROM note_fts WHERE note_fts MATCH ? AND rowid = ?";

}  // namespace mossly::CatalogSql

namespace mossly {

struct NoteSearchCatalog::Statements {
    std::unique_ptr<SqliteStatement> begin, beginRead, commit, rollback, dataVersion;
    std::unique_ptr<SqliteStatement> count, fingerprints, state, storeListing, markSemanticComplete;
    std::unique_ptr<SqliteStatement> countKeywordInsertions, countSemanticInsertions;
    std::unique_ptr<SqliteStatement> deleteMetadata, deleteFts, deleteSemantic;
    std::unique_ptr<SqliteStatement> insertMetadata;
    std::unique_ptr<SqliteStatement> metadataRowid, deleteLinkedFts, insertLinkedFts;
    std::unique_ptr<SqliteStatement> missingSemantic, insertSemantic, semanticEntries;
    std::unique_ptr<SqliteStatement> revisions, semanticVectors, meaningDetails;
    std::unique_ptr<SqliteStatement> keywordSearch, phraseFrequencies, rowPhraseFrequencies, matchDetails, matchSnippet;
};

}  // namespace mossly
