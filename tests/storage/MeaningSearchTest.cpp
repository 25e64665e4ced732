#include <gtest/gtest.h>

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtEndian>
#include <cmath>
#include <sqlite3.h>

#include "NoteChunking.h"
#include "NoteRepository.h"
#include "NoteSearchService.h"
#include "TestSupport.h"

namespace mossly {
namespace {

std::shared_ptr<const WordVectorTable> wordVectors() {
    static const auto table = [] {
        auto opened = WordVectorTable::open(WordVectorTable::defaultPath());
        EXPECT_TRUE(opened) << (opened ? "" : opened.error().description().toStdString());
        return opened ? *opened : nullptr;
    }();
    return table;
}

std::shared_ptr<const WordVectorEmbedder> realEmbedder() { return std::make_shared<WordVectorEmbedder>(wordVectors()); }

class MeaningSearchTest : public ::testing::Test {
protected:
    test::TemporaryNotesFolder folder;
    test::TemporaryNotesFolder caches;
    NoteRepository repository{folder.path()};
    QString catalogPath = caches.filePath("agent-search.sqlite");

    std::unique_ptr<NoteSearchService> service(Result<std::shared_ptr<const WordVectorEmbedder>> embedder = realEmbedder()) {
        auto catalog = NoteSearchCatalog::open(catalogPath);
        EXPECT_TRUE(catalog);
        return std::make_unique<NoteSearchService>(std::shared_ptr<NoteSearchCatalog>(std::move(*catalog)), std::move(embedder));
    }
    static NoteSearchResponse search(NoteSearchService& s, const QString& query, NoteSearchMode mode) {
        auto response = s.search(query, mode, 20);
        EXPECT_TRUE(response) << (response ? "" : response.error().description().toStdString());
        return response ? *response : NoteSearchResponse{};
    }
    static QStringList identifiers(const NoteSearchResponse& response) {
        QStringList found;
        for (const auto& result : response.results) found.append(result.identifier);
        return found;
    }
};

TEST(NoteChunking, GathersParagraphsAndCutsLongOnesAtSentences) {
    const NoteChunking::Sizes small{5, 32};
    EXPECT_TRUE(NoteChunking::chunks(QStringLiteral("  \n\n -- \n")).isEmpty());
    EXPECT_EQ(NoteChunking::chunks(QStringLiteral("One two.\n\nThree."), small), QStringList{"One two.\n\nThree."});
    EXPECT_EQ(NoteChunking::chunks(QStringLiteral("a b c d e\n\nf g h i j\n\nk"), small),
              (QStringList{"a b c d e", "f g h i j\n\nk"}));
    // Twice the size and more: cut after a sentence end in the second half of a piece.
    EXPECT_EQ(NoteChunking::chunks(QStringLiteral("a b c d. e f g h i j k l m."), small),
              (QStringList{"a b c d.", "e f g h i", "j k l m."}));
    // A long note gets longer chunks, not more of them.
    QString many;
    for (int i = 0; i < 400; ++i) many += QStringLiteral("word%1 word two three four.\n\n").arg(i);
    const QStringList capped = NoteChunking::chunks(many, {5, 10});
    EXPECT_LE(capped.size(), 10);
    EXPECT_EQ(capped.join(u' ').count(QStringLiteral("word")), 800);
}

TEST(WordVectorEmbedder, SplitsAndFoldsWordsAsTheSearchDoes) {
    for (const QString& text : {QStringLiteral("Éclair au café, PLAN-Q3!"), QStringLiteral("Straße 東京 naïve e\u0301t"),
                               QStringLiteral("emoji 🙂between words"), QStringLiteral("ASCII only: a1 b_2 'c'")}) {
        QStringList words;
        for (const std::string& word : WordVectorEmbedder::words(text)) words.append(QString::fromStdString(word));
        EXPECT_EQ(words, NoteSearch::normalizedTerms(text)) << text.toStdString();
    }
}

TEST(WordVectorEmbedder, SimilarTextsAreCloserThanUnrelatedOnes) {
    const WordVectorEmbedder embedder(wordVectors());
    const auto cosine = [&](const QString& a, const QString& b) {
        const auto x = embedder.embed(a), y = embedder.embed(b);
        double sum = 0;
        for (size_t i = 0; i < x.size(); ++i) sum += double(x[i]) * y[i];
        return sum;
    };
    const QString plumbing = QStringLiteral("the plumber fixed the leaking pipe");
    EXPECT_GT(cosine(plumbing, QStringLiteral("bathroom water repair")), cosine(plumbing, QStringLiteral("quarterly sales forecast")));
    const auto unknown = embedder.embed(QStringLiteral("zxqv qqqzz"));
    EXPECT_TRUE(std::all_of(unknown.begin(), unknown.end(), [](float v) { return v == 0.0f; }));
}

TEST(WordVectorTable, AMissingOrDamagedTableIsUnavailable) {
    test::TemporaryNotesFolder dir;
    QFile original(WordVectorTable::defaultPath());
    ASSERT_TRUE(original.open(QIODevice::ReadOnly));
    const QByteArray bytes = original.readAll();
    QByteArray shuffled = bytes;
    // The first word made to sort last: lookups would go astray.
    const qsizetype pool = bytes.size() - qFromLittleEndian<quint32>(bytes.constData() + 16);
    shuffled[pool] = char(0xff);
    const std::pair<const char*, QByteArray> damaged[] = {
        {"empty", QByteArray()},
        {"truncated", bytes.left(bytes.size() - 1)},
        {"foreign", QByteArray(1000, 'x')},
        {"wrong-version", QByteArray("MOSSWV02") + bytes.mid(8)},
        {"unsorted", shuffled},
    };
    for (const auto& [name, content] : damaged) {
        dir.write(QString::fromLatin1(name), content);
        auto table = WordVectorTable::open(dir.filePath(QString::fromLatin1(name)));
        ASSERT_FALSE(table) << name;
        EXPECT_EQ(table.error().code(), Error::Code::embeddingsUnavailable) << name;
    }
    auto missing = WordVectorTable::open(dir.filePath("absent.bin"));
    ASSERT_FALSE(missing);
    EXPECT_TRUE(missing.error().description().startsWith("On-device semantic embeddings are unavailable"));
}

TEST_F(MeaningSearchTest, ChunkVectorsAreStoredAsLittleEndianDoubles) {
    folder.write("plumber.md", "# Plumber\n\nThe plumber fixed the leaking pipe under the sink.");
    auto s = service();
    ASSERT_TRUE(s->synchronize(repository));
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(QFile::encodeName(catalogPath).constData(), &db), SQLITE_OK);
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db, "SELECT chunk_text, vector FROM note_semantic", -1, &statement, nullptr), SQLITE_OK);
    ASSERT_EQ(sqlite3_step(statement), SQLITE_ROW);
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)));
    const QByteArray blob(static_cast<const char*>(sqlite3_column_blob(statement, 1)), sqlite3_column_bytes(statement, 1));
    sqlite3_finalize(statement);
    sqlite3_close(db);
    const std::vector<float> expected = WordVectorEmbedder(wordVectors()).embed(text);
    ASSERT_EQ(blob.size(), qsizetype(8 * expected.size()));
    double norm = 0;
    for (size_t i = 0; i < expected.size(); ++i) {
        const double stored = qFromLittleEndian<double>(blob.constData() + 8 * i);
        EXPECT_EQ(stored, double(expected[i]));
        norm += stored * stored;
    }
    EXPECT_NEAR(norm, 1.0, 1e-6);
}

TEST_F(MeaningSearchTest, WithoutWordVectorsMeaningAndHybridAnswerWithKeywordsAndSaySo) {
    folder.write("plumber.md", "# Plumber\n\nThe plumber fixed the leaking pipe.");
    auto s = service(std::unexpected(Error::embeddingsUnavailable("the word-vector table is damaged: x")));
    ASSERT_TRUE(s->synchronize(repository));
    for (const NoteSearchMode mode : {NoteSearchMode::meaning, NoteSearchMode::hybrid}) {
        const auto response = search(*s, QStringLiteral("plumber"), mode);
        EXPECT_EQ(identifiers(response), QStringList{"plumber.md"});
        EXPECT_FALSE(response.semanticAvailable);
        EXPECT_EQ(response.warning, NoteSearchService::unavailableWarning);
    }
    const auto keyword = search(*s, QStringLiteral("plumber"), NoteSearchMode::keyword);
    EXPECT_FALSE(keyword.warning);
}

TEST_F(MeaningSearchTest, UntilEveryNoteHasVectorsKeywordResultsComeWithTheIndexingWarning) {
    folder.write("plumber.md", "# Plumber\n\nThe plumber fixed the leaking pipe.");
    auto s = service();
    // Never synchronised: nothing is known about the vectors yet.
    EXPECT_EQ(search(*s, QStringLiteral("plumber"), NoteSearchMode::hybrid).warning, NoteSearchService::indexingWarning);
    // Keyword rows only (another process, or the first half of a synchronisation).
    ASSERT_TRUE(s->catalog().synchronize(repository));
    ASSERT_TRUE(s->refreshVectors());
    const auto waiting = search(*s, QStringLiteral("bathroom water repair"), NoteSearchMode::meaning);
    EXPECT_EQ(waiting.warning, NoteSearchService::indexingWarning);
    EXPECT_FALSE(waiting.semanticAvailable);
    ASSERT_TRUE(s->synchronize(repository));
    const auto ready = search(*s, QStringLiteral("bathroom water repair"), NoteSearchMode::meaning);
    EXPECT_FALSE(ready.warning);
    EXPECT_TRUE(ready.semanticAvailable);
    EXPECT_EQ(identifiers(ready), QStringList{"plumber.md"});
}

TEST_F(MeaningSearchTest, HybridPutsTitleAndWordHitsFirstAndFindsParaphrases) {
    folder.write("plumber.md", "# Plumber\n\nThe plumber fixed the leaking pipe under the sink.");
    folder.write("water.md", "# Hydration\n\nDrink more water on long runs.");
    folder.write("budget.md", "# Budget\n\nQuarterly spending on rent and groceries.");
    folder.write("repair-log.md", "# Bathroom water repair\n\nCalled the landlord.");
    auto s = service();
    ASSERT_TRUE(s->synchronize(repository));
    const auto found = search(*s, QStringLiteral("bathroom water repair"), NoteSearchMode::hybrid);
    const QStringList order = identifiers(found);
    ASSERT_GE(order.size(), 3);
    EXPECT_EQ(order.front(), "repair-log.md") << "the exact title comes first";
    EXPECT_TRUE(order.contains("plumber.md")) << "found by meaning alone";
    EXPECT_FALSE(order.contains("budget.md")) << order.join(", ").toStdString();
    for (const auto& result : found.results) {
        EXPECT_TRUE(result.semanticAvailable);
        if (result.identifier == "plumber.md") {
            EXPECT_EQ(result.keywordScore, 0.0);
            EXPECT_EQ(result.score, result.meaningScore);
            EXPECT_EQ(result.excerpt, QStringLiteral("# Plumber The plumber fixed the leaking pipe under the sink."));
        }
    }
    const auto meaning = search(*s, QStringLiteral("bathroom water repair"), NoteSearchMode::meaning);
    EXPECT_EQ(meaning.results.size(), 4u) << "every note with vectors, ranked";
    EXPECT_TRUE(search(*s, QStringLiteral("zxqv"), NoteSearchMode::meaning).results.empty());
}

TEST_F(MeaningSearchTest, VectorsFollowChangesMadeByAnotherProcess) {
    folder.write("a.md", "# Garden\n\nPlanted tomatoes and basil in the raised bed.");
    auto ours = service();
    ASSERT_TRUE(ours->synchronize(repository));
    auto theirs = service();
    folder.write("b.md", "# Dentist\n\nAppointment moved to Thursday, ask about the cavity.");
    ASSERT_TRUE(QFile::remove(folder.filePath("a.md")));
    ASSERT_TRUE(theirs->synchronize(repository));
    ASSERT_TRUE(ours->refreshVectors());
    EXPECT_EQ(identifiers(search(*ours, QStringLiteral("teeth doctor"), NoteSearchMode::meaning)), QStringList{"b.md"});
}

// One-shot commands keep the vectors in a file beside the catalog; a file that is
// stale, damaged or missing costs time, never a wrong answer.
TEST_F(MeaningSearchTest, VectorsKeptBesideTheCatalogAreTrustedOnlyWhereCurrent) {
    folder.write("a.md", "# Garden\n\nPlanted tomatoes and basil in the raised bed.");
    folder.write("b.md", "# Car\n\nOil change and new brake pads at the garage.");
    // What a run with the file answers, and what reading every vector from the catalog answers.
    const auto oneShot = [&](const QString& query) {
        auto s = service();
        s->keepSnapshotsBesideCatalog();
        EXPECT_TRUE(s->synchronize(repository));
        return search(*s, query, NoteSearchMode::meaning);
    };
    const auto fromCatalog = [&](const QString& query) {
        auto s = service();
        EXPECT_TRUE(s->synchronize(repository));
        return search(*s, query, NoteSearchMode::meaning);
    };
    const auto same = [](const NoteSearchResponse& a, const NoteSearchResponse& b) {
        if (a.results.size() != b.results.size()) return false;
        for (size_t i = 0; i < a.results.size(); ++i) {
            if (a.results[i].identifier != b.results[i].identifier || a.results[i].score != b.results[i].score) return false;
        }
        return true;
    };
    EXPECT_EQ(identifiers(oneShot(QStringLiteral("vehicle mechanic"))).value(0), "b.md");
    const QString kept = NoteSearchService::vectorsFilePath(catalogPath);
    ASSERT_TRUE(QFile::exists(kept));
    folder.write("b.md", "# Dentist\n\nAppointment moved to Thursday, ask about the cavity.");
    EXPECT_EQ(identifiers(oneShot(QStringLiteral("teeth doctor"))).value(0), "b.md");
    EXPECT_TRUE(same(oneShot(QStringLiteral("vehicle mechanic")), fromCatalog(QStringLiteral("vehicle mechanic"))));
    QFile file(kept);
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    file.resize(file.size() / 2);
    file.close();
    EXPECT_TRUE(same(oneShot(QStringLiteral("teeth doctor")), fromCatalog(QStringLiteral("teeth doctor"))));
    ASSERT_TRUE(NoteSearchCatalog::deleteCache(catalogPath));
    EXPECT_FALSE(QFile::exists(kept));
}

// A one-shot search runs while the folder is listed; its answer stands only
// if the catalog turns out to have mirrored the folder all along.
TEST_F(MeaningSearchTest, AOneShotSearchAnswersForTheFolderAsItIsNow) {
    const auto oneShot = [&](const QString& query, NoteSearchMode mode) {
        auto s = service();
        s->keepSnapshotsBesideCatalog();
        auto response = s->searchUpToDate(repository, NoteSearchService::listInBackground(repository), query, mode, 20);
        EXPECT_TRUE(response) << (response ? "" : response.error().description().toStdString());
        return response ? identifiers(*response) : QStringList{"failed"};
    };
    folder.write("a.md", "# Garden\n\nPlanted tomatoes and basil in the raised bed.");
    folder.write("b.md", "# Car\n\nOil change and new brake pads at the garage.");
    for (const NoteSearchMode mode : {NoteSearchMode::keyword, NoteSearchMode::meaning, NoteSearchMode::hybrid}) {
        EXPECT_EQ(oneShot(QStringLiteral("tomatoes"), mode).value(0), "a.md");
    }
    // Changed since the last run: a note rewritten, one removed, one added.
    folder.write("b.md", "# Car\n\nThe mechanic also looked at the tomatoes in the boot, all of them.");
    ASSERT_TRUE(QFile::remove(folder.filePath("a.md")));
    folder.write("c.md", "# Salad\n\nTomatoes, cucumber and olive oil.");
    EXPECT_EQ(oneShot(QStringLiteral("tomatoes"), NoteSearchMode::keyword), (QStringList{"c.md", "b.md"}));
    EXPECT_EQ(oneShot(QStringLiteral("tomatoes"), NoteSearchMode::hybrid).value(0), "c.md");
    EXPECT_FALSE(oneShot(QStringLiteral("vegetable garden"), NoteSearchMode::meaning).contains("a.md"));
    // Changed by another process in between: the catalog is no longer what was read.
    folder.write("d.md", "# Tomatoes\n\nA note about tomatoes, tomatoes and tomatoes.");
    ASSERT_TRUE(service()->synchronize(repository));
    EXPECT_EQ(oneShot(QStringLiteral("tomatoes"), NoteSearchMode::hybrid).value(0), "d.md");

    // A folder that cannot be listed fails the search; nothing waits forever.
    const NoteRepository missing(folder.filePath("c.md"));
    auto s = service();
    EXPECT_FALSE(s->searchUpToDate(missing, NoteSearchService::listInBackground(missing), QStringLiteral("tomatoes"),
                                   NoteSearchMode::hybrid, 20));
}

TEST(SemanticVectorIndex, ReadsBackWhatItWroteAndNothingElse) {
    SemanticVectorIndex index(3);
    index.put("a.md", "r1", {{1, 0, 0}, {0, 0.6, 0.8}});
    index.put("é.md", "r2", {{0, -1, 0}});
    const QByteArray bytes = index.serialised();
    const auto back = SemanticVectorIndex::fromSerialised(bytes, 3);
    ASSERT_TRUE(back);
    const float query[] = {0, 0.6f, 0.8f};
    const auto hits = back->nearest(query, 5);
    ASSERT_EQ(hits.size(), 2u);
    EXPECT_EQ(hits[0].identifier, "a.md");
    EXPECT_EQ(hits[0].bestChunk, 1);
    EXPECT_NEAR(hits[0].score, 1.0, 0.02);
    EXPECT_EQ(back->revision("é.md"), "r2");
    EXPECT_FALSE(SemanticVectorIndex::fromSerialised(bytes, 4)) << "another dimension";
    for (qsizetype cut : {qsizetype(0), qsizetype(9), bytes.size() - 1}) {
        EXPECT_FALSE(SemanticVectorIndex::fromSerialised(bytes.left(cut), 3)) << cut;
    }
    EXPECT_FALSE(SemanticVectorIndex::fromSerialised(bytes + "x", 3));
}

// Read in place, the index answers as the parsed one does, refuses bytes whose
// references point outside, and takes changes after it is first searched.
TEST(SemanticVectorIndex, SearchesBytesInPlaceUntilItChanges) {
    SemanticVectorIndex index(3);
    index.put("b.md", "r1", {{1, 0, 0}, {0, 0.6, 0.8}});
    index.put("a.md", "r2", {{0, -1, 0}});
    index.put("é.md", "r3", {{0, 0, 1}});
    const QByteArray bytes = index.serialised();
    auto owner = std::make_shared<const QByteArray>(bytes);
    auto frozen = SemanticVectorIndex::inPlace(owner, *owner, 3);
    ASSERT_TRUE(frozen);
    const float query[] = {0, 0.6f, 0.8f};
    const auto hits = frozen->nearest(query, 2);
    ASSERT_EQ(hits.size(), 2u);
    EXPECT_EQ(hits[0].identifier, "b.md");
    EXPECT_EQ(hits[1].identifier, "é.md");
    EXPECT_EQ(frozen->revision("a.md"), "r2");
    EXPECT_FALSE(frozen->contains("c.md"));
    EXPECT_NEAR(frozen->score("é.md", query)->score, 0.8, 0.02);
    EXPECT_EQ(frozen->serialised(), bytes);

    frozen->put("c.md", "r4", {{0, 0.6, 0.8}});
    frozen->remove("b.md");
    EXPECT_EQ(frozen->noteCount(), 3);
    EXPECT_EQ(frozen->nearest(query, 1).front().identifier, "c.md");
    EXPECT_EQ(frozen->revision("é.md"), "r3");

    // The header is 24 bytes, then six numbers a note: point the first note's
    // identifier outside the strings, then swap two identifiers' order.
    QByteArray outside = bytes;
    outside[24] = char(0x7f);
    EXPECT_FALSE(SemanticVectorIndex::fromSerialised(outside, 3));
    QByteArray unsorted = bytes;
    std::swap_ranges(unsorted.begin() + 24, unsorted.begin() + 24 + 8, unsorted.begin() + 48);
    EXPECT_FALSE(SemanticVectorIndex::fromSerialised(unsorted, 3));
}

// The evaluation set: paraphrased queries that share no word with their note.
TEST_F(MeaningSearchTest, ParaphrasesFindTheirNotes) {
    QFile file(QStringLiteral(MOSSLY_TEST_DATA_DIR "/meaning-evaluation.json"));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QJsonObject root = QJsonDocument::fromJson(file.readAll()).object();
    const QJsonArray cases = root.value("cases").toArray();
    for (qsizetype i = 0; i < cases.size(); ++i) {
        folder.write(QStringLiteral("case-%1.md").arg(i), cases[i]["note"].toString().toUtf8());
        const QStringList shared = NoteSearch::normalizedTerms(cases[i]["query"].toString());
        for (const QString& word : shared) {
            EXPECT_FALSE(NoteSearch::normalizedTerms(cases[i]["note"].toString()).contains(word)) << word.toStdString();
        }
    }
    qsizetype distractor = 0;
    for (const QJsonValue value : root.value("distractors").toArray()) {
        folder.write(QStringLiteral("other-%1.md").arg(distractor++), value.toString().toUtf8());
    }
    auto s = service();
    ASSERT_TRUE(s->synchronize(repository));
    for (const NoteSearchMode mode : {NoteSearchMode::meaning, NoteSearchMode::hybrid}) {
        int inTopFive = 0;
        for (qsizetype i = 0; i < cases.size(); ++i) {
            const QStringList top = identifiers(search(*s, cases[i]["query"].toString(), mode)).mid(0, 5);
            inTopFive += top.contains(QStringLiteral("case-%1.md").arg(i));
        }
        EXPECT_GE(double(inTopFive) / double(cases.size()), 0.85) << NoteSearchModes::toString(mode).toStdString();
    }
}

}  // namespace
}  // namespace mossly
