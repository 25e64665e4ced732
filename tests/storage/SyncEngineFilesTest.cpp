#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <sys/stat.h>

#include "SyncConflictCopies.h"
#include "SyncEngineIgnores.h"
#include "SyncthingWrites.h"
#include "NoteRepository.h"
#include "TestSupport.h"

namespace mossly {
namespace {

TEST(SyncConflictCopiesTest, EachEngineNamesItsCopiesAfterTheOriginal) {
    struct Case {
        const char* copy;
        const char* original;
        const char* engine;
    };
    const Case cases[] = {
        {"Plan.sync-conflict-20261124-093012-ABCDEFG.md", "Plan.md", "Syncthing"},
        {"Projects/Q3 plan.v2.sync-conflict-20261124-093012-7QX2LMN.md", "Projects/Q3 plan.v2.md", "Syncthing"},
        {".folders.sync-conflict-20261124-093012-ABCDEFG.json", ".folders.json", "Syncthing"},
        {"README.sync-conflict-20261124-093012-ABCDEFG", "README", "Syncthing"},
        {"Plan (conflicted copy 2026-11-24 093012).md", "Plan.md", "Nextcloud"},
        {"Plan (conflicted copy ana 2026-11-24 093012).md", "Plan.md", "Nextcloud"},
        {"Work/Plan (Ana's conflicted copy 2026-11-24).md", "Work/Plan.md", "Dropbox"},
        {"Plan (Ana's conflicted copy 2026-11-24 (1)).md", "Plan.md", "Dropbox"},
        {"Plan (Conflicted copy of Ana's MacBook 2026-11-24).html", "Plan.html", "Dropbox"},
    };
    for (const Case& c : cases) {
        const auto copy = syncConflictCopyOf(QString::fromUtf8(c.copy));
        ASSERT_TRUE(copy) << c.copy;
        EXPECT_EQ(copy->original, QString::fromUtf8(c.original)) << c.copy;
        EXPECT_EQ(copy->engine, QString::fromUtf8(c.engine)) << c.copy;
    }
    const auto syncthing = syncConflictCopyOf(QStringLiteral("Plan.sync-conflict-20261124-093012-ABCDEFG.md"));
    EXPECT_EQ(syncthing->detail, QStringLiteral("2026-11-24 09:30:12, device ABCDEFG"));
    EXPECT_EQ(syncConflictCopyOf(QStringLiteral("Plan (conflicted copy 2026-11-24 093012).md"))->detail,
              QStringLiteral("2026-11-24 09:30:12"));
}

TEST(SyncConflictCopiesTest, OrdinaryNamesAndLookAlikesAreNotCopies) {
    for (const char* name : {"Plan.md", "Plan (Conflict 2026-11-24 09.30.12).md", "sync-conflict.md",
                             "Notes on sync-conflict-20261124 handling.md",
                             ".sync-conflict-20261124-093012-ABCDEFG.md",  // no original name
                             "Plan.sync-conflict-20261124-093012-abcdefg.md",  // device IDs are upper case
                             "Why my conflicted copy vanished.md"}) {
        EXPECT_FALSE(syncConflictCopyOf(QString::fromUtf8(name))) << name;
    }
}

class SyncthingIgnoresTest : public ::testing::Test {
protected:
    test::TemporaryNotesFolder folder;
    QString ignores() const { return QString::fromUtf8(folder.read(QStringLiteral(".stignore"))); }
};

TEST_F(SyncthingIgnoresTest, OnlyASyncthingFolderGetsAnIgnoreFile) {
    auto changed = ensureSyncthingIgnores(folder.path());
    ASSERT_TRUE(changed);
    EXPECT_FALSE(*changed);
    EXPECT_FALSE(folder.exists(QStringLiteral(".stignore")));
}

TEST_F(SyncthingIgnoresTest, MosslysLinesAreAddedOnceAndTheUsersStay) {
    folder.write(QStringLiteral(".stfolder"), "");
    folder.write(QStringLiteral(".stignore"), "// mine\n*.tmp\n(?d)/.notes-agent.lock");  // no final newline
    ::chmod(folder.filePath(QStringLiteral(".stignore")).toLocal8Bit().constData(), 0640);
    auto changed = ensureSyncthingIgnores(folder.path());
    ASSERT_TRUE(changed) << changed.error().description().toStdString();
    EXPECT_TRUE(*changed);
    const QString text = ignores();
    EXPECT_TRUE(text.startsWith(QStringLiteral("// mine\n*.tmp\n(?d)/.notes-agent.lock\n"))) << text.toStdString();
    for (const QString& entry : machineLocalNotesFolderEntries()) {
        EXPECT_EQ(text.count(QStringLiteral("(?d)/") + entry + u'\n'), 1) << entry.toStdString();
    }
    EXPECT_FALSE(text.contains(QStringLiteral(".folders.json"))) << "folders and favourites travel";
    struct stat info {};
    ::stat(folder.filePath(QStringLiteral(".stignore")).toLocal8Bit().constData(), &info);
    EXPECT_EQ(info.st_mode & 0777, 0640u);

    auto again = ensureSyncthingIgnores(folder.path());
    ASSERT_TRUE(again);
    EXPECT_FALSE(*again);
    EXPECT_EQ(ignores(), text);
}

TEST_F(SyncthingIgnoresTest, AnIgnoreFileThatCannotBeWrittenIsAnError) {
    folder.write(QStringLiteral(".stfolder"), "");
    QDir(folder.path()).mkdir(QStringLiteral(".stignore"));  // a folder where the file should be
    auto changed = ensureSyncthingIgnores(folder.path());
    EXPECT_FALSE(changed);
}

class SyncthingWritesTest : public ::testing::Test {
protected:
    test::TemporaryNotesFolder folder;
    NoteRepository repository{folder.path()};

    StoredNote written() {
        folder.write(QStringLiteral("Plan.md"), "first");
        auto note = repository.update(QStringLiteral("Plan.md"), NoteDocument::revision(QByteArray("first")),
                                      QStringLiteral("first\nadded here"), NoteEditor::agent(QStringLiteral("codex")));
        EXPECT_TRUE(note);
        return *note;
    }
    QStringList copies() const {
        return QDir(folder.path()).entryList({QStringLiteral("Plan (Conflict *).md")}, QDir::Files);
    }
};

TEST_F(SyncthingWritesTest, AWriteReplacedByTextWithoutItsWordsIsKeptAsACopy) {
    folder.write(QStringLiteral(".stfolder"), "");
    const StoredNote note = written();
    folder.write(QStringLiteral("Plan.md"), "first\nfrom the other machine");  // the engine's rename
    auto kept = keepWriteReplacedBySyncthing(repository, QStringLiteral("first"), note, std::chrono::milliseconds(0));
    ASSERT_TRUE(kept) << kept.error().description().toStdString();
    ASSERT_TRUE(*kept);
    EXPECT_EQ(QStringList{**kept}, copies());
    EXPECT_TRUE(folder.read(**kept).contains("added here"));
    EXPECT_EQ(folder.read(QStringLiteral("Plan.md")), "first\nfrom the other machine");
}

TEST_F(SyncthingWritesTest, AWriteThatStayedOrWasBuiltOnIsLeftAlone) {
    folder.write(QStringLiteral(".stfolder"), "");
    const StoredNote note = written();
    auto unchanged = keepWriteReplacedBySyncthing(repository, QStringLiteral("first"), note, std::chrono::milliseconds(0));
    ASSERT_TRUE(unchanged);
    EXPECT_FALSE(*unchanged);
    folder.write(QStringLiteral("Plan.md"), "first\nadded here\nand an answer");
    auto builtOn = keepWriteReplacedBySyncthing(repository, QStringLiteral("first"), note, std::chrono::milliseconds(0));
    ASSERT_TRUE(builtOn);
    EXPECT_FALSE(*builtOn);
    EXPECT_TRUE(copies().isEmpty());
}

TEST_F(SyncthingWritesTest, AWriteSyncthingKeptAsItsOwnConflictCopyIsNotKeptTwice) {
    folder.write(QStringLiteral(".stfolder"), "");
    const StoredNote note = written();
    folder.write(QStringLiteral("Plan.sync-conflict-20261124-093012-ABCDEFG.md"), note.persistedContent.toUtf8());
    folder.write(QStringLiteral("Plan.md"), "first\nfrom the other machine");
    auto kept = keepWriteReplacedBySyncthing(repository, QStringLiteral("first"), note, std::chrono::milliseconds(0));
    ASSERT_TRUE(kept);
    EXPECT_FALSE(*kept);
    EXPECT_TRUE(copies().isEmpty());
}

TEST_F(SyncthingWritesTest, OutsideASyncthingFolderNothingIsChecked) {
    const StoredNote note = written();
    folder.write(QStringLiteral("Plan.md"), "rewritten");
    auto kept = keepWriteReplacedBySyncthing(repository, QStringLiteral("first"), note, std::chrono::milliseconds(0));
    ASSERT_TRUE(kept);
    EXPECT_FALSE(*kept);
    EXPECT_TRUE(copies().isEmpty());
}

// Every agent write (update, restore) goes through this: a replaced write is an
// error naming the copy, never a success.
TEST_F(SyncthingWritesTest, AWriteThatSyncthingReplacedFailsAndNamesTheCopy) {
    folder.write(QStringLiteral(".stfolder"), "");
    folder.write(QStringLiteral("Plan.md"), "first");
    const auto update = [&] {
        auto note = repository.update(QStringLiteral("Plan.md"), NoteDocument::revision(QByteArray("first")),
                                      QStringLiteral("first\nadded here"), NoteEditor::agent(QStringLiteral("codex")));
        folder.write(QStringLiteral("Plan.md"), "first\nfrom the other machine");  // the engine's rename
        return note;
    };
    auto written = writeWatchingSyncthing(repository, QStringLiteral("Plan.md"), update, std::chrono::milliseconds(0));
    ASSERT_FALSE(written);
    EXPECT_EQ(written.error().code(), Error::Code::writeReplaced);
    ASSERT_EQ(copies().size(), 1);
    EXPECT_TRUE(written.error().description().contains(copies().front()));
    EXPECT_TRUE(folder.read(copies().front()).contains("added here"));

    QFile::remove(folder.filePath(QStringLiteral(".stfolder")));
    folder.write(QStringLiteral("Other.md"), "first");
    auto plain = writeWatchingSyncthing(repository, QStringLiteral("Other.md"), [&] {
        return repository.update(QStringLiteral("Other.md"), NoteDocument::revision(QByteArray("first")),
                                 QStringLiteral("first\nadded"), NoteEditor::agent(QStringLiteral("codex")));
    });
    EXPECT_TRUE(plain) << "outside a Syncthing folder the write is just done";
}

TEST_F(SyncthingWritesTest, AWordRemovedFromWhatWasAddedCounts) {
    EXPECT_TRUE(keepsAddedWords(QStringLiteral("a b"), QStringLiteral("a b c"), QStringLiteral("x a b c y")));
    EXPECT_FALSE(keepsAddedWords(QStringLiteral("a b"), QStringLiteral("a b c"), QStringLiteral("a b")));
    EXPECT_TRUE(keepsAddedWords(QStringLiteral("a b c"), QStringLiteral("a c"), QStringLiteral("a c")))
        << "a save that only removed words adds none";
}

}  // namespace
}  // namespace mossly
