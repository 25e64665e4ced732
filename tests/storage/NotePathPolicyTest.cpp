#include <gtest/gtest.h>

#include "NotePathPolicy.h"

namespace mossly {
namespace {

TEST(NotePathPolicy, AcceptsNoteIdentifiers) {
    const NotePathPolicy policy;
    for (const char* id : {"Plan.md", "a/b/c.html", "x.tldr", "Über Plan.markdown", "a b/c d.htm", "x..md"}) {
        EXPECT_TRUE(policy.validated(QString::fromUtf8(id))) << id;
    }
}

TEST(NotePathPolicy, RejectsEverythingElseWithTheIdentifierInTheMessage) {
    const NotePathPolicy policy;
    const QString rejected[] = {
        "", "Plan", "Plan.txt", ".hidden.md", "a/.git/x.md", "a//b.md", "a/../b.md", "./a.md", "a\\b.md",
        "/abs.md", "a/", "tab\there.md", "new\nline.md", QString::fromUtf8("zero\u200bwidth.md"),
        QString::fromUtf8("bidi\u202e.md"), "dir.md/"};
    for (const QString& id : rejected) {
        const auto result = policy.validated(id);
        ASSERT_FALSE(result) << id.toStdString();
        EXPECT_EQ(result.error().code(), Error::Code::invalidIdentifier);
        EXPECT_EQ(result.error().description(), QStringLiteral("Invalid note identifier: ") + id);
    }
}

TEST(NotePathPolicy, UrlStaysInsideTheFolder) {
    const NotePathPolicy policy;
    EXPECT_EQ(policy.url(QStringLiteral("a/b.md"), QStringLiteral("/notes/")), QStringLiteral("/notes/a/b.md"));
    EXPECT_EQ(policy.url(QStringLiteral("b.md"), QStringLiteral("/x/../notes")), QStringLiteral("/notes/b.md"));
    // A sibling folder sharing the prefix is not inside.
    EXPECT_FALSE(policy.url(QStringLiteral("a/../../notes2/x.md"), QStringLiteral("/notes")));
}

}  // namespace
}  // namespace mossly
