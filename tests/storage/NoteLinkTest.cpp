#include <gtest/gtest.h>

#include "NoteLink.h"
#include "NoteSearch.h"

namespace mossly {
namespace {

TEST(NoteLink, ReadsBackEveryIdentifierASearchResultLinks) {
    for (const char* id : {"Plan.md", "Projects/Q3 budget.md", "a/b/c.html", "x.tldr", "Über 100%.md",
                           "hash#and?query&.md", "plus+semi;colon.md", "emoji \xF0\x9F\x8C\xBF.htm"}) {
        const QString identifier = QString::fromUtf8(id);
        const QString link = NoteSearch::openURL(identifier);
        EXPECT_TRUE(NoteLink::isNoteLink(link));
        const auto read = NoteLink::identifier(link);
        ASSERT_TRUE(read) << link.toStdString() << ": " << read.error().description().toStdString();
        EXPECT_EQ(*read, identifier);
    }
    EXPECT_EQ(NoteLink::identifier(QStringLiteral("MOSSLY://NOTE/Plan.md")).value_or(QString()), u"Plan.md");
}

TEST(NoteLink, IdentifiersOutsideTheFolderOrHiddenAreRefusedByThePathPolicy) {
    for (const char* link :
         {"mossly://note/../secret.md", "mossly://note/a/%2E%2E/%2E%2E/x.md", "mossly://note/%2E%2E%2Fx.md",
          "mossly://note//etc/passwd.md", "mossly://note/.git/x.md", "mossly://note/a%5Cb.md",
          "mossly://note/x%00.md", "mossly://note/notes.txt", "mossly://note/", "mossly://note/dir/"}) {
        const auto read = NoteLink::identifier(QString::fromUtf8(link));
        ASSERT_FALSE(read) << link;
        EXPECT_EQ(read.error().code(), Error::Code::invalidIdentifier) << link;
        EXPECT_TRUE(read.error().description().startsWith(u"Invalid note identifier: ")) << link;
    }
}

TEST(NoteLink, AnythingButANoteLinkIsRefusedWithTheLinkInTheMessage) {
    for (const char* link :
         {"mossly://folder/Plan.md", "mossly:Plan.md", "mossly://note", "mossly://user@note/a.md",
          "mossly://note:80/a.md", "mossly://note/a.md?x=1", "mossly://note/a.md#top", "https://note/a.md",
          "file:///etc/passwd", "mossly://note/a%zz.md"}) {
        const auto read = NoteLink::identifier(QString::fromUtf8(link));
        ASSERT_FALSE(read) << link;
        EXPECT_EQ(read.error().code(), Error::Code::invalidArgument) << link;
        EXPECT_EQ(read.error().description(),
                  QStringLiteral("\u201C%1\u201D is not a link to a note.").arg(QString::fromUtf8(link)));
    }
    EXPECT_FALSE(NoteLink::isNoteLink(QStringLiteral("/home/me/mossly:notes.md")));
    EXPECT_FALSE(NoteLink::isNoteLink(QStringLiteral("file:///x.md")));
}

}  // namespace
}  // namespace mossly
