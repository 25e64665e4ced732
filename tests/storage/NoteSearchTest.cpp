#include <gtest/gtest.h>

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <random>

#include "NoteRepository.h"
#include "NoteSearchCatalog.h"
#include "NotesFolderGenerator.h"
#include "TestSupport.h"

namespace mossly {
namespace {

TEST(NoteSearchTerms, FoldingAndSplitting) {
    EXPECT_EQ(NoteSearch::normalizedTerms(QStringLiteral("Éclair")), QStringList{"eclair"});
    EXPECT_EQ(NoteSearch::normalizedTerms(QStringLiteral("plan, Q3 budget")), (QStringList{"plan", "q3", "budget"}));
    EXPECT_EQ(NoteSearch::normalizedTerms(QStringLiteral("say \"hi\"")), (QStringList{"say", "hi"}));
    EXPECT_EQ(NoteSearch::normalizedTerms(QStringLiteral("a-b a")), (QStringList{"a", "b", "a"}));
    EXPECT_EQ(NoteSearch::normalizedTerms(QStringLiteral("Straße 東京")), (QStringList{"straße", "東京"}));
    EXPECT_TRUE(NoteSearch::normalizedTerms(QStringLiteral(" \n\t")).isEmpty());
    EXPECT_TRUE(NoteSearch::normalizedTerms(QStringLiteral("!!!")).isEmpty());
    EXPECT_EQ(NoteSearch::ftsExpression({"plan", "q3"}), QStringLiteral("\"plan\" OR \"q3\""));
    EXPECT_EQ(NoteSearch::ftsExpression({"a\"b"}), QStringLiteral("\"a\"\"b\""));
}

TEST(NoteSearchTerms, ExcerptsAreClipped) {
    EXPECT_EQ(NoteSearch::clippedExcerpt(QString(240, u'x')).size(), 240);
    const QString clipped = NoteSearch::clippedExcerpt(QString(241, u'x'));
    EXPECT_EQ(clipped.size(), 238);
    EXPECT_TRUE(clipped.endsWith(QStringLiteral("x…")));
}

TEST(NoteSearchTerms, ResultJsonKeepsItsKeyOrder) {
    NoteSearchResult result{"a/b c.md", "T", "e", 2.5, 2.5, std::nullopt, "rev", "human", "agent:x", false};
    const QString json = NoteSearch::toJson(result);
    EXPECT_EQ(json, QStringLiteral("{\"identifier\":\"a\\/b c.md\",\"title\":\"T\",\"excerpt\":\"e\",\"score\":2.5,"
                                   "\"keywordScore\":2.5,\"revision\":\"rev\",\"createdBy\":\"human\","
                                   "\"lastEditedBy\":\"agent:x\",\"semanticAvailable\":false,"
                                   "\"openURL\":\"mossly:\\/\\/note\\/a\\/b%20c.md\"}"));
    EXPECT_TRUE(QJsonDocument::fromJson(json.toUtf8()).isObject());
}

class KeywordSearchTest : public ::testing::Test {
protected:
    test::TemporaryNotesFolder folder;
    test::TemporaryNotesFolder caches;
    NoteRepository repository{folder.path()};
    std::unique_ptr<NoteSearchCatalog> catalog;

    void index() {
        catalog = std::move(*NoteSearchCatalog::open(caches.filePath("c.sqlite")));
        ASSERT_TRUE(catalog->synchronize(repository));
    }
    QStringList identifiers(const QString& query, qint64 limit = 50) {
        auto fast = catalog->search(query, limit);
        auto reference = catalog->searchWithReferenceStatement(query, limit);
        EXPECT_TRUE(fast && reference);
        QStringList ids;
        for (const auto& r : fast->results) ids.append(r.identifier);
        QStringList referenceIds;
        for (const auto& r : reference->results) referenceIds.append(r.identifier);
        EXPECT_EQ(ids, referenceIds) << query.toStdString();
        return ids;
    }
};

TEST_F(KeywordSearchTest, TitleAndBodyBonusesOrderEqualMatches) {
    // Same text length and term frequency, so BM25 ties; the bonuses decide.
    folder.write(QStringLiteral("body.md"), "intro\nsome words about Budget here");
    folder.write(QStringLiteral("exact.md"), "# BUDGET\nsome words about other here");
    folder.write(QStringLiteral("contains.md"), "# Budget review\nsome words about it here");
    index();
    const auto response = catalog->search(QStringLiteral("budget"), 10);
    ASSERT_EQ(response->results.size(), 3u);
    EXPECT_EQ(response->results[0].identifier, QStringLiteral("exact.md"));
    EXPECT_EQ(response->results[1].identifier, QStringLiteral("contains.md"));
    EXPECT_EQ(response->results[0].title, QStringLiteral("BUDGET"));
    EXPECT_GT(response->results[0].keywordScore, 6.0);  // whole title 5 + body 1 + BM25
    EXPECT_EQ(response->results[0].score, response->results[0].keywordScore);
    EXPECT_FALSE(response->results[0].meaningScore);
    identifiers(QStringLiteral("budget"));
}

TEST_F(KeywordSearchTest, LimitsQuotesAndDiacritics) {
    for (int i = 0; i < 520; ++i) folder.write(QStringLiteral("n%1.md").arg(i), "common word");
    folder.write(QStringLiteral("cafe.md"), "Le Café est ouvert. Say \"hi\" there");
    index();
    EXPECT_TRUE(catalog->search(QStringLiteral("common"), 0)->results.empty());
    EXPECT_EQ(catalog->search(QStringLiteral("common"), 10000)->results.size(), 500u);
    EXPECT_TRUE(catalog->search(QStringLiteral("common"), -3)->results.empty());
    EXPECT_EQ(identifiers(QStringLiteral("CAFE")), QStringList{"cafe.md"});
    EXPECT_EQ(identifiers(QStringLiteral("say \"hi\"")), QStringList{"cafe.md"});
    EXPECT_TRUE(identifiers(QStringLiteral("caf")).isEmpty());  // whole tokens only
    EXPECT_TRUE(catalog->search(QStringLiteral("!!!"), 10)->results.empty());
}

// The query is split where the catalog's tokenizer splits the text; if the two
// ever disagree (a tokenizer option changed), a whole script goes unfindable.
TEST_F(KeywordSearchTest, EveryScriptIsFoundByItsOwnWords) {
    const std::pair<const char*, const char*> samples[] = {
        {"hindi.md", "\u0928\u092E\u0938\u094D\u0924\u0947 \u0926\u0941\u0928\u093F\u092F\u093E"},  // नमस्ते दुनिया
        {"thai.md", "\u0E2A\u0E27\u0E31\u0E2A\u0E14\u0E35 \u0E04\u0E23\u0E31\u0E1A"},                 // สวัสดี ครับ
        {"arabic.md", "\u0643\u064E\u062A\u064E\u0628\u064E \u0627\u0644\u062F\u0651\u064E\u0631\u0652\u0633"},  // harakat
        {"korean.md", "\uD68C\uC758 \uC900\uBE44"},                                                        // 회의 준비
        {"german.md", "Die Stra\u00DFe ist lang"},
        {"turkish.md", "\u0130stanbul toplant\u0131s\u0131"},
    };
    for (const auto& [name, text] : samples) folder.write(QString::fromUtf8(name), QByteArray("# Note\n") + text);
    index();
    for (const auto& [name, text] : samples) {
        for (const QString& word : QString::fromUtf8(text).split(u' ')) {
            EXPECT_EQ(identifiers(word), QStringList{QString::fromUtf8(name)}) << name << " " << word.toStdString();
        }
    }
    // Folding works the same way on both sides.
    EXPECT_EQ(identifiers(QStringLiteral("STRA\u00DFE")), QStringList{"german.md"});
    EXPECT_EQ(identifiers(QStringLiteral("istanbul")), QStringList{"turkish.md"});
    EXPECT_EQ(identifiers(QStringLiteral("STRASSE")).size(), 0u) << "ß is no double s for the tokenizer";
}

TEST_F(KeywordSearchTest, ExcerptsComeFromTheBodyAndStayShort) {
    QByteArray longBody = "# Title\n";
    for (int i = 0; i < 200; ++i) longBody += "extraordinarily ";
    longBody += "needle";
    folder.write(QStringLiteral("long.md"), longBody);
    index();
    const auto results = catalog->search(QStringLiteral("needle"), 5)->results;
    ASSERT_EQ(results.size(), 1u);
    EXPECT_LE(results[0].excerpt.size(), 238);
    EXPECT_TRUE(results[0].excerpt.startsWith(QStringLiteral(" … ")) || results[0].excerpt.endsWith(u'…'));
}

// The fast ranking must return exactly what the reference statement returns:
// same rows, same order, same scores and excerpts.
TEST(KeywordSearchDifferential, AgreesWithTheReferenceStatementOnGeneratedLibraries) {
    for (const std::uint64_t seed : {1u, 2u}) {
        test::TemporaryNotesFolder folder;
        test::TemporaryNotesFolder caches;
        const auto generated = bench::generateNotesFolder(folder.path(), 400, seed);
        // Notes whose titles equal or contain common words, to exercise the bonuses.
        for (int i = 0; i < 20; ++i) {
            folder.write(QStringLiteral("t%1.md").arg(i),
                         ("# " + generated.mostCommon[i % 10] + (i % 2 ? " notes" : "") + "\n" +
                          generated.mostCommon[(i + 3) % 50])
                             .toUtf8());
        }
        const NoteRepository repository(folder.path());
        auto catalog = std::move(*NoteSearchCatalog::open(caches.filePath("c.sqlite")));
        ASSERT_TRUE(catalog->synchronize(repository));

        QStringList queries = bench::uniformQueries(generated.wordsPresent, 60, seed);
        queries += generated.mostCommon.mid(0, 20);
        queries += {generated.mostCommon[0] + u' ' + generated.mostCommon[1], QStringLiteral("  ") +
                    generated.mostCommon[2].toUpper() + u' '};
        for (const QString& query : queries) {
            for (const qint64 limit : {1, 7, 50, 500}) {
                auto fast = catalog->search(query, limit);
                auto reference = catalog->searchWithReferenceStatement(query, limit);
                ASSERT_TRUE(fast && reference);
                ASSERT_EQ(fast->results, reference->results) << query.toStdString() << " limit " << limit;
            }
        }
    }
}

void expectSameAsReference(NoteSearchCatalog& catalog, const QStringList& queries) {
    for (const QString& query : queries) {
        for (const qint64 limit : {1, 2, 3, 5, 20, 500}) {
            auto fast = catalog.search(query, limit);
            auto reference = catalog.searchWithReferenceStatement(query, limit);
            ASSERT_TRUE(fast && reference);
            ASSERT_EQ(fast->results, reference->results) << query.toStdString() << " limit " << limit;
        }
    }
}

// Libraries built to break a ranking that skips rows: one word in every note,
// exact ties that only the identifier orders, title bonuses that outweigh any
// BM25 difference, words whose accented or non-ASCII forms match the index but
// earn no bonus, notes holding the word only in the title.
void writeAdversarialLibrary(const test::TemporaryNotesFolder& folder, int variant) {
    const QString filler = QStringLiteral("alpha beta gamma delta ");
    for (int i = 0; i < 120; ++i) {
        const QString repeated = QStringLiteral("common ").repeated(1 + (i + variant) % 4);
        folder.write(QStringLiteral("n%1.md").arg(i, 3, 10, QLatin1Char('0')),
                     ("# Note " + QString::number(i % 7) + "\n\n" + filler.repeated(i % 5) + repeated).toUtf8());
    }
    for (int i = 0; i < 12; ++i) {  // identical notes: only their names order them
        folder.write(QStringLiteral("tie %1.md").arg(i), "# Tie\n\ncommon ground common sense\n");
    }
    const std::pair<const char*, const char*> special[] = {
        {"title equal.md", "# Common\n\nnothing else here"},
        {"title upper.md", "# COMMON\n\nalpha common"},
        {"title contains.md", "# Common notes\n\nbeta"},
        {"title accented.md", "# Cömmon\n\ngamma"},
        {"body accented.md", "# Other\n\nCÖMMON cömmon commön"},
        {"title only.md", "# common ground\n\nno body hit"},
        {"rare.md", "# Rare\n\ncommon zebra zebra"},
    };
    for (const auto& [name, text] : special) folder.write(QString::fromUtf8(name), QByteArray(text));
}

TEST(KeywordSearchDifferential, AgreesOnAdversarialLibrariesAndAfterEveryChange) {
    test::TemporaryNotesFolder folder;
    test::TemporaryNotesFolder caches;
    writeAdversarialLibrary(folder, 0);
    const NoteRepository repository(folder.path());
    auto catalog = std::move(*NoteSearchCatalog::open(caches.filePath("c.sqlite")));
    ASSERT_TRUE(catalog->synchronize(repository));
    const QStringList queries{QStringLiteral("common"), QStringLiteral("COMMON"), QStringLiteral("common notes"),
                              QStringLiteral("common zebra"), QStringLiteral("common common"),
                              QStringLiteral("cömmon"), QStringLiteral("ground common"), QStringLiteral("tie")};
    expectSameAsReference(*catalog, queries);

    // This connection changes the catalog: rows deleted, rewritten and added.
    writeAdversarialLibrary(folder, 1);
    ASSERT_TRUE(QFile::remove(folder.filePath("title equal.md")));
    ASSERT_TRUE(QFile::remove(folder.filePath("tie 3.md")));
    folder.write(QStringLiteral("new.md"), "# common\n\ncommon common common common common");
    ASSERT_TRUE(catalog->synchronize(repository));
    expectSameAsReference(*catalog, queries);

    // Another connection (another process, say) changes it.
    folder.write(QStringLiteral("title equal.md"), "# Common\n\nback again");
    ASSERT_TRUE(QFile::remove(folder.filePath("n007.md")));
    {
        auto other = std::move(*NoteSearchCatalog::open(caches.filePath("c.sqlite")));
        ASSERT_TRUE(other->synchronize(repository));
    }
    expectSameAsReference(*catalog, queries);
    auto found = catalog->search(QStringLiteral("common"), 500);
    ASSERT_TRUE(found);
    QStringList identifiers;
    for (const NoteSearchResult& result : found->results) identifiers.append(result.identifier);
    EXPECT_TRUE(identifiers.contains(QStringLiteral("title equal.md")));
    EXPECT_FALSE(identifiers.contains(QStringLiteral("n007.md")));
}

// Many small random libraries where a rare word's weight, note lengths, title
// hits and accented forms vary widely: the cases where a row without a title
// hit can still overtake one with it, which a bound too tight would miss.
TEST(KeywordSearchDifferential, AgreesOnRandomLibrariesWhereRareWordsOutweighTitles) {
    std::mt19937 random(20261123);
    const auto pick = [&](int low, int high) { return std::uniform_int_distribution<int>(low, high)(random); };
    const QStringList forms{QStringLiteral("zebra"), QStringLiteral("Zebra"), QStringLiteral("ZEBRA"),
                            QStringLiteral("zébra")};
    for (int library = 0; library < 40; ++library) {
        test::TemporaryNotesFolder folder;
        test::TemporaryNotesFolder caches;
        const auto filler = [&](int words) { return QStringLiteral("lorem ").repeated(words); };
        // Many short notes without the word: it is rare (a high weight) and a
        // long note is far longer than the average.
        for (int i = pick(20, 200); i > 0; --i) {
            folder.write(QStringLiteral("filler %1.md").arg(i), ("common " + filler(pick(0, 40))).toUtf8());
        }
        for (int i = pick(2, 6); i > 0; --i) {
            const int titleKind = pick(0, 3);
            const QString title = titleKind == 0   ? QStringLiteral("zebra")
                                  : titleKind == 1 ? QStringLiteral("Zebra notes")
                                                   : QStringLiteral("Other");
            QString body = filler(pick(0, 1) ? pick(0, 20) : pick(200, 3000));
            for (int r = pick(0, 25); r > 0; --r) body += forms[pick(0, 3)] + u' ';
            if (pick(0, 1)) body += QStringLiteral("quokka common ");
            folder.write(QStringLiteral("zebra %1.md").arg(i), ("# " + title + "\n\n" + body).toUtf8());
        }
        const NoteRepository repository(folder.path());
        auto catalog = std::move(*NoteSearchCatalog::open(caches.filePath("c.sqlite")));
        ASSERT_TRUE(catalog->synchronize(repository));
        expectSameAsReference(*catalog, {QStringLiteral("zebra"), QStringLiteral("zebra quokka"),
                                         QStringLiteral("common zebra"), QStringLiteral("common")});
        if (::testing::Test::HasFatalFailure()) return;
    }
}

}  // namespace
}  // namespace mossly
