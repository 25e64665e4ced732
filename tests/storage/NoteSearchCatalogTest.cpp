#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

#include "NoteRepository.h"
#include "NoteSearchCatalog.h"
#include "TestSupport.h"

namespace mossly {
namespace {

class NoteSearchCatalogTest : public ::testing::Test {
protected:
    test::TemporaryNotesFolder folder;
    test::TemporaryNotesFolder caches;
    NoteRepository repository{folder.path()};
    QString catalogPath = caches.filePath("catalog/agent-search.sqlite");

    std::unique_ptr<NoteSearchCatalog> openCatalog() {
        auto catalog = NoteSearchCatalog::open(catalogPath);
        EXPECT_TRUE(catalog) << (catalog ? "" : catalog.error().description().toStdString());
        return catalog ? std::move(*catalog) : nullptr;
    }
    int sync(NoteSearchCatalog& catalog) {
        auto indexed = catalog.synchronize(repository);
        EXPECT_TRUE(indexed) << (indexed ? "" : indexed.error().description().toStdString());
        return indexed.value_or(-1);
    }
    // Every row of the three tables, to compare catalogs.
    QStringList dump(NoteSearchCatalog& catalog) {
        QStringList rows;
        auto entries = catalog.semanticEntries();
        for (const auto& entry : *entries) rows.append(entry.identifier + u'|' + entry.title);
        auto response = catalog.search(QStringLiteral("alpha beta gamma"), 500);
        for (const auto& result : response->results) {
            rows.append(result.identifier + u'|' + result.title + u'|' + result.excerpt + u'|' + result.revision +
                        u'|' + QString::number(result.score));
        }
        return rows;
    }
};

// Chunks a note into its lines, with a tiny deterministic "embedding".
class LineChunker final : public NoteSemanticProvider {
public:
    mutable int calls = 0;
    Result<std::vector<SemanticIndexedChunk>> chunks(const QString& text) const override {
        ++calls;
        std::vector<SemanticIndexedChunk> chunks;
        for (const QString& line : text.split(u'\n', Qt::SkipEmptyParts)) {
            chunks.push_back({line, {static_cast<double>(line.size()), -0.5, 1e-300}});
        }
        return chunks;
    }
};

TEST_F(NoteSearchCatalogTest, SynchronisationFollowsFingerprints) {
    folder.write(QStringLiteral("a.md"), "# Alpha\nalpha text");
    folder.write(QStringLiteral("sub/b.md"), "beta text");
    auto catalog = openCatalog();
    EXPECT_EQ(sync(*catalog), 2);
    EXPECT_EQ(catalog->count(), 2);
    EXPECT_EQ(sync(*catalog), 0);  // unchanged folder: nothing replaced

    // Same size and modification time: deliberately not re-indexed.
    struct stat before {};
    ::stat(QFile::encodeName(folder.filePath("a.md")).constData(), &before);
    folder.write(QStringLiteral("a.md"), "# Gamma\ngamma text");
    const timespec times[2] = {before.st_atim, before.st_mtim};
    ::utimensat(AT_FDCWD, QFile::encodeName(folder.filePath("a.md")).constData(), times, 0);
    EXPECT_EQ(sync(*catalog), 0);
    EXPECT_EQ(catalog->search(QStringLiteral("gamma"), 10)->results.size(), 0u);

    folder.write(QStringLiteral("a.md"), "# Gamma\ngamma text, longer");
    EXPECT_EQ(sync(*catalog), 1);
    auto found = catalog->search(QStringLiteral("gamma"), 10);
    ASSERT_EQ(found->results.size(), 1u);
    EXPECT_EQ(found->results[0].title, QStringLiteral("Gamma"));
}

TEST_F(NoteSearchCatalogTest, DeletedNotesLeaveAllThreeTables) {
    folder.write(QStringLiteral("a.md"), "alpha one\nalpha two");
    folder.write(QStringLiteral("b.md"), "beta");
    auto catalog = openCatalog();
    LineChunker chunker;
    ASSERT_TRUE(catalog->synchronize(repository, &chunker));
    EXPECT_EQ(catalog->semanticEntries()->size(), 2u);
    QFile::remove(folder.filePath("a.md"));
    ASSERT_TRUE(catalog->synchronize(repository, &chunker));
    EXPECT_EQ(catalog->count(), 1);
    EXPECT_TRUE(catalog->search(QStringLiteral("alpha"), 10)->results.empty());
    auto entries = catalog->semanticEntries();
    ASSERT_EQ(entries->size(), 1u);
    EXPECT_EQ(entries->front().identifier, QStringLiteral("b.md"));
}

TEST_F(NoteSearchCatalogTest, SemanticRowsFollowRevisionsAndVectorsRoundTrip) {
    folder.write(QStringLiteral("a.md"), "---\nnotes-created-by: agent:x\n---\nfirst line\nsecond");
    auto catalog = openCatalog();
    LineChunker chunker;
    ASSERT_TRUE(catalog->synchronize(repository, &chunker));
    auto entries = catalog->semanticEntries();
    ASSERT_EQ(entries->size(), 1u);
    const auto& entry = entries->front();
    EXPECT_EQ(entry.createdBy, QStringLiteral("agent:x"));
    ASSERT_EQ(entry.chunks.size(), 2u);
    EXPECT_EQ(entry.chunks[1].text, QStringLiteral("second"));
    EXPECT_EQ(entry.chunks[0].vector, (std::vector<double>{10.0, -0.5, 1e-300}));

    ASSERT_TRUE(catalog->synchronize(repository, &chunker));
    EXPECT_EQ(chunker.calls, 1);  // current revision already has chunks
    folder.write(QStringLiteral("a.md"), "changed text only");
    ASSERT_TRUE(catalog->synchronize(repository, &chunker));
    EXPECT_EQ(chunker.calls, 2);
    EXPECT_EQ(catalog->semanticEntries()->front().chunks.size(), 1u);
}

TEST_F(NoteSearchCatalogTest, RebuildAfterDeletingTheFilesGivesTheSameRows) {
    folder.write(QStringLiteral("one.md"), "# Alpha plan\nalpha beta");
    folder.write(QStringLiteral("two.html"), "<html><body><p>beta gamma</p></body></html>");
    folder.write(QStringLiteral("three.md"), "gamma alpha alpha");
    LineChunker chunker;
    QStringList before;
    {
        auto catalog = openCatalog();
        ASSERT_TRUE(catalog->synchronize(repository, &chunker));
        before = dump(*catalog);
        ASSERT_TRUE(catalog->deleteCatalog());
        EXPECT_EQ(catalog->count().error().description(),
                  QStringLiteral("The search index is unavailable: Database is closed."));
        EXPECT_FALSE(catalog->search(QStringLiteral("alpha"), 5));
    }
    EXPECT_FALSE(QFile::exists(catalogPath));
    EXPECT_FALSE(QFile::exists(catalogPath + "-wal"));
    auto rebuilt = openCatalog();
    ASSERT_TRUE(rebuilt->synchronize(repository, &chunker));
    EXPECT_EQ(dump(*rebuilt), before);
    EXPECT_EQ(before.size(), 6);
}

// Another program rewrote the rowids (a VACUUM of the full-text table, a tool):
// the catalog notices the broken links and rebuilds itself from the notes.
TEST_F(NoteSearchCatalogTest, ACatalogWhoseRowidsDriftedHealsItself) {
    folder.write(QStringLiteral("a.md"), "# Alpha\nriver");
    folder.write(QStringLiteral("b.md"), "# Beta\nriver stone");
    {
        auto catalog = openCatalog();
        sync(*catalog);
    }
    {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(QFile::encodeName(catalogPath).constData(), &db), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(db, "UPDATE note_metadata SET rowid = rowid + 1000", nullptr, nullptr, nullptr), SQLITE_OK);
        // A leftover full-text row where the next metadata row will land.
        ASSERT_EQ(sqlite3_exec(db, "INSERT INTO note_fts (rowid, identifier, title, body) VALUES (1003, 'x.md', 'x', 'x')",
                               nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(db);
    }
    folder.write(QStringLiteral("c.md"), "# Gamma\nriver");
    auto catalog = openCatalog();
    sync(*catalog);
    auto found = catalog->search(QStringLiteral("river"), 10);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->results.size(), 3u);
    EXPECT_EQ(sync(*catalog), 0) << "healed once, then in step";
}

// A catalog that mirrors the folder's listing skips reading its own rows; it
// must still notice rows that another program changed, and notes it could not read.
TEST_F(NoteSearchCatalogTest, AnUnchangedListingStillCatchesChangesToTheRows) {
    folder.write(QStringLiteral("a.md"), "# Alpha\nriver");
    folder.write(QStringLiteral("b.md"), "# Beta\nriver stone");
    LineChunker chunker;
    {
        auto catalog = openCatalog();
        ASSERT_TRUE(catalog->synchronize(repository, &chunker));
        EXPECT_EQ(chunker.calls, 2);
    }
    const auto exec = [&](const char* sql) {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(QFile::encodeName(catalogPath).constData(), &db), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
        sqlite3_close(db);
    };
    // Both of a note's rows gone, links intact: only the note's fingerprint is missing.
    exec("DELETE FROM note_fts WHERE rowid = (SELECT rowid FROM note_metadata WHERE identifier = 'a.md');"
         "DELETE FROM note_metadata WHERE identifier = 'a.md'");
    auto catalog = openCatalog();
    EXPECT_EQ(sync(*catalog), 1);
    EXPECT_EQ(catalog->search(QStringLiteral("river"), 10)->results.size(), 2u);
    EXPECT_EQ(sync(*catalog), 0);

    // Vectors removed by another program are made again.
    exec("DELETE FROM note_semantic WHERE identifier = 'b.md'");
    const int before = chunker.calls;
    ASSERT_TRUE(catalog->synchronize(repository, &chunker));
    EXPECT_EQ(chunker.calls, before + 1);
    ASSERT_TRUE(catalog->synchronize(repository, &chunker));
    EXPECT_EQ(chunker.calls, before + 1) << "complete again: nothing to embed";

    // A note that cannot be read is tried again, and indexed once it can be.
    folder.write(QStringLiteral("latin1.md"), "caf\xe9");
    EXPECT_EQ(sync(*catalog), 0);
    EXPECT_EQ(catalog->count(), 2);
    folder.write(QStringLiteral("latin1.md"), "caf\xc3\xa9, longer");
    EXPECT_EQ(sync(*catalog), 1);
    EXPECT_EQ(catalog->count(), 3);

    // Without its state row the catalog makes a new one (a new identity: nothing
    // derived before is trusted) and carries on.
    catalog.reset();
    exec("DELETE FROM catalog_state");
    catalog = openCatalog();
    ASSERT_TRUE(catalog);
    EXPECT_EQ(sync(*catalog), 0);
    EXPECT_EQ(catalog->search(QStringLiteral("river"), 10)->results.size(), 2u);
}

// What a one-shot search read stands only if the catalog still is what it read
// and mirrors the folder as listed.
TEST_F(NoteSearchCatalogTest, ACatalogMirrorsAListingOnlyAtTheGenerationSeen) {
    folder.write(QStringLiteral("a.md"), "alpha");
    auto catalog = openCatalog();
    LineChunker chunker;
    ASSERT_TRUE(catalog->synchronize(repository, &chunker));
    const auto listing = [&] { return *repository.enumerateMetadata(NoteRepository::ListingOrder::asFound); };
    const auto seen = *catalog->generation();
    EXPECT_TRUE(*catalog->mirrors(listing(), seen, true));

    folder.write(QStringLiteral("b.md"), "beta, a new note");
    EXPECT_FALSE(*catalog->mirrors(listing(), seen, false)) << "a note the catalog lacks";
    ASSERT_TRUE(openCatalog()->synchronize(repository, nullptr));
    EXPECT_FALSE(*catalog->mirrors(listing(), seen, false)) << "another process wrote since";
    const auto now = *catalog->generation();
    EXPECT_TRUE(*catalog->mirrors(listing(), now, false));
    EXPECT_FALSE(*catalog->mirrors(listing(), now, true)) << "b.md has no vectors yet";
}

// One-shot commands keep the ranking snapshot in a file tagged with the
// catalog's generation: trusted while current, rebuilt when stale or damaged.
TEST_F(NoteSearchCatalogTest, ARankingSnapshotKeptBesideTheCatalogIsUsedOnlyWhileCurrent) {
    folder.write(QStringLiteral("a.md"), "# River\nstone");
    folder.write(QStringLiteral("b.md"), "# Stone\nriver bank river");
    const auto results = [&](bool keepFile) {
        auto catalog = openCatalog();
        if (keepFile) catalog->keepSnapshotsBesideCatalog();
        sync(*catalog);
        QStringList found;
        const auto response = catalog->search(QStringLiteral("river"), 10);
        for (const auto& result : response->results) {
            found.append(result.identifier + u'|' + QString::number(result.score));
        }
        return found;
    };
    const QStringList first = results(true);
    ASSERT_EQ(first.size(), 2);
    const QString kept = NoteSearchCatalog::rankingFilePath(catalogPath);
    ASSERT_TRUE(QFile::exists(kept));
    EXPECT_EQ(results(true), first);

    // Another process adds a note with the word in its title: the file is stale.
    folder.write(QStringLiteral("c.md"), "# River delta\nsilt");
    EXPECT_EQ(sync(*openCatalog()), 1);
    const QStringList reference = results(false);
    ASSERT_EQ(reference.size(), 3);
    EXPECT_EQ(results(true), reference);

    QFile file(kept);
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    file.resize(file.size() - 3);
    file.close();
    EXPECT_EQ(results(true), reference);
    ASSERT_TRUE(NoteSearchCatalog::deleteCache(catalogPath));
    EXPECT_FALSE(QFile::exists(kept));
}

TEST_F(NoteSearchCatalogTest, CancelledSynchronisationRollsBack) {
    folder.write(QStringLiteral("a.md"), "alpha");
    auto catalog = openCatalog();
    std::stop_source stop;
    stop.request_stop();
    auto cancelled = catalog->synchronize(repository, nullptr, stop.get_token());
    ASSERT_FALSE(cancelled);
    EXPECT_EQ(cancelled.error().code(), Error::Code::cancelled);
    EXPECT_EQ(catalog->count(), 0);
}

// The catalog keeps the fingerprints between synchronisations: a rolled-back
// one must not leave its half-done ones behind, and another connection's
// changes must be read again.
TEST_F(NoteSearchCatalogTest, KeptFingerprintsFollowRollbacksAndOtherConnections) {
    for (int i = 0; i < 300; ++i) folder.write(QStringLiteral("n%1.md").arg(i), QByteArray("note ") + QByteArray::number(i));
    auto catalog = openCatalog();
    std::stop_source stop;
    catalog->setProgressHandler([&](int done, int) {
        if (done >= 250) stop.request_stop();
    });
    auto cancelled = catalog->synchronize(repository, nullptr, stop.get_token());
    ASSERT_FALSE(cancelled);
    catalog->setProgressHandler({});
    EXPECT_EQ(sync(*catalog), 300);
    EXPECT_EQ(catalog->count(), 300);
    EXPECT_EQ(sync(*catalog), 0);

    folder.write(QStringLiteral("n7.md"), "rewritten by someone else, longer than before");
    EXPECT_EQ(sync(*openCatalog()), 1);
    EXPECT_EQ(sync(*catalog), 0) << "the other connection's row is read, not indexed again";
    ASSERT_TRUE(QFile::remove(folder.filePath("n8.md")));
    EXPECT_EQ(sync(*catalog), 0);
    EXPECT_EQ(catalog->count(), 299);
}

TEST_F(NoteSearchCatalogTest, UnreadableNotesAreSkippedNotFatal) {
    folder.write(QStringLiteral("good.md"), "alpha");
    folder.write(QStringLiteral("latin1.md"), "caf\xe9");
    auto catalog = openCatalog();
    EXPECT_EQ(sync(*catalog), 1);
    EXPECT_EQ(catalog->count(), 1);
}

TEST_F(NoteSearchCatalogTest, OpenFailureNamesThePath) {
    folder.write(QStringLiteral("file"), "x");
    const QString impossible = folder.filePath("file/catalog.sqlite");
    auto catalog = NoteSearchCatalog::open(impossible);
    ASSERT_FALSE(catalog);
    EXPECT_EQ(catalog.error().description(),
              QStringLiteral("The search index is unavailable: Could not open ") + impossible);
}

TEST_F(NoteSearchCatalogTest, TwoProcessesSynchronisingAtOnceBothSucceed) {
    for (int i = 0; i < 300; ++i) {
        folder.write(QStringLiteral("n%1.md").arg(i), QByteArray("alpha beta ").repeated(50 + i));
    }
    std::vector<pid_t> children;
    for (int p = 0; p < 2; ++p) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            auto catalog = NoteSearchCatalog::open(catalogPath);
            if (!catalog) ::_exit(2);
            for (int round = 0; round < 3; ++round) {
                if (!(*catalog)->synchronize(repository)) ::_exit(3);
            }
            ::_exit((*catalog)->count().value_or(-1) == 300 ? 0 : 4);
        }
        children.push_back(child);
    }
    for (pid_t child : children) {
        int status = -1;
        ::waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << WEXITSTATUS(status);
    }
}

TEST(NoteSearchCatalogDefaults, LivesInTheCachesFolder) {
    EXPECT_EQ(NoteSearchCatalog::defaultUrl(),
              qEnvironmentVariable("XDG_CACHE_HOME") + QStringLiteral("/com.bellam.notes/agent-search.sqlite"));
}

}  // namespace
}  // namespace mossly
