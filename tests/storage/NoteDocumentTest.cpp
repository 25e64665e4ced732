#include <gtest/gtest.h>

#include "NoteDocument.h"

namespace mossly {
namespace {

TEST(NoteDocument, RevisionIsSha256OfExactBytes) {
    EXPECT_EQ(NoteDocument::revision(QByteArray()),
              QStringLiteral("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"));
    const NoteDocument lf(QStringLiteral("a\n"), NoteContentType::markdown);
    const NoteDocument crlf(QStringLiteral("a\r\n"), NoteContentType::markdown);
    EXPECT_NE(lf.revision(), crlf.revision());
    EXPECT_EQ(lf.revision(), NoteDocument(QStringLiteral("a\n"), NoteContentType::markdown).revision());
    EXPECT_EQ(lf.revision().size(), 64);
}

TEST(NoteDocument, EditorStoredValues) {
    EXPECT_EQ(NoteEditor::fromStoredValue(QStringLiteral("agent:")), NoteEditor::agent(QString()));
    EXPECT_EQ(NoteEditor::fromStoredValue(QStringLiteral("Agent:x")), NoteEditor::human());
    EXPECT_EQ(NoteEditor::fromStoredValue(QStringLiteral("agent:a:b")).agentName(), QStringLiteral("a:b"));
    EXPECT_EQ(NoteEditor::agent(QStringLiteral("codex")).storedValue(), QStringLiteral("agent:codex"));
    EXPECT_NE(NoteEditor::agent(QStringLiteral("a")), NoteEditor::agent(QStringLiteral("b")));
}

TEST(NoteDocument, ContentTypeFromExtension) {
    EXPECT_EQ(noteContentTypeForFileName(QStringLiteral("Plan.htm")), NoteContentType::html);
    EXPECT_EQ(noteContentTypeForFileName(QStringLiteral("a.b/Plan.markdown")), NoteContentType::markdown);
    EXPECT_EQ(noteContentTypeForFileName(QStringLiteral("x.tldr")), NoteContentType::sketch);
    EXPECT_FALSE(noteContentTypeForFileName(QStringLiteral("Plan.txt")));
    EXPECT_EQ(noteContentTypeForFileName(QStringLiteral("Plan.MD")), NoteContentType::markdown);  // case-insensitive
    EXPECT_EQ(noteContentTypeForFileName(QStringLiteral("Page.Html")), NoteContentType::html);
    EXPECT_FALSE(noteContentTypeForFileName(QStringLiteral("notes.md/Plan")));
}

TEST(NoteDocument, NewDocumentRevisionMatchesItsFile) {
    const NoteDocument created(QStringLiteral("Hello"), NoteEditor::agent(QStringLiteral("codex")),
                               NoteContentType::markdown, {{"meeting-count", qint64{3}}});
    const QString text = created.serialized();
    EXPECT_EQ(created.revision(), NoteDocument::revision(text));
    EXPECT_EQ(text, QStringLiteral("---\nnotes-created-by: agent:codex\nmeeting-count: 3\n---\nHello"));
    // A human note without fields is plain Markdown.
    EXPECT_EQ(NoteDocument(QStringLiteral("Hi"), NoteEditor::human(), NoteContentType::markdown).serialized(),
              QStringLiteral("Hi"));
}

TEST(NoteDocument, SerializedMergesUpdatesWithoutChangingTheDocument) {
    const QString text = QStringLiteral("---\nnotes-created-by: agent:a\nmeeting-x: 1\nkeep: me\n---\nOld");
    const NoteDocument document(text, NoteContentType::markdown);
    const QString next = document.serialized(QStringLiteral("New"), NoteEditor::agent(QStringLiteral("b")),
                                             {{"meeting-x", qint64{2}}, {"meeting-y", true}});
    EXPECT_EQ(next, QStringLiteral("---\nnotes-created-by: agent:a\nnotes-last-edited-by: agent:b\n"
                                   "meeting-x: 2\nmeeting-y: true\nkeep: me\n---\nNew"));
    EXPECT_EQ(document.body, QStringLiteral("Old"));
    EXPECT_EQ(document.revision(), NoteDocument::revision(text));
    // Without arguments the body and editors are kept.
    EXPECT_EQ(NoteDocument(next, NoteContentType::markdown).serialized(), next);
}

TEST(NoteDocument, VisibleTextOfMarkdownIsTheBody) {
    const NoteDocument document(QStringLiteral("---\nnotes-created-by: human\n---\n# Hi"), NoteContentType::markdown);
    EXPECT_EQ(document.visibleText(), QStringLiteral("# Hi"));
}

}  // namespace
}  // namespace mossly
