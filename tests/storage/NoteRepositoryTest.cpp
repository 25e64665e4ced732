#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "AtomicFile.h"
#include "NoteFileLock.h"
#include "NoteRepository.h"
#include "SketchDocumentCodec.h"
#include "TestSupport.h"

namespace mossly {
namespace {

class NoteRepositoryTest : public ::testing::Test {
protected:
    test::TemporaryNotesFolder folder;
    NoteRepository repository{folder.path()};

    QString createdName(const QString& title) {
        auto note = repository.create(title, QStringLiteral("body"), NoteEditor::human());
        EXPECT_TRUE(note) << (note ? "" : note.error().description().toStdString());
        return note ? note->identifier : QString();
    }
    // Entries other than the lock file: what a user would see in the folder.
    QStringList visibleEntries() const {
        QStringList entries = folder.allEntries();
        entries.removeAll(QStringLiteral(".notes-agent.lock"));
        return entries;
    }
};

TEST_F(NoteRepositoryTest, FileNamesFromTitles) {
    EXPECT_EQ(createdName(QStringLiteral("# Plan: Q3/Q4")), QStringLiteral("Plan- Q3-Q4.md"));
    EXPECT_EQ(createdName(QStringLiteral("...")), QStringLiteral("Untitled.md"));
    EXPECT_EQ(createdName(QStringLiteral("   ")), QStringLiteral("Untitled 2.md"));
    EXPECT_EQ(createdName(QStringLiteral("Two\nlines")), QStringLiteral("Two-lines.md"));
    EXPECT_EQ(createdName(QStringLiteral("..hidden..")), QStringLiteral("hidden.md"));
    EXPECT_EQ(createdName(QStringLiteral("a\\b\tc")), QStringLiteral("a-b-c.md"));
    EXPECT_EQ(NoteRepository::safeBaseName(QString(500, u'x')).size(), 160);
    // Format characters (Cf) are control characters too: like a line break, they become "-".
    EXPECT_EQ(createdName(QString::fromUtf8("zero\u200Bwidth")), QStringLiteral("zero-width.md"));
    const QString emoji = QString::fromUtf8("\U0001F469\u200D\U0001F4BB Work");
    EXPECT_EQ(createdName(emoji), QString::fromUtf8("\U0001F469-\U0001F4BB Work.md"));
    // 160 CJK characters are 480 bytes: the name is shortened to fit the file system.
    const QString longCjk = createdName(QString(200, QChar(0x8A18)));
    EXPECT_LE(longCjk.toUtf8().size(), 255);
    EXPECT_TRUE(folder.exists(longCjk));
}

TEST_F(NoteRepositoryTest, CreateWritesTheDocumentAndReadsItBack) {
    auto created = repository.create(QStringLiteral("Standup"), QStringLiteral("Hello"),
                                     NoteEditor::agent(QStringLiteral("codex")), NoteContentType::markdown,
                                     {{"meeting-count", qint64{3}}, {"status", QStringLiteral("draft")}});
    ASSERT_TRUE(created);
    EXPECT_EQ(created->identifier, QStringLiteral("Standup.md"));
    const QByteArray onDisk = folder.read(QStringLiteral("Standup.md"));
    EXPECT_EQ(onDisk, "---\nnotes-created-by: agent:codex\nmeeting-count: 3\nstatus: \"draft\"\n---\nHello");
    EXPECT_EQ(created->document.revision(), NoteDocument::revision(onDisk));

    auto read = repository.read(QStringLiteral("Standup.md"));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->document, created->document);
    EXPECT_EQ(read->modifiedAt, created->modifiedAt);
    EXPECT_EQ(read->url, folder.filePath("Standup.md"));
    // A caller's non-meeting field is written, then kept as an unrelated line.
    EXPECT_EQ(read->document.frontMatterFields.count("status"), 0u);
}

// A blank new sketch is an empty drawing on disk, for a person's and an agent's alike.
TEST_F(NoteRepositoryTest, ABlankNewSketchIsAnEmptyDrawing) {
    for (const NoteEditor& editor : {NoteEditor::human(), NoteEditor::agent(QStringLiteral("codex"))}) {
        auto created = repository.create(QStringLiteral("Untitled"), QString(), editor, NoteContentType::sketch, {});
        ASSERT_TRUE(created);
        const QJsonDocument onDisk = QJsonDocument::fromJson(folder.read(created->identifier));
        ASSERT_TRUE(onDisk.isObject()) << folder.read(created->identifier).toStdString();
        EXPECT_EQ(onDisk[QStringLiteral("tldrawFileFormatVersion")].toInt(), 1);
        EXPECT_EQ(QJsonDocument::fromJson(created->document.body.toUtf8()),
                  QJsonDocument::fromJson(SketchDocumentCodec::emptyDocument().toUtf8()));
    }
}

TEST_F(NoteRepositoryTest, CreateRejectsReservedAndMalformedKeysWritingNothing) {
    for (const char* key : {"notes-created-by", "notes-last-edited-by", "-x", "a b", "", "ok\n", "é"}) {
        auto result = repository.create(QStringLiteral("T"), QString(), NoteEditor::human(),
                                         NoteContentType::markdown, {{QString::fromUtf8(key), true}});
        ASSERT_FALSE(result) << key;
        EXPECT_EQ(result.error().description(),
                  QStringLiteral("The front-matter key is invalid or reserved: ") + QString::fromUtf8(key));
    }
    EXPECT_TRUE(visibleEntries().isEmpty());
}

// A name with a line break could forge "notes-created-by: human" or end the block early.
TEST_F(NoteRepositoryTest, AgentNamesThatCouldForgeAuthorshipAreRefused) {
    const NoteEditor forger = NoteEditor::agent(QStringLiteral("x\nnotes-created-by: human"));
    auto created = repository.create(QStringLiteral("T"), QStringLiteral("hi"), forger);
    ASSERT_FALSE(created);
    EXPECT_EQ(created.error().code(), Error::Code::invalidEditorName);
    EXPECT_TRUE(visibleEntries().isEmpty());

    auto mine = repository.create(QStringLiteral("Mine"), QStringLiteral("my words"), NoteEditor::human());
    ASSERT_TRUE(mine);
    const QByteArray before = folder.read(mine->identifier);
    auto updated = repository.update(mine->identifier, mine->document.revision(), QStringLiteral("x"),
                                     NoteEditor::agent(QStringLiteral("y\n---\n")));
    ASSERT_FALSE(updated);
    EXPECT_EQ(updated.error().code(), Error::Code::invalidEditorName);
    EXPECT_EQ(folder.read(mine->identifier), before);
}

TEST_F(NoteRepositoryTest, UpperCaseExtensionsAreNotesWithTheirOwnCase) {
    folder.write(QStringLiteral("Plan.MD"), "# Plan");
    folder.write(QStringLiteral("Page.HTML"), "<p>page</p>");
    auto listing = repository.enumerateMetadata();
    ASSERT_TRUE(listing);
    QStringList identifiers;
    for (const auto& entry : *listing) identifiers.append(entry.identifier);
    EXPECT_EQ(identifiers, (QStringList{"Page.HTML", "Plan.MD"}));
    auto plan = repository.read(QStringLiteral("Plan.MD"));
    ASSERT_TRUE(plan);
    EXPECT_EQ(plan->contentType, NoteContentType::markdown);
}

// Once the name is published the note exists: a failed folder sync must not
// read as "not created", or a caller's retry makes "T 2.md".
TEST_F(NoteRepositoryTest, AFolderSyncFailureAfterPublishingStillCreatesOneNote) {
    AtomicFile::overrideFolderSyncForTesting([](const QString& folder) -> Result<void> {
        return fail(Error::system(EIO, folder));
    });
    auto created = repository.create(QStringLiteral("T"), QStringLiteral("body"), NoteEditor::human());
    AtomicFile::overrideFolderSyncForTesting({});
    ASSERT_TRUE(created) << created.error().description().toStdString();
    EXPECT_EQ(created->identifier, QStringLiteral("T.md"));
    EXPECT_EQ(visibleEntries(), QStringList{QStringLiteral("T.md")});
}

TEST_F(NoteRepositoryTest, CreateGivesUpAfterTenThousandNames) {
    folder.write(QStringLiteral("Busy.md"), "x");
    for (int n = 2; n <= NoteRepository::maximumNameAttempts; ++n) {
        QFile file(folder.filePath(QStringLiteral("Busy %1.md").arg(n)));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    }
    auto result = repository.create(QStringLiteral("Busy"), QStringLiteral("new"), NoteEditor::human());
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().description(), QStringLiteral("A note already exists at Busy.md"));
    EXPECT_EQ(folder.read(QStringLiteral("Busy.md")), "x");
    EXPECT_EQ(visibleEntries().size(), NoteRepository::maximumNameAttempts);  // no temporary file left
}

TEST_F(NoteRepositoryTest, RevisionCheckedUpdate) {
    auto created = repository.create(QStringLiteral("Plan"), QStringLiteral("v1"), NoteEditor::human());
    ASSERT_TRUE(created);
    ::chmod(QFile::encodeName(folder.filePath("Plan.md")).constData(), 0640);

    auto updated = repository.update(QStringLiteral("Plan.md"), created->document.revision(), QStringLiteral("v2"),
                                     NoteEditor::agent(QStringLiteral("claude")));
    ASSERT_TRUE(updated);
    const QByteArray onDisk = folder.read(QStringLiteral("Plan.md"));
    EXPECT_EQ(onDisk, "---\nnotes-created-by: human\nnotes-last-edited-by: agent:claude\n---\nv2");
    EXPECT_EQ(updated->document.revision(), NoteDocument::revision(onDisk));
    struct stat info {};
    ::stat(QFile::encodeName(folder.filePath("Plan.md")).constData(), &info);
    EXPECT_EQ(info.st_mode & 0777, 0640u);

    // A writer holding the old revision loses, and the other writer's text stays.
    auto stale = repository.update(QStringLiteral("Plan.md"), created->document.revision(), QStringLiteral("v3"),
                                   NoteEditor::human());
    ASSERT_FALSE(stale);
    EXPECT_EQ(stale.error().description(),
              QStringLiteral("The note changed after it was read. Fetch it again before editing."));
    EXPECT_EQ(stale.error().actualRevision(), updated->document.revision());
    EXPECT_EQ(folder.read(QStringLiteral("Plan.md")), onDisk);

    auto mismatch = repository.update(QStringLiteral("Plan.md"), updated->document.revision(), QStringLiteral("x"),
                                      NoteEditor::human(), NoteContentType::html);
    ASSERT_FALSE(mismatch);
    EXPECT_EQ(mismatch.error().code(), Error::Code::contentTypeMismatch);

    // Fields only: the body is kept.
    auto fields = repository.update(QStringLiteral("Plan.md"), updated->document.revision(), std::nullopt,
                                    NoteEditor::human(), NoteContentType::markdown, {{"meeting-state", "done"}});
    ASSERT_TRUE(fields);
    EXPECT_EQ(fields->document.body, QStringLiteral("v2"));
    EXPECT_EQ(visibleEntries(), QStringList{"Plan.md"});
}

TEST_F(NoteRepositoryTest, ReadFailures) {
    QDir(folder.path()).mkpath(QStringLiteral("Folder.md"));
    folder.write(QStringLiteral("real.md"), "text");
    ASSERT_EQ(::symlink("real.md", QFile::encodeName(folder.filePath("link.md")).constData()), 0);
    folder.write(QStringLiteral("latin1.md"), "caf\xe9");

    const auto description = [&](const QString& id) { return repository.read(id).error().description(); };
    EXPECT_EQ(description("Folder.md"), QStringLiteral("The note path is not a regular file: Folder.md"));
    EXPECT_EQ(description("link.md"), QStringLiteral("The note path is not a regular file: link.md"));
    EXPECT_EQ(description("missing.md"), QStringLiteral("No note exists at missing.md"));
    EXPECT_EQ(description("../escape.md"), QStringLiteral("Invalid note identifier: ../escape.md"));
    EXPECT_EQ(repository.read("latin1.md").error().code(), Error::Code::invalidEncoding);

    // A file that is not UTF-8 is never rewritten.
    auto update = repository.update(QStringLiteral("latin1.md"), NoteDocument::revision(QByteArray("caf\xe9")),
                                    QStringLiteral("replaced"), NoteEditor::human());
    EXPECT_FALSE(update);
    EXPECT_EQ(folder.read(QStringLiteral("latin1.md")), "caf\xe9");
}

TEST_F(NoteRepositoryTest, ByteOrderMarkSurvivesAnEdit) {
    folder.write(QStringLiteral("bom.md"), "\xEF\xBB\xBFHello");
    auto note = repository.read(QStringLiteral("bom.md"));
    ASSERT_TRUE(note);
    EXPECT_EQ(note->document.revision(), NoteDocument::revision(QByteArray("\xEF\xBB\xBFHello")));
    auto edited = repository.update(QStringLiteral("bom.md"), note->document.revision(), QStringLiteral("Hello again"),
                                    NoteEditor::human());
    ASSERT_TRUE(edited) << edited.error().description().toStdString();
    const QByteArray written = folder.read(QStringLiteral("bom.md"));
    EXPECT_TRUE(written.startsWith("\xEF\xBB\xBF")) << written.toStdString();
    EXPECT_TRUE(written.endsWith("Hello again"));
    EXPECT_EQ(edited->document.revision(), NoteDocument::revision(written));
}

TEST_F(NoteRepositoryTest, ListingFindsOnlyNoteFiles) {
    for (const char* path : {"b.md", "a/z.html", "a/b/c.tldr", "x.txt", ".hidden.md", ".git/x.md", "Upper.MD",
                             "a/.trash/y.md", "readme.markdown", "page.htm"}) {
        folder.write(QString::fromUtf8(path), "x");
    }
    ::symlink("b.md", QFile::encodeName(folder.filePath("link.md")).constData());
    ::symlink(QFile::encodeName(folder.filePath("a")).constData(),
              QFile::encodeName(folder.filePath("linkdir")).constData());
    QDir(folder.path()).mkpath(QStringLiteral("empty.md"));
    ASSERT_TRUE(NoteFileLock::withExclusiveLock(folder.path(), []() -> Result<void> { return {}; }));

    auto listing = repository.enumerateMetadata();
    ASSERT_TRUE(listing);
    QStringList identifiers;
    for (const auto& entry : *listing) identifiers.append(entry.identifier);
    // Sorted by code point: upper case first.
    EXPECT_EQ(identifiers, (QStringList{"Upper.MD", "a/b/c.tldr", "a/z.html", "b.md", "page.htm", "readme.markdown"}));
    EXPECT_EQ(listing->at(1).contentType, NoteContentType::sketch);
    EXPECT_EQ(listing->at(1).fileSize, 1);

    EXPECT_TRUE(NoteRepository(folder.filePath("not-yet")).enumerateMetadata()->empty());
}

TEST_F(NoteRepositoryTest, RawTermFallbackSearchIgnoresCase) {
    folder.write(QStringLiteral("one.md"), "Budget for Q3");
    folder.write(QStringLiteral("two.md"), "nothing here");
    folder.write(QStringLiteral("three.html"), "<p>BUDGET</p>");
    folder.write(QStringLiteral("bad.md"), "budget \xff");
    auto matches = repository.enumerate({QStringLiteral("budget"), QString()});
    ASSERT_TRUE(matches);
    ASSERT_EQ(matches->size(), 2u);
    EXPECT_EQ((*matches)[0].identifier, QStringLiteral("one.md"));
    EXPECT_EQ((*matches)[1].identifier, QStringLiteral("three.html"));
    EXPECT_TRUE(repository.enumerate({})->empty());
}

TEST_F(NoteRepositoryTest, MoveToTrashUsesTheFreedesktopTrash) {
    ASSERT_TRUE(repository.create(QStringLiteral("Old"), QStringLiteral("keep me"), NoteEditor::human()));
    ASSERT_TRUE(repository.moveToTrash(QStringLiteral("Old.md")));
    EXPECT_FALSE(folder.exists(QStringLiteral("Old.md")));
    const QString trashed = qEnvironmentVariable("XDG_DATA_HOME") + QStringLiteral("/Trash/files/Old.md");
    QFile file(trashed);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly)) << trashed.toStdString();
    EXPECT_EQ(file.readAll(), "keep me");
    EXPECT_EQ(repository.moveToTrash(QStringLiteral("Old.md")).error().code(), Error::Code::notFound);
    EXPECT_EQ(repository.moveToTrash(QStringLiteral("a/../../x.md")).error().code(), Error::Code::invalidIdentifier);
}

TEST_F(NoteRepositoryTest, CrashBeforeTheRenameLeavesTheOldText) {
    auto created = repository.create(QStringLiteral("Safe"), QStringLiteral("original"), NoteEditor::human());
    ASSERT_TRUE(created);
    {
        auto staged = AtomicFile::stage(created->url, "half-written replacement");
        ASSERT_TRUE(staged);
        staged->abandon();  // the process dies here: no rename, no clean-up
    }
    EXPECT_EQ(folder.read(QStringLiteral("Safe.md")), "original");
    auto listing = repository.enumerateMetadata();
    ASSERT_EQ(listing->size(), 1u);  // the leftover temporary file is hidden, never a note
    EXPECT_TRUE(repository.update(QStringLiteral("Safe.md"), created->document.revision(), QStringLiteral("next"),
                                  NoteEditor::human()));
}

TEST_F(NoteRepositoryTest, DiskFullDuringUpdateLeavesTheFolderAsItWas) {
    auto created = repository.create(QStringLiteral("Big"), QStringLiteral("small"), NoteEditor::human());
    ASSERT_TRUE(created);
    const QStringList before = visibleEntries();
    // In a child process, cap file size so the write of the new version fails part-way.
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{4096, 4096};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        auto result = repository.update(QStringLiteral("Big.md"), created->document.revision(),
                                        QString(100000, u'x'), NoteEditor::human());
        ::_exit(!result && result.error().code() == Error::Code::system ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(folder.read(QStringLiteral("Big.md")), "small");
    EXPECT_EQ(visibleEntries(), before);
}

TEST_F(NoteRepositoryTest, ConcurrentWritersInSeveralProcessesLoseNothing) {
    auto created = repository.create(QStringLiteral("Shared"), QString(), NoteEditor::human());
    ASSERT_TRUE(created);
    constexpr int writers = 4;
    constexpr int appendsEach = 15;
    std::vector<pid_t> children;
    for (int w = 0; w < writers; ++w) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            for (int i = 0; i < appendsEach; ++i) {
                for (;;) {  // read, edit, write; start over on busy or stale
                    auto note = repository.read(QStringLiteral("Shared.md"));
                    if (!note) ::_exit(2);
                    const QString line = QStringLiteral("w%1-%2\n").arg(w).arg(i);
                    auto written = repository.update(QStringLiteral("Shared.md"), note->document.revision(),
                                                     note->document.body + line,
                                                     NoteEditor::agent(QString::number(w)));
                    if (written) break;
                    const auto code = written.error().code();
                    if (code != Error::Code::busy && code != Error::Code::stale) ::_exit(3);
                }
            }
            ::_exit(0);
        }
        children.push_back(child);
    }
    for (pid_t child : children) {
        int status = -1;
        ::waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    auto final = repository.read(QStringLiteral("Shared.md"));
    ASSERT_TRUE(final);
    EXPECT_EQ(final->document.body.count(u'\n'), writers * appendsEach);
    for (int w = 0; w < writers; ++w) {
        for (int i = 0; i < appendsEach; ++i) {
            EXPECT_TRUE(final->document.body.contains(QStringLiteral("w%1-%2\n").arg(w).arg(i)));
        }
    }
}

}  // namespace
}  // namespace mossly
