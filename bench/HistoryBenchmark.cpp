// The cost of note history (scripts/bench-history):
//  1. a revision-checked save of a 100 KB note with and without history, p50/p95, when every save
//     keeps a version (an agent's writes) and when the user's typing is coalesced;
//  2. reading the versions of a note with 1,000 kept versions (what Show History lists) and one
//     version's text (what its comparison needs);
//  3. the size of the history after a simulated week of typing in 100 notes, with agents' edits.
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdio>
#include <optional>
#include <random>

#include "NoteHistory.h"
#include "NoteRepository.h"

using namespace mossly;

namespace {

QString words(std::mt19937& random, int count) {
    static const QStringList vocabulary = QStringLiteral(
        "the of and to in plan meeting budget travel notes draft review agreed later team project week "
        "customer design number update question answer follow idea list write read move keep version")
        .split(u' ');
    QString text;
    for (int i = 0; i < count; ++i) {
        text += vocabulary[static_cast<qsizetype>(random() % vocabulary.size())];
        text += (i % 14 == 13) ? QStringLiteral(".\n") : QStringLiteral(" ");
    }
    return text;
}

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    return values[static_cast<size_t>(p * (values.size() - 1))];
}

struct Saves {
    std::vector<double> without, with, recording;
};

// Saves of two 100 KB notes, one without history and one with, interleaved so that disk and machine
// load fall on both alike; editors alternate when `everySaveKept`. `history` unset: the repository finds
// the folder's shared history itself, as every writer does. `recording` is the history's own part,
// measured alone on the same versions.
Saves measureSaves(const QString& folder, std::optional<std::shared_ptr<NoteHistory>> history, bool everySaveKept,
                   int saves) {
    NoteRepository plain(folder);
    plain.setHistory(nullptr);
    NoteRepository recorded(folder);
    if (history) recorded.setHistory(*history);
    std::mt19937 random(42);
    const QString base = words(random, 15000).left(100 * 1024);
    const auto create = [&](const NoteRepository& repository) {
        auto note = repository.create(QStringLiteral("Big %1").arg(random()), base, NoteEditor::human());
        if (!note) qFatal("create failed");
        return *note;
    };
    StoredNote withoutNote = create(plain);
    StoredNote withNote = create(recorded);
    Saves result;
    const auto save = [&](const NoteRepository& repository, StoredNote& note, int i) {
        const NoteEditor editor = everySaveKept && i % 2 ? NoteEditor::agent(QStringLiteral("claude")) : NoteEditor::human();
        const QString body = base.left(base.size() - 20) + QString::number(i).rightJustified(20, u' ');
        QElapsedTimer timer;
        timer.start();
        auto updated = repository.update(note.identifier, note.document.revision(), body, editor);
        const double ms = static_cast<double>(timer.nsecsElapsed()) / 1e6;
        if (!updated) qFatal("update failed");
        note = *updated;
        return ms;
    };
    for (int i = 0; i < saves; ++i) {
        result.without.push_back(save(plain, withoutNote, i));
        result.with.push_back(save(recorded, withNote, i));
    }
    auto alone = recorded.history();
    for (int i = 0; i < saves; ++i) {
        StoredNote version = withNote;
        version.identifier = QStringLiteral("Alone.md");
        version.persistedContent = base + QString::number(i);
        version.document = NoteDocument(version.persistedContent, NoteContentType::markdown);
        QElapsedTimer timer;
        timer.start();
        alone->recordReplaced(version, everySaveKept && i % 2 ? NoteEditor::agent(QStringLiteral("claude")) : NoteEditor::human(),
                              NoteWriteKind::edit);
        result.recording.push_back(static_cast<double>(timer.nsecsElapsed()) / 1e6);
    }
    return result;
}

void printSaves(const char* title, const Saves& saves) {
    std::printf("%s\n", title);
    std::printf("  save without history                  %6.2f  %6.2f\n", percentile(saves.without, 0.5), percentile(saves.without, 0.95));
    std::printf("  save with history                     %6.2f  %6.2f\n", percentile(saves.with, 0.5), percentile(saves.with, 0.95));
    std::printf("  the history's own part, alone         %6.2f  %6.2f\n", percentile(saves.recording, 0.5), percentile(saves.recording, 0.95));
}

qint64 diskSize(const QString& path) {
    qint64 size = 0;
    for (const QString& suffix : {QString(), QStringLiteral("-wal")}) size += QFileInfo(path + suffix).size();
    return size;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QTemporaryDir root;
    qputenv("XDG_DATA_HOME", root.filePath(QStringLiteral("data")).toUtf8());
    const QString notes = root.filePath(QStringLiteral("notes"));
    QDir().mkpath(notes);
    const int saves = 400;

    // 1. Saves.
    qint64 clock = 1'800'000'000'000;
    const auto history = [&](const QString& name) {
        return std::make_shared<NoteHistory>(root.filePath(name), NoteHistory::Options{[&clock] { return clock; }, 2000, {}});
    };
    measureSaves(notes, history(QStringLiteral("warm.sqlite")), false, 50);  // warm the page cache and the code
    std::printf("100 KB note, %d saves each (ms)         p50     p95\n", saves);
    printSaves("every save keeps a version (an agent's edits), the folder's shared history:",
               measureSaves(notes, std::nullopt, true, saves));
    printSaves("the user's typing (coalesced):", measureSaves(notes, history(QStringLiteral("typing.sqlite")), false, saves));

    // 2. A note with 1,000 kept versions.
    {
        auto store = history(QStringLiteral("thousand.sqlite"));
        NoteRepository repository(notes);
        repository.setHistory(store);
        std::mt19937 random(7);
        auto note = repository.create(QStringLiteral("Long lived"), words(random, 800), NoteEditor::human());
        StoredNote current = *note;
        for (int i = 0; i < 1000; ++i) {
            clock += 6 * 60 * 1000;
            auto updated = repository.update(current.identifier, current.document.revision(),
                                             current.document.body + words(random, 3), NoteEditor::human());
            current = *updated;
        }
        std::vector<double> listing, reading;
        for (int i = 0; i < 30; ++i) {
            QElapsedTimer timer;
            timer.start();
            auto versions = noteTimeline(repository, current.identifier);
            listing.push_back(static_cast<double>(timer.nsecsElapsed()) / 1e6);
            if (!versions || versions->size() != 1001) qFatal("expected 1,001 versions");
            timer.restart();
            auto text = noteVersionText(repository, current.identifier, (*versions)[500].revision);
            reading.push_back(static_cast<double>(timer.nsecsElapsed()) / 1e6);
            if (!text) qFatal("no text");
        }
        std::printf("\nnote with 1,000 versions (ms)          p50     p95\n");
        std::printf("  list its versions                     %6.2f  %6.2f\n", percentile(listing, 0.5), percentile(listing, 0.95));
        std::printf("  read one version's text               %6.2f  %6.2f\n", percentile(reading, 0.5), percentile(reading, 0.95));
    }

    // 3. A week of typing: 7 days of 8 hours; each hour the user works in 5 of 100 notes for
    // 12 minutes each, about 40 words a minute, saved every 15 s (the app saves every quarter second
    // while typing; what is kept is the same: one version per note per window). Agents edit 20 notes a day.
    {
        const QString folder = root.filePath(QStringLiteral("week"));
        QDir().mkpath(folder);
        auto store = history(QStringLiteral("week.sqlite"));
        NoteRepository repository(folder);
        repository.setHistory(store);
        std::mt19937 random(11);
        std::vector<StoredNote> library;
        for (int i = 0; i < 100; ++i) {
            library.push_back(*repository.create(QStringLiteral("Note %1").arg(i), words(random, 400 + random() % 1500),
                                                 NoteEditor::human()));
        }
        qint64 writes = 0;
        for (int day = 0; day < 7; ++day) {
            for (int hour = 0; hour < 8; ++hour) {
                for (int session = 0; session < 5; ++session) {
                    StoredNote& note = library[random() % library.size()];
                    for (int save = 0; save < 12 * 4; ++save) {
                        clock += 15'000;
                        note = *repository.update(note.identifier, note.document.revision(),
                                                  note.document.body + words(random, 10), NoteEditor::human());
                        ++writes;
                    }
                }
                if (hour % 3 == 0) {
                    for (int a = 0; a < 7; ++a) {
                        StoredNote& note = library[random() % library.size()];
                        note = *repository.update(note.identifier, note.document.revision(),
                                                  note.document.body + words(random, 60),
                                                  NoteEditor::agent(QStringLiteral("claude")));
                        ++writes;
                    }
                }
            }
            clock += 16 * 3600 * 1000;
        }
        qint64 notesBytes = 0;
        for (const StoredNote& note : library) notesBytes += QFileInfo(note.url).size();
        std::printf("\na week of typing in 100 notes: %lld saves, notes now %.1f MB\n", static_cast<long long>(writes),
                    static_cast<double>(notesBytes) / 1e6);
        std::printf("  history: %.1f MB on disk, %.1f MB of compressed texts\n",
                    static_cast<double>(diskSize(store->storePath())) / 1e6,
                    static_cast<double>(*store->storedBytes()) / 1e6);
    }
    return 0;
}
