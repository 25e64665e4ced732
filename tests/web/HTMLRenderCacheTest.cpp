#include <gtest/gtest.h>

#include <thread>

#include "HTMLRenderCache.h"
#include "HTMLRenderPolicy.h"
#include "QtPrinting.h"

namespace mossly {
namespace {

using namespace Qt::StringLiterals;

const QUrl noteA = QUrl::fromLocalFile(u"/notes/a/one.html"_s);
const QUrl noteA2 = QUrl::fromLocalFile(u"/notes/a/two.html"_s);
const QUrl noteB = QUrl::fromLocalFile(u"/notes/b/one.html"_s);

TEST(HTMLRenderCache, KeysDependOnTheTextAndTheFolderOnly) {
    const QString page = u"<img src=\"pic.png\">"_s;
    EXPECT_EQ(HTMLRenderCache::cacheKey(page, noteA), HTMLRenderCache::cacheKey(page, noteA2));
    EXPECT_NE(HTMLRenderCache::cacheKey(page, noteA), HTMLRenderCache::cacheKey(page, noteB));
    EXPECT_NE(HTMLRenderCache::cacheKey(page, noteA), HTMLRenderCache::cacheKey(page + u' ', noteA));
    EXPECT_NE(HTMLRenderCache::cacheKey(page, noteA), HTMLRenderCache::cacheKey(page, {}));
    // Length prefixes: moving text between the parts gives another key.
    EXPECT_NE(HTMLRenderCache::cacheKey(u"ab"_s, QUrl::fromLocalFile(u"/c/n.html"_s)),
              HTMLRenderCache::cacheKey(u"a"_s, QUrl::fromLocalFile(u"b/c/n.html"_s)));
    EXPECT_EQ(HTMLRenderCache::cacheKey(page, noteA).size(), 64);
}

TEST(HTMLRenderCache, PreparesOnceForEachTextAndFolder) {
    HTMLRenderCache cache;
    const QString page = u"<p onclick=x>hi</p>"_s;
    const HTMLRenderResult first = cache.prepare(page, noteA);
    EXPECT_EQ(first, HTMLRenderPolicy::prepare(page, noteA));
    EXPECT_EQ(cache.prepare(page, noteA), first);
    EXPECT_EQ(cache.prepare(QString(page.constData(), page.size()), noteA2),
              first);  // equal text, another buffer
    EXPECT_EQ(cache.count(), 1);
    cache.prepare(page, noteB);
    EXPECT_EQ(cache.count(), 2);
    cache.clear();
    EXPECT_EQ(cache.count(), 0);
    EXPECT_EQ(cache.prepare(page, noteA), first);
}

TEST(HTMLRenderCache, TextChangedAfterPreparingIsPreparedAgain) {
    HTMLRenderCache cache;
    QString page = u"<p>a</p>"_s;
    EXPECT_EQ(cache.prepare(page, noteA).bodyHTML, u"<p>a</p>");
    page[3] = u'b';  // the cache's copy keeps the old buffer; this one detaches
    EXPECT_EQ(cache.prepare(page, noteA).bodyHTML, u"<p>b</p>");
    page.append(u"<p>c</p>"_s);
    EXPECT_EQ(cache.prepare(page, noteA).bodyHTML, u"<p>b</p><p>c</p>");
}

TEST(HTMLRenderCache, ResultsLargerThanTheBoundAreNotKept) {
    HTMLRenderCache cache(4 * 1024);
    const QString small = u"<p>small</p>"_s;
    const QString large = u"<p>"_s + QString(4096, u'x') + u"</p>"_s;
    EXPECT_EQ(cache.prepare(large, noteA).bodyHTML, large);
    EXPECT_EQ(cache.count(), 0);
    cache.prepare(small, noteA);
    EXPECT_EQ(cache.count(), 1);
}

TEST(HTMLRenderCache, ThreadsShareOneCache) {
    HTMLRenderCache cache;
    const QString page = u"<p>shared</p><script>x</script>"_s;
    std::vector<HTMLRenderResult> results(8);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < results.size(); ++i)
        threads.emplace_back([&, i] {
            for (int round = 0; round < 50; ++round)
                results[i] = cache.prepare(i % 2 ? page : QString(page), noteA);
        });
    for (auto& thread : threads) thread.join();
    for (const auto& result : results) EXPECT_EQ(result, HTMLRenderPolicy::prepare(page, noteA));
    EXPECT_EQ(cache.count(), 1);
    EXPECT_EQ(&HTMLRenderCache::shared(), &HTMLRenderCache::shared());
}

}  // namespace
}  // namespace mossly
