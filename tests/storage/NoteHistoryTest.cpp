#include <gtest/gtest.h>

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QThread>
#include <csignal>
#include <random>
#include <set>
#include <sqlite3.h>

#include "NoteHistory.h"
#include "NoteHistoryDiff.h"
#include "NoteRepository.h"
#include "TestSupport.h"

namespace mossly {
namespace {

const NoteEditor human = NoteEditor::human();
const NoteEditor claude = NoteEditor::agent(QStringLiteral("claude"));

class NoteHistoryTest : public ::testing::Test {
protected:
    test::TemporaryNotesFolder folder;
    test::TemporaryNotesFolder data;
    qint64 clock = 1'800'000'000'000;
    std::optional<Error> fault;
    QStringList notices;
    std::shared_ptr<NoteHistory> history;
    NoteRepository repository{folder.path()};

    void SetUp() override {
        history = std::make_shared<NoteHistory>(storePath(), historyOptions());
        repository.setHistory(history);
        NoteHistory::setNoticeHandler([this](const QString& notice) { notices.append(notice); });
    }
    void TearDown() override { NoteHistory::setNoticeHandler({}); }

    QString storePath() const { return data.filePath(QStringLiteral("History/notes.sqlite")); }
    NoteHistory::Options historyOptions() {
        NoteHistory::Options options;
        options.clock = [this] { return clock; };
        options.writeFault = [this] { return fault; };
        options.busyTimeoutMs = 100;
        return options;
    }
    StoredNote create(const QString& body, const NoteEditor& editor = human) {
        auto note = repository.create(QStringLiteral("Plan"), body, editor);
        EXPECT_TRUE(note) << note.error().description().toStdString();
        return *note;
    }
    StoredNote update(const StoredNote& note, const QString& body, const NoteEditor& editor = human) {
        auto updated = repository.update(note.identifier, note.document.revision(), body, editor);
        EXPECT_TRUE(updated) << updated.error().description().toStdString();
        return *updated;
    }
    std::vector<NoteVersionInfo> timeline(const QString& identifier = QStringLiteral("Plan.md")) {
        auto versions = noteTimeline(repository, identifier);
        EXPECT_TRUE(versions) << versions.error().description().toStdString();
        return versions ? *versions : std::vector<NoteVersionInfo>{};
    }
    QString bodyOf(const QString& revision, const QString& identifier = QStringLiteral("Plan.md")) {
        auto text = noteVersionText(repository, identifier, revision);
        EXPECT_TRUE(text) << text.error().description().toStdString();
        return text ? NoteDocument(*text, NoteContentType::markdown).body : QString();
    }
};

TEST_F(NoteHistoryTest, EveryWriteKeepsTheVersionItReplacedWithItsEditor) {
    StoredNote note = create(QStringLiteral("one"));
    note = update(note, QStringLiteral("two by claude"), claude);
    clock += 1000;
    note = update(note, QStringLiteral("three"), human);
    const auto versions = timeline();
    ASSERT_EQ(versions.size(), 3u);
    EXPECT_FALSE(versions[0].replacedBy) << "the current file comes first";
    EXPECT_EQ(versions[0].revision, note.document.revision());
    EXPECT_EQ(versions[1].editedBy, claude);
    EXPECT_EQ(versions[1].replacedBy, human);
    EXPECT_EQ(bodyOf(versions[1].revision), QStringLiteral("two by claude"));
    EXPECT_EQ(versions[2].editedBy, human);
    EXPECT_EQ(versions[2].replacedBy, claude);
    EXPECT_EQ(bodyOf(versions[2].revision), QStringLiteral("one"));
    EXPECT_GT(versions[2].size, 0);
    EXPECT_TRUE(notices.isEmpty());
}

TEST_F(NoteHistoryTest, TheUsersTypingKeepsOneVersionPerWindowButNeverLosesTheOneBeforeAnotherEditor) {
    StoredNote note = create(QStringLiteral("start"));
    for (int i = 0; i < 40; ++i) {  // ten seconds of typing, saved every quarter second
        note = update(note, QStringLiteral("typing %1").arg(i));
        clock += 250;
    }
    EXPECT_EQ(timeline().size(), 2u) << "the current text and the one before the session";
    clock += NoteHistoryStore::coalescingWindowMs;
    note = update(note, QStringLiteral("later"));
    EXPECT_EQ(timeline().size(), 3u);
    note = update(note, QStringLiteral("typed just before the agent came"));
    note = update(note, QStringLiteral("the agent's text"), claude);
    auto versions = timeline();
    ASSERT_EQ(versions.size(), 4u) << "the agent's write keeps what it replaced, whatever the window";
    EXPECT_EQ(bodyOf(versions[1].revision), QStringLiteral("typed just before the agent came"));
    note = update(note, QStringLiteral("the user again"));
    versions = timeline();
    ASSERT_EQ(versions.size(), 5u);
    EXPECT_EQ(bodyOf(versions[1].revision), QStringLiteral("the agent's text"));
    // An agent's own successive edits are each kept: each is one step to undo.
    note = update(note, QStringLiteral("a1"), claude);
    note = update(note, QStringLiteral("a2"), claude);
    EXPECT_EQ(timeline().size(), 7u);
}

TEST_F(NoteHistoryTest, RestoreIsRevisionCheckedAndItselfRecorded) {
    StoredNote note = create(QStringLiteral("mine"));
    const QString mine = note.document.revision();
    note = update(note, QStringLiteral("agent rewrote it"), claude);
    const QString agents = note.document.revision();

    // Someone wrote meanwhile: nothing is restored over it.
    StoredNote later = update(note, QStringLiteral("agent again"), claude);
    auto stale = restoreNoteVersion(repository, note.identifier, mine, agents, human);
    ASSERT_FALSE(stale);
    EXPECT_EQ(stale.error().code(), Error::Code::stale);
    EXPECT_EQ(repository.read(note.identifier)->document.body, QStringLiteral("agent again"));

    auto restored = restoreNoteVersion(repository, note.identifier, mine, later.document.revision(), human);
    ASSERT_TRUE(restored) << restored.error().description().toStdString();
    EXPECT_EQ(restored->document.body, QStringLiteral("mine"));
    EXPECT_EQ(restored->document.lastEditedBy, human);
    const auto versions = timeline();
    ASSERT_EQ(versions.size(), 4u);
    EXPECT_EQ(bodyOf(versions[1].revision), QStringLiteral("agent again")) << "the restore keeps what it replaced";

    auto missing = restoreNoteVersion(repository, note.identifier, QString(64, u'0'), restored->document.revision(), human);
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error().code(), Error::Code::versionNotFound);
}

TEST_F(NoteHistoryTest, ARenamedNoteKeepsItsHistoryAndATrashedOneKeepsItUntilRetentionDropsIt) {
    StoredNote note = create(QStringLiteral("v1"));
    note = update(note, QStringLiteral("v2"), claude);
    auto renamed = repository.rename(note.identifier, note.document.revision(), QStringLiteral("Renamed"), human);
    ASSERT_TRUE(renamed);
    EXPECT_EQ(timeline(QStringLiteral("Renamed.md")).size(), 2u);
    ASSERT_TRUE(repository.moveToTrash(QStringLiteral("Renamed.md"), claude));
    const auto versions = timeline(QStringLiteral("Renamed.md"));
    ASSERT_EQ(versions.size(), 2u) << "no current file, its kept versions";
    EXPECT_EQ(bodyOf(versions[0].revision, QStringLiteral("Renamed.md")), QStringLiteral("v2"));

    clock += qint64(NoteHistoryRetention::defaultMaximumAgeDays + 1) * 24 * 3600 * 1000;
    ASSERT_TRUE(history->setRetention({30, NoteHistoryRetention::defaultMaximumBytes}));
    EXPECT_FALSE(noteTimeline(repository, QStringLiteral("Renamed.md")));
    EXPECT_EQ(history->retention()->maximumAgeDays, 30);
}

TEST_F(NoteHistoryTest, RetentionDropsTheOldestVersionsBeyondTheSizeLimit) {
    // Text that does not compress: each version costs about its size.
    QByteArray noise;
    std::mt19937 random(7);
    for (int i = 0; i < 600'000; ++i) noise.append(char('a' + random() % 26));
    StoredNote note = create(QStringLiteral("first"));
    for (int i = 0; i < 8; ++i) {
        note = update(note, QString::fromLatin1(noise.mid(i * 30'000, 300'000)), i % 2 ? human : claude);
    }
    ASSERT_TRUE(history->setRetention({30, 1024 * 1024}));
    EXPECT_LE(*history->storedBytes(), 1024 * 1024);
    const auto versions = timeline();
    EXPECT_GT(versions.size(), 2u);
    EXPECT_LT(versions.size(), 9u);
    EXPECT_NE(bodyOf(versions.back().revision), QStringLiteral("first")) << "the oldest went first";
    EXPECT_FALSE(history->setRetention({0, 1024 * 1024})) << "nonsense limits are refused";
}

TEST_F(NoteHistoryTest, AStoreThatCannotBeWrittenCostsNoSaveAndIsToldOnce) {
    StoredNote note = create(QStringLiteral("v1"));
    fault = Error::system(ENOSPC, storePath());
    note = update(note, QStringLiteral("v2"), claude);
    note = update(note, QStringLiteral("v3"), human);
    EXPECT_EQ(repository.read(note.identifier)->document.body, QStringLiteral("v3")) << "the note is written";
    ASSERT_EQ(notices.size(), 1);
    EXPECT_TRUE(notices[0].startsWith(NoteHistory::failedNoticePrefix));
    EXPECT_TRUE(notices[0].contains(QStringLiteral("No space left on device")));

    fault.reset();  // the disk has room again: history goes on by itself
    note = update(note, QStringLiteral("v4"), claude);
    EXPECT_EQ(timeline().size(), 2u);
    fault = Error::system(ENOSPC, storePath());
    note = update(note, QStringLiteral("v5"), human);
    EXPECT_EQ(notices.size(), 2) << "a new failure after a recovery is told again";
}

TEST_F(NoteHistoryTest, ADamagedStoreIsSetAsideAndStartedAnew) {
    StoredNote note = create(QStringLiteral("v1"));
    note = update(note, QStringLiteral("v2"), claude);
    history.reset();
    repository.setHistory(nullptr);
    QFile::remove(storePath() + QStringLiteral("-wal"));
    QFile::remove(storePath() + QStringLiteral("-shm"));
    QFile damaged(storePath());
    ASSERT_TRUE(damaged.open(QIODevice::WriteOnly | QIODevice::Truncate));
    damaged.write(QByteArray(8192, 'x'));
    damaged.close();

    history = std::make_shared<NoteHistory>(storePath(), historyOptions());
    repository.setHistory(history);
    note = update(note, QStringLiteral("v3"), human);
    EXPECT_EQ(repository.read(note.identifier)->document.body, QStringLiteral("v3"));
    ASSERT_EQ(notices, QStringList{NoteHistory::damagedNotice});
    const QStringList aside = QDir(QFileInfo(storePath()).path()).entryList({QStringLiteral("notes.sqlite.damaged-*")});
    EXPECT_EQ(aside.size(), 1) << "kept for whoever wants to look at it";
    const auto versions = timeline();
    ASSERT_EQ(versions.size(), 2u) << "the version of this write is in the new store";
    EXPECT_EQ(bodyOf(versions[1].revision), QStringLiteral("v2"));
}

TEST_F(NoteHistoryTest, AStoreLockedByAnotherProgramCostsNoSave) {
    StoredNote note = create(QStringLiteral("v1"));
    note = update(note, QStringLiteral("v2"), claude);
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(storePath().toUtf8().constData(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
    note = update(note, QStringLiteral("v3"), human);
    EXPECT_EQ(repository.read(note.identifier)->document.body, QStringLiteral("v3"));
    EXPECT_EQ(notices.size(), 1);
    sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close(other);
    note = update(note, QStringLiteral("v4"), claude);
    EXPECT_EQ(timeline().size(), 3u);
}

// Killed at any moment, a writer leaves every version it wrote over in the
// history: the version is recorded, or the write did not happen.
TEST_F(NoteHistoryTest, AWriterKilledMidWriteLeavesNoteAndHistoryConsistent) {
    repository.setHistory(NoteHistory::forDirectory(folder.path()));  // the one the writers use
    StoredNote note = create(QStringLiteral("start"));
    for (int round = 0; round < 6; ++round) {
        QProcess writer;
        writer.start(QStringLiteral(MOSSLY_HISTORY_WRITER), {folder.path(), note.identifier, QStringLiteral("agent:w%1").arg(round % 2), QStringLiteral("100000")});
        ASSERT_TRUE(writer.waitForStarted());
        writer.waitForReadyRead(5000);
        QThread::msleep(static_cast<unsigned long>(30 + round * 37));
        ::kill(static_cast<pid_t>(writer.processId()), SIGKILL);
        writer.waitForFinished();
    }
    auto current = repository.read(note.identifier);
    ASSERT_TRUE(current);
    auto versions = noteTimeline(repository, note.identifier);
    ASSERT_TRUE(versions);
    // Each write appended one line to the text before it: every earlier text must be kept.
    QStringList lines = current->document.body.split(u'\n');
    ASSERT_GT(lines.size(), 10);
    std::set<QString> kept;
    for (const NoteVersionInfo& version : *versions) {
        auto text = noteVersionText(repository, note.identifier, version.revision);
        ASSERT_TRUE(text);
        EXPECT_EQ(NoteDocument::revision(*text), version.revision);
        kept.insert(NoteDocument(*text, NoteContentType::markdown).body);
    }
    for (qsizetype n = 1; n < lines.size(); ++n) {
        EXPECT_TRUE(kept.contains(lines.mid(0, n).join(u'\n')))
            << "missing the version with " << n << " lines; kept " << kept.size() << ", first "
            << kept.begin()->toStdString();
    }
}

// The app and an agent writing the same note at once: every agent write keeps
// the version it replaced, and nothing kept is garbled.
TEST_F(NoteHistoryTest, ConcurrentWritersInTwoProcessesKeepEveryVersionBeforeAnAgentsEdit) {
    repository.setHistory(NoteHistory::forDirectory(folder.path()));
    StoredNote note = create(QStringLiteral("start"));
    QProcess app, agent;
    app.start(QStringLiteral(MOSSLY_HISTORY_WRITER), {folder.path(), note.identifier, QStringLiteral("human"), QStringLiteral("60")});
    agent.start(QStringLiteral(MOSSLY_HISTORY_WRITER), {folder.path(), note.identifier, QStringLiteral("agent:claude"), QStringLiteral("60")});
    ASSERT_TRUE(app.waitForFinished(60000));
    ASSERT_TRUE(agent.waitForFinished(60000));
    ASSERT_EQ(app.exitCode(), 0);
    ASSERT_EQ(agent.exitCode(), 0);
    auto versions = noteTimeline(repository, note.identifier);
    ASSERT_TRUE(versions);
    int replacedByAgent = 0;
    for (const NoteVersionInfo& version : *versions) {
        if (version.replacedBy == claude) ++replacedByAgent;
        auto text = noteVersionText(repository, note.identifier, version.revision);
        ASSERT_TRUE(text);
        EXPECT_EQ(NoteDocument::revision(*text), version.revision);
    }
    EXPECT_EQ(replacedByAgent, 60);
}

TEST(NoteHistoryDiffTest, ComparesWordByWord) {
    using K = NoteTextChange::Kind;
    EXPECT_EQ(wordDiff(QStringLiteral("the quick brown fox"), QStringLiteral("the slow brown fox!")),
              (std::vector<NoteTextChange>{{K::same, "the "},
                                           {K::removed, "quick"},
                                           {K::inserted, "slow"},
                                           {K::same, " brown fox"},
                                           {K::inserted, "!"}}));
    EXPECT_EQ(wordDiff(QString(), QStringLiteral("new")), (std::vector<NoteTextChange>{{K::inserted, "new"}}));
    EXPECT_EQ(wordDiff(QStringLiteral("same"), QStringLiteral("same")), (std::vector<NoteTextChange>{{K::same, "same"}}));
    EXPECT_TRUE(wordDiff(QString(), QString()).empty());

    // Both texts can always be put back together from the runs, however large the change.
    QString before, after;
    for (int i = 0; i < 20000; ++i) {
        before += QStringLiteral("w%1 ").arg(i % 97);
        after += QStringLiteral("w%1 ").arg((i * 31) % 89);
    }
    QString rebuiltBefore, rebuiltAfter;
    for (const NoteTextChange& change : wordDiff(before, after)) {
        if (change.kind != K::inserted) rebuiltBefore += change.text;
        if (change.kind != K::removed) rebuiltAfter += change.text;
    }
    EXPECT_EQ(rebuiltBefore, before);
    EXPECT_EQ(rebuiltAfter, after);
}

}  // namespace
}  // namespace mossly
