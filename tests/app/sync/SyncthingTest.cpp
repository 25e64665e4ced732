#include <gtest/gtest.h>

#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <atomic>
#include <iostream>
#include <mutex>
#include <thread>

#include "AppTestSupport.h"
#include "NoteDocument.h"
#include "NoteStore.h"
#include "SyncthingPair.h"

namespace mossly::test {
namespace {

// Polls `condition` every `interval` ms while the event loop runs, for `timeoutMs` at most.
bool pollUntil(const std::function<bool()>& condition, int timeoutMs, int interval = 200) {
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > timeoutMs) return false;
        spin(interval);
    }
    return true;
}

struct AgentRun {
    int exitCode = -1;
    QJsonObject json;
    QString error;
};

// mossly-agent on machine B; safe on any thread.
AgentRun agent(const QString& notes, QStringList arguments) {
    QProcess process;
    arguments << QStringLiteral("--notes-dir") << notes;
    process.start(QStringLiteral(MOSSLY_AGENT_PATH), arguments);
    if (!process.waitForFinished(20000)) return {};
    return {process.exitCode(), QJsonDocument::fromJson(process.readAllStandardOutput()).object(),
            QString::fromUtf8(process.readAllStandardError())};
}

// Every note file of a folder (hidden entries are never notes) and its text.
QMap<QString, QString> noteTexts(const QString& folder) {
    QMap<QString, QString> texts;
    QDirIterator it(folder, QDir::Files);
    while (it.hasNext()) {
        const QString path = it.next();
        if (!path.endsWith(QStringLiteral(".md"))) continue;
        QFile file(path);
        if (file.open(QIODevice::ReadOnly)) texts.insert(QFileInfo(path).fileName(), QString::fromUtf8(file.readAll()));
    }
    return texts;
}

// Both folders hold the same notes with the same texts, and have for a while.
bool settled(const SyncthingPair& pair) {
    QMap<QString, QString> last;
    int sameFor = 0;
    return pollUntil(
        [&] {
            const auto onA = noteTexts(pair.a.notes);
            const bool same = onA == noteTexts(pair.b.notes);
            sameFor = same && onA == last ? sameFor + 1 : 0;
            last = onA;
            return sameFor >= 8;  // two seconds unchanged
        },
        60000, 250);
}

// The app's store on machine A and mossly-agent on machine B, each notes
// folder synchronised by its own real Syncthing. One pair for the suite: the
// cases run in order, each on notes of its own.
class SyncthingTest : public ::testing::Test {
protected:
    static inline QTemporaryDir* root = nullptr;
    static inline SyncthingPair* pair = nullptr;
    static inline NoteStore* store = nullptr;
    static inline QString skipReason;
    static inline QString connectionFailure;

    static void SetUpTestSuite() {
        root = new QTemporaryDir;
        pair = new SyncthingPair;
        skipReason = pair->prepare(root->path());
        if (!skipReason.isEmpty()) return;
        // Mossly is on both machines before Syncthing first looks at the folders.
        store = new NoteStore(pair->a.notes, NoteStore::Options{.createsWelcomeNote = false,
                                                                .loadsNotesSynchronously = true,
                                                                .welcomeIconPng = {}});
        agent(pair->b.notes, {QStringLiteral("list")});
        skipReason = pair->start();
        // Two instances that start but never connect are a failure, not a machine without Syncthing.
        if (skipReason.isEmpty()) connectionFailure = pair->connect();
    }
    static void TearDownTestSuite() {
        delete store;
        delete pair;
        delete root;
    }
    void SetUp() override {
        if (!skipReason.isEmpty()) GTEST_SKIP() << "Syncthing cannot run here: " << skipReason.toStdString();
        ASSERT_TRUE(connectionFailure.isEmpty()) << connectionFailure.toStdString();
    }

    static QString urlOnA(const QString& identifier) { return pair->a.notes + u'/' + identifier; }
    static QString bodyOnB(const QString& identifier) {
        const AgentRun read = agent(pair->b.notes, {QStringLiteral("read"), identifier});
        return read.exitCode == 0 ? read.json.value(u"body").toString() : QString();
    }
    static bool arrivesOnB(const QString& identifier, const QString& words) {
        return pollUntil([&] { return bodyOnB(identifier).contains(words); }, 30000, 300);
    }
    static bool arrivesOnA(const QString& identifier, const QString& words) {
        return pollUntil(
            [&] { return store->note(urlOnA(identifier)) && store->body(urlOnA(identifier)).contains(words); }, 30000);
    }
};

TEST_F(SyncthingTest, EditsOnEitherMachineArriveAndAreShown) {
    const AgentRun created = agent(pair->b.notes, {QStringLiteral("create"), QStringLiteral("--title"), QStringLiteral("From B"),
                                                   QStringLiteral("--body"), QStringLiteral("# From B\nwritten on B"),
                                                   QStringLiteral("--agent"), QStringLiteral("laptop")});
    ASSERT_EQ(created.exitCode, 0) << created.error.toStdString();
    ASSERT_TRUE(arrivesOnA(QStringLiteral("From B.md"), QStringLiteral("written on B")));

    const QString url = urlOnA(QStringLiteral("From B.md"));
    store->setBody(url, store->body(url) + QStringLiteral("\nanswered on A"));
    ASSERT_TRUE(store->flushPendingSaves());
    EXPECT_TRUE(arrivesOnB(QStringLiteral("From B.md"), QStringLiteral("answered on A")));

    // B edits again while A has the note open: the store shows it at once.
    const AgentRun read = agent(pair->b.notes, {QStringLiteral("read"), QStringLiteral("From B.md")});
    const AgentRun updated = agent(pair->b.notes, {QStringLiteral("update"), QStringLiteral("From B.md"),
                                                   QStringLiteral("--expected-revision"), read.json.value(u"revision").toString(),
                                                   QStringLiteral("--body"), read.json.value(u"body").toString() + QStringLiteral("\nB again"),
                                                   QStringLiteral("--agent"), QStringLiteral("laptop")});
    ASSERT_EQ(updated.exitCode, 0) << updated.error.toStdString();
    EXPECT_TRUE(arrivesOnA(QStringLiteral("From B.md"), QStringLiteral("B again")));
}

TEST_F(SyncthingTest, ANoteEditedOnBothWhileApartIsAConflictResolvedKeepingBoth) {
    const auto created = store->createNote(QStringLiteral("# Shared\nfirst line"), NoteContentType::markdown);
    ASSERT_TRUE(created);
    const QString url = *created;
    const QString identifier = store->note(url)->identifier;
    ASSERT_TRUE(arrivesOnB(identifier, QStringLiteral("first line")));

    ASSERT_TRUE(pair->setApart(true));
    store->setBody(url, QStringLiteral("# Shared\nfirst line\nwritten on A while apart"));
    ASSERT_TRUE(store->flushPendingSaves());
    const AgentRun read = agent(pair->b.notes, {QStringLiteral("read"), identifier});
    const AgentRun updated = agent(pair->b.notes, {QStringLiteral("update"), identifier, QStringLiteral("--expected-revision"),
                                                   read.json.value(u"revision").toString(), QStringLiteral("--body"),
                                                   QStringLiteral("# Shared\nfirst line\nwritten on B while apart"),
                                                   QStringLiteral("--agent"), QStringLiteral("laptop")});
    ASSERT_EQ(updated.exitCode, 0) << updated.error.toStdString();
    ASSERT_TRUE(pair->scan(pair->a) && pair->scan(pair->b));
    ASSERT_TRUE(pair->setApart(false));

    // Syncthing keeps the older edit as its conflict copy; Mossly shows it with its note.
    ASSERT_TRUE(pollUntil([&] { return !store->syncConflictCopies(url).empty(); }, 30000));
    const QString copy = store->syncConflictCopies(url).front()->url;
    EXPECT_TRUE(QFileInfo(copy).fileName().contains(QStringLiteral(".sync-conflict-")));
    EXPECT_EQ(store->syncConflictOriginal(copy), url);
    // The copy travels to B as well, where agents see it for what it is.
    EXPECT_TRUE(pollUntil(
        [&] {
            const AgentRun listed = agent(pair->b.notes, {QStringLiteral("list")});
            return QJsonDocument(listed.json).toJson().contains("\"conflictOf\"");
        },
        30000, 300));

    ASSERT_TRUE(store->resolveSyncConflict(url, copy, SyncConflictChoice::keepBoth));
    EXPECT_FALSE(QFileInfo::exists(copy)) << "the engine's copy went to the Trash";
    ASSERT_TRUE(settled(*pair));
    QString all;
    for (const QString& text : noteTexts(pair->b.notes)) all += text;
    EXPECT_TRUE(all.contains(QStringLiteral("written on A while apart")));
    EXPECT_TRUE(all.contains(QStringLiteral("written on B while apart")));
    EXPECT_FALSE(all.isEmpty());
    for (const QString& name : noteTexts(pair->b.notes).keys()) EXPECT_FALSE(name.contains(QStringLiteral("sync-conflict")));
}

TEST_F(SyncthingTest, TwentyNotesEditedOnBothMachinesForAMinuteLoseNoWords) {
    const int count = 20;
    const int seconds = qEnvironmentVariableIntValue("MOSSLY_SYNC_SOAK_SECONDS") > 0
                            ? qEnvironmentVariableIntValue("MOSSLY_SYNC_SOAK_SECONDS")
                            : 60;
    QStringList identifiers;
    for (int i = 0; i < count; ++i) {
        const auto created = store->createNote(QStringLiteral("# Soak %1\n").arg(i), NoteContentType::markdown);
        ASSERT_TRUE(created);
        identifiers.append(store->note(*created)->identifier);
    }
    ASSERT_TRUE(store->flushPendingSaves());
    ASSERT_TRUE(pollUntil([&] { return noteTexts(pair->b.notes).size() >= noteTexts(pair->a.notes).size(); }, 30000));

    DiagnosticsRecorder events;
    // Every word either machine committed, to be found afterwards, with its note.
    QStringList committed;
    QHash<QString, QString> noteOfWord;
    std::mutex committedLock;
    std::atomic<bool> running{true};
    std::atomic<int> agentWrites{0}, agentStale{0};
    std::thread machineB([&] {
        QRandomGenerator random(7);
        for (int k = 0; running; ++k) {
            const QString identifier = identifiers[random.bounded(count)];
            const AgentRun read = agent(pair->b.notes, {QStringLiteral("read"), identifier});
            if (read.exitCode != 0) continue;
            const QString word = QStringLiteral("B%1w").arg(k);
            const AgentRun updated = agent(pair->b.notes, {QStringLiteral("update"), identifier, QStringLiteral("--expected-revision"),
                                                           read.json.value(u"revision").toString(), QStringLiteral("--body"),
                                                           read.json.value(u"body").toString() + u'\n' + word,
                                                           QStringLiteral("--agent"), QStringLiteral("laptop")});
            if (updated.exitCode == 0) {
                std::scoped_lock hold(committedLock);
                committed.append(word);
                ++agentWrites;
            } else {
                ++agentStale;  // changed meanwhile, or replaced by Syncthing and kept as a copy: never promised
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(60));
        }
    });

    // Machine A types into random notes; a note that changed under unsaved
    // words becomes a conflict, which the "user" keeps as a conflict copy.
    QRandomGenerator random(11);
    QElapsedTimer timer;
    timer.start();
    int typed = 0;
    for (int k = 0; timer.elapsed() < seconds * 1000; ++k) {
        const QString url = urlOnA(identifiers[random.bounded(count)]);
        if (store->conflict(url)) {
            ASSERT_TRUE(store->keepConflictCopy(url, std::chrono::milliseconds(2000)));
        } else if (store->note(url)) {
            const QString word = QStringLiteral("A%1w").arg(k);
            store->setBody(url, store->body(url) + u'\n' + word);
            std::scoped_lock hold(committedLock);
            committed.append(word);
            noteOfWord.insert(word, url);
            ++typed;
        }
        spin(120);
    }
    running = false;
    machineB.join();
    // The last words typed are saved; a save that meets a newer file becomes a conflict, kept as a copy.
    ASSERT_TRUE(pollUntil(
        [&] {
            (void)store->flushPendingSaves();
            for (const Note& note : std::vector<Note>(store->notes())) {
                if (store->conflict(note.url)) (void)store->keepConflictCopy(note.url, std::chrono::milliseconds(2000));
            }
            return !store->hasUnsavedChanges();
        },
        20000));
    ASSERT_TRUE(settled(*pair));

    // Syncthing's conflict copies: the test keeps both versions of each.
    int syncConflicts = 0;
    for (const QString& identifier : identifiers) {
        const QString url = urlOnA(identifier);
        while (!store->syncConflictCopies(url).empty()) {
            ASSERT_TRUE(store->resolveSyncConflict(url, store->syncConflictCopies(url).front()->url,
                                                   SyncConflictChoice::keepBoth));
            ++syncConflicts;
        }
    }
    ASSERT_TRUE(settled(*pair));

    const auto onA = noteTexts(pair->a.notes);
    QString all;
    for (const QString& text : onA) all += text + u'\n';
    QStringList lost;
    for (const QString& word : std::as_const(committed)) {
        if (!all.contains(u'\n' + word + u'\n')) lost.append(word);
    }
    QString trashed;
    QDirIterator trash(QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QStringLiteral("/Trash/files"),
                       QDir::Files);
    while (trash.hasNext()) {
        QFile file(trash.next());
        if (file.open(QIODevice::ReadOnly)) trashed += QString::fromUtf8(file.readAll()) + u'\n';
    }
    for (const QString& word : std::as_const(lost)) {
        const Note* note = store->note(noteOfWord.value(word));
        const bool inMemory = note && store->body(note->url).contains(word);
        std::cout << "lost " << word.toStdString() << " of " << noteOfWord.value(word).toStdString()
                  << (trashed.contains(u'\n' + word + u'\n') ? " (in the Trash)" : "")
                  << (inMemory ? " (in memory)" : "") << '\n';
    }
    EXPECT_TRUE(lost.isEmpty()) << lost.join(u' ').toStdString();
    for (const SyncthingDevice* device : {&pair->a, &pair->b}) {
        QFile log(device->home + QStringLiteral("/syncthing.log"));
        log.open(QIODevice::ReadOnly);
        const QByteArray text = log.readAll();
        std::cout << "[ measured ] Syncthing " << device->name.toStdString() << ": "
                  << text.count("which is already a conflict copy") << " conflicts of conflict copies, "
                  << text.count("will try again later") << " changes it waited for\n";
    }
    std::cout << "[ measured ] store events: " << events.count(QStringLiteral("Concurrent note edit detected"))
              << " conflicts, " << events.count(QStringLiteral("Note deleted elsewhere written back"))
              << " notes written back, "
              << events.count(QStringLiteral("Save replaced by a sync engine kept as a conflict copy"))
              << " saves replaced by Syncthing kept as copies\n";
    EXPECT_EQ(onA, noteTexts(pair->b.notes));
    for (const QString& name : onA.keys()) EXPECT_FALSE(name.contains(QStringLiteral("sync-conflict"))) << name.toStdString();
    std::cout << "[ measured ] " << seconds << " s: A typed " << typed << " words, B committed " << agentWrites
              << " (" << agentStale << " refused), " << syncConflicts << " Syncthing conflict copies resolved, "
              << (onA.size() - count) << " conflict copies kept beside the notes\n";
    EXPECT_GT(typed, 0);
    EXPECT_GT(agentWrites, 0);
}

// Runs last: by now both machines have written catalogs and taken the lock many times.
TEST_F(SyncthingTest, TheCatalogAndTheLockNeverTravel) {
    for (const SyncthingDevice* device : {&pair->a, &pair->b}) {
        for (const QString& file : {QStringLiteral(".mossly-search.sqlite"), QStringLiteral(".mossly-search.sqlite-wal"),
                                    QStringLiteral(".notes-agent.lock")}) {
            EXPECT_FALSE(pair->knowsFile(*device, file)) << device->name.toStdString() << " " << file.toStdString();
        }
        EXPECT_TRUE(pair->knowsFile(*device, QStringLiteral("From B.md"))) << "the check itself sees synced files";
    }
    EXPECT_TRUE(QFileInfo::exists(pair->a.notes + QStringLiteral("/.mossly-search.sqlite")));
    EXPECT_FALSE(QFileInfo::exists(pair->b.notes + QStringLiteral("/.mossly-search.sqlite")));
    QFile ignores(pair->b.notes + QStringLiteral("/.stignore"));
    ASSERT_TRUE(ignores.open(QIODevice::ReadOnly));
    EXPECT_TRUE(ignores.readAll().contains("(?d)/.notes-agent.lock"));
}

}  // namespace
}  // namespace mossly::test
