#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include "NoteListCache.h"
#include "TestSupport.h"

namespace mossly {
namespace {

Note listEntry(const QString& directory, const QString& identifier, const QString& title, const QString& excerpt,
               qint64 nanoseconds) {
    Note note{QDir::cleanPath(directory) + u'/' + identifier, identifier, QString(),
              *noteContentTypeForFileName(identifier), FileTime(std::chrono::nanoseconds(nanoseconds)),
              QStringLiteral("c0ffee"), title, excerpt, nullptr};
    note.bodyLoaded = false;
    return note;
}

// The cache is read in place: strings of odd and even lengths, empty ones and
// characters beyond the BMP must come back exactly, and any damage (each
// possible truncation, a changed byte in a length) must mean "no cache", never
// a crash or a wrong list.
TEST(NoteListCacheTest, RoundTripsExactlyAndRejectsEveryDamagedFile) {
    test::TemporaryNotesFolder caches;
    test::TemporaryNotesFolder notes;
    qputenv("XDG_CACHE_HOME", caches.path().toUtf8());
    const QString directory = notes.path();
    const std::vector<Note> written{
        listEntry(directory, QStringLiteral("a.md"), QStringLiteral("A"), QString(), 3),
        listEntry(directory, QStringLiteral("Projects/Plan ✓ 𝄞.md"), QStringLiteral("Plan ✓ 𝄞"),
                  QStringLiteral("first line, odd length"), -7),
        listEntry(directory, QStringLiteral("drawing.tldr"), QString(), QStringLiteral("xy"), 1'700'000'000'000'000'000),
    };
    ASSERT_TRUE(NoteListCache::save(directory, written));
    auto read = NoteListCache::load(directory);
    ASSERT_TRUE(read);
    ASSERT_EQ(read->size(), written.size());
    for (size_t i = 0; i < written.size(); ++i) {
        const Note& a = written[i];
        const Note& b = (*read)[i];
        EXPECT_EQ(std::tie(a.url, a.identifier, a.revision, a.title, a.excerpt),
                  std::tie(b.url, b.identifier, b.revision, b.title, b.excerpt));
        EXPECT_EQ(a.contentType, b.contentType);
        EXPECT_EQ(a.modifiedAt, b.modifiedAt);
        EXPECT_FALSE(b.bodyLoaded);
    }
    // Strings read in place behave like any other: changing one leaves the cache's bytes alone.
    QString title = (*read)[1].title;
    title[0] = u'p';
    EXPECT_EQ((*read)[1].title, QStringLiteral("Plan ✓ 𝄞"));

    const QString path = NoteListCache::pathFor(directory);
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray whole = file.readAll();
    file.close();
    const auto rewrite = [&](const QByteArray& bytes) {
        QFile out(path);
        ASSERT_TRUE(out.open(QIODevice::WriteOnly | QIODevice::Truncate));
        out.write(bytes);
    };
    for (qsizetype length = 0; length < whole.size(); ++length) {
        rewrite(whole.left(length));
        EXPECT_FALSE(NoteListCache::load(directory)) << "truncated to " << length;
    }
    for (qsizetype at = 0; at < whole.size(); at += 2) {
        QByteArray damaged = whole;
        damaged[at] = static_cast<char>(damaged[at] ^ 0x40);
        rewrite(damaged);
        auto loaded = NoteListCache::load(directory);
        // A flipped bit inside a title is a different title, not damage the cache can see.
        if (loaded) {
            EXPECT_EQ(loaded->size(), written.size());
        }
    }
    rewrite(whole + "x");
    EXPECT_FALSE(NoteListCache::load(directory)) << "trailing bytes";
    rewrite(whole);
    EXPECT_FALSE(NoteListCache::load(directory + QStringLiteral("/elsewhere"))) << "another folder's list";
}

}  // namespace
}  // namespace mossly
