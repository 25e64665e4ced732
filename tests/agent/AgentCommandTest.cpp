#include <gtest/gtest.h>

#include <QBuffer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "AgentCommand.h"
#include "AgentRun.h"
#include "TestSupport.h"

namespace mossly::agent {
namespace {

using Outcome = test::AgentOutcome;

class AgentCommandTest : public ::testing::Test {
protected:
    test::TemporaryNotesFolder folder;
    test::TemporaryNotesFolder caches;

    Outcome run(QStringList arguments, const QByteArray& stdinBytes = {}) {
        arguments << QStringLiteral("--notes-dir") << folder.path() << QStringLiteral("--catalog")
                  << caches.filePath("catalog.sqlite");
        return test::runAgentCommand(arguments, stdinBytes);
    }
};

TEST_F(AgentCommandTest, CreateReadUpdateRoundTrip) {
    const Outcome created = run({"create", "--title", "# Plan: Q3", "--body", "# Plan\nDetails", "--agent", "codex",
                             "--field", "meeting-count=3", "--field", "meeting-ok=true", "--field", "status=draft"});
    ASSERT_EQ(created.exitCode, success) << created.err.toStdString();
    EXPECT_TRUE(created.err.isEmpty());
    const QJsonObject note = created.json();
    EXPECT_EQ(note.keys().size(), 9);
    EXPECT_EQ(note["identifier"].toString(), QStringLiteral("Plan- Q3.md"));
    EXPECT_EQ(note["title"].toString(), QStringLiteral("Plan"));
    EXPECT_EQ(note["contentType"].toString(), QStringLiteral("markdown"));
    EXPECT_EQ(note["createdBy"].toString(), QStringLiteral("agent:codex"));
    EXPECT_TRUE(note["lastEditedBy"].isNull());
    EXPECT_EQ(note["body"].toString(), QStringLiteral("# Plan\nDetails"));
    EXPECT_EQ(note["frontMatter"].toObject()["meeting-count"].toVariant().toLongLong(), 3);
    EXPECT_TRUE(note["frontMatter"].toObject()["meeting-ok"].toBool());
    EXPECT_TRUE(created.out.startsWith(QStringLiteral("{\"identifier\":")));  // documented key order

    const Outcome read = run({"read", "Plan- Q3.md"});
    EXPECT_EQ(read.out, created.out);

    const QString revision = note["revision"].toString();
    const Outcome updated = run({"update", "Plan- Q3.md", "--expected-revision", revision, "--body-file", "-",
                             "--agent", "claude"},
                            "New body from stdin\n");
    ASSERT_EQ(updated.exitCode, success) << updated.err.toStdString();
    EXPECT_EQ(updated.json()["lastEditedBy"].toString(), QStringLiteral("agent:claude"));
    EXPECT_EQ(updated.json()["body"].toString(), QStringLiteral("New body from stdin\n"));

    const Outcome stale = run({"update", "Plan- Q3.md", "--expected-revision", revision, "--body", "lost?", "--agent",
                           "codex"});
    EXPECT_EQ(stale.exitCode, failure);
    EXPECT_TRUE(stale.out.isEmpty());
    EXPECT_EQ(stale.err, QStringLiteral("The note changed after it was read. Fetch it again before editing.\n"));
    EXPECT_EQ(run({"read", "Plan- Q3.md"}).json()["body"].toString(), QStringLiteral("New body from stdin\n"));
}

TEST_F(AgentCommandTest, FailuresPrintTheExactDescription) {
    const Outcome missing = run({"read", "nope.md"});
    EXPECT_EQ(missing.exitCode, failure);
    EXPECT_EQ(missing.err, QStringLiteral("No note exists at nope.md\n"));
    EXPECT_EQ(run({"read", "../x.md"}).err, QStringLiteral("Invalid note identifier: ../x.md\n"));
    EXPECT_EQ(run({"create", "--title", "x", "--agent", "a", "--field", "notes-created-by=x"}).err,
              QStringLiteral("The front-matter key is invalid or reserved: notes-created-by\n"));
    EXPECT_EQ(run({"create", "--title", "x", "--agent", "a", "--type", "pdf"}).err,
              QStringLiteral("The note type is not supported: pdf\n"));
    EXPECT_EQ(run({"trash", "gone.md"}).err, QStringLiteral("No note exists at gone.md\n"));
}

TEST_F(AgentCommandTest, UsageErrorsExitTwo) {
    const QList<QStringList> misuses = {
        {},
        {"frobnicate"},
        {"read"},
        {"read", "a.md", "b.md"},
        {"create", "--body", "x", "--agent", "a"},  // no title
        {"create", "--title", "x"},                  // no agent
        {"create", "--title", "x", "--agent", "a", "--body", "b", "--body-file", "f"},
        {"create", "--title", "x", "--agent", "a", "--field", "novalue"},
        {"update", "a.md", "--agent", "a"},  // no revision
        {"search", "q", "--limit", "many"},
        {"list", "--bogus"},
        {"list", "--limit"},
    };
    for (const QStringList& arguments : misuses) {
        const Outcome result = run(arguments);
        EXPECT_EQ(result.exitCode, usageError) << arguments.join(' ').toStdString();
        EXPECT_TRUE(result.out.isEmpty());
        EXPECT_FALSE(result.err.isEmpty());
    }
    const Outcome help = run({"help"});
    EXPECT_EQ(help.exitCode, success);
    EXPECT_TRUE(help.out.contains(QStringLiteral("--expected-revision")));
}

TEST_F(AgentCommandTest, ListSearchSyncAndTrash) {
    folder.write(QStringLiteral("b.md"), "# Budget\nnumbers for Q3");
    folder.write(QStringLiteral("sub/a.html"), "<html><body><p>budget review</p></body></html>");
    folder.write(QStringLiteral(".hidden.md"), "budget");

    const Outcome listed = run({"list"});
    ASSERT_EQ(listed.exitCode, success);
    const QJsonArray notes = listed.json()["notes"].toArray();
    ASSERT_EQ(notes.size(), 2);
    EXPECT_EQ(notes[0].toObject()["identifier"].toString(), QStringLiteral("b.md"));
    EXPECT_EQ(notes[1].toObject()["contentType"].toString(), QStringLiteral("html"));
    EXPECT_EQ(notes[0].toObject()["fileSize"].toInt(), 23);
    EXPECT_TRUE(notes[0].toObject()["modifiedAt"].toString().endsWith(u'Z'));

    const Outcome searched = run({"search", "budget", "--limit", "1"});
    ASSERT_EQ(searched.exitCode, success) << searched.err.toStdString();
    const QJsonArray results = searched.json()["results"].toArray();
    ASSERT_EQ(results.size(), 1);
    EXPECT_EQ(results[0].toObject()["identifier"].toString(), QStringLiteral("b.md"));
    EXPECT_EQ(results[0].toObject()["openURL"].toString(), QStringLiteral("mossly://note/b.md"));
    EXPECT_TRUE(searched.json()["semanticAvailable"].toBool()) << "hybrid by default";
    EXPECT_FALSE(run({"search", "budget", "--mode", "keyword"}).json()["semanticAvailable"].toBool());
    // "budget" and "spending" mean much the same; the note never says "spending".
    const Outcome meaning = run({"search", "spending", "--mode", "meaning", "--limit", "1"});
    ASSERT_EQ(meaning.exitCode, success) << meaning.err.toStdString();
    EXPECT_EQ(meaning.json()["results"].toArray()[0].toObject()["meaningScore"].toDouble() > 0, true);
    EXPECT_EQ(run({"search", "budget", "--mode", "fuzzy"}).exitCode, 2);

    EXPECT_EQ(run({"sync"}).out, QStringLiteral("{\"indexed\":0,\"count\":2}\n"));
    const Outcome trashed = run({"trash", "b.md"});
    EXPECT_EQ(trashed.out, QStringLiteral("{\"identifier\":\"b.md\",\"trashed\":true}\n"));
    EXPECT_FALSE(folder.exists(QStringLiteral("b.md")));
    EXPECT_EQ(run({"sync"}).out, QStringLiteral("{\"indexed\":0,\"count\":1}\n"));
}

TEST_F(AgentCommandTest, CreatesHtmlAndSketchNotes) {
    const Outcome html = run({"create", "--title", "Page", "--type", "html", "--agent", "a", "--body",
                          "<html><head><title>P</title></head><body><p>Hello</p></body></html>"});
    ASSERT_EQ(html.exitCode, success) << html.err.toStdString();
    EXPECT_EQ(html.json()["identifier"].toString(), QStringLiteral("Page.html"));
    EXPECT_EQ(html.json()["createdBy"].toString(), QStringLiteral("agent:a"));
    EXPECT_TRUE(folder.read(QStringLiteral("Page.html")).contains("notes-created-by"));

    const Outcome sketch = run({"create", "--title", "Drawing", "--type", "sketch", "--agent", "a"});
    ASSERT_EQ(sketch.exitCode, success) << sketch.err.toStdString();
    EXPECT_EQ(sketch.json()["identifier"].toString(), QStringLiteral("Drawing.tldr"));
    EXPECT_TRUE(QJsonDocument::fromJson(folder.read(QStringLiteral("Drawing.tldr"))).isObject());
}

}  // namespace
}  // namespace mossly::agent
