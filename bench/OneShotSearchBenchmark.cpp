// End-to-end time of one-shot `mossly-agent search` runs, each a new process,
// in every mode, against `rg -l -i` on the same folder.
// Usage: one_shot_search_benchmark MOSSLY_AGENT NOTES_FOLDER WORKDIR [RUNS]
// WORKDIR holds the private home, data and cache folders (the catalog).
// Prints Markdown table rows on stdout.

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTextStream>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

// Wall time of one run, output thrown away; the process is started the way a shell starts it.
double runMilliseconds(const QStringList& command) {
    std::vector<QByteArray> arguments;
    for (const QString& argument : command) arguments.push_back(argument.toLocal8Bit());
    std::vector<char*> argv;
    for (QByteArray& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    const auto start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
        std::fprintf(stderr, "cannot start %s\n", argv[0]);
        std::exit(1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    const double elapsed = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    posix_spawn_file_actions_destroy(&actions);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "%s failed\n", qPrintable(command.join(u' ')));
        std::exit(1);
    }
    return elapsed;
}

struct Percentiles {
    double p50, p95;
};

Percentiles percentiles(std::vector<double> samples) {
    std::sort(samples.begin(), samples.end());
    const auto at = [&](double q) {
        return samples[std::min(samples.size() - 1, static_cast<size_t>(q * static_cast<double>(samples.size())))];
    };
    return {at(0.50), at(0.95)};
}

// Queries of one to three words taken from the notes themselves.
QStringList queriesFrom(const QString& folder, int count) {
    QStringList words;
    QDirIterator notes(folder, {QStringLiteral("*.md")}, QDir::Files, QDirIterator::Subdirectories);
    static const QRegularExpression word(QStringLiteral("[A-Za-z]{4,}"));
    for (int files = 0; notes.hasNext() && files < 50; ++files) {
        QFile file(notes.next());
        if (!file.open(QIODevice::ReadOnly)) continue;
        auto matches = word.globalMatch(QString::fromUtf8(file.read(4000)));
        while (matches.hasNext()) words.append(matches.next().captured().toLower());
    }
    QRandomGenerator random(7);
    QStringList queries;
    for (int i = 0; i < count && !words.isEmpty(); ++i) {
        QStringList query;
        for (int n = 1 + random.bounded(3); n > 0; --n) query.append(words[random.bounded(words.size())]);
        queries.append(query.join(u' '));
    }
    return queries;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    if (argc < 4) {
        std::fprintf(stderr, "Usage: one_shot_search_benchmark MOSSLY_AGENT NOTES_FOLDER WORKDIR [RUNS]\n");
        return 2;
    }
    const QString agent = QString::fromLocal8Bit(argv[1]);
    const QString folder = QDir(QString::fromLocal8Bit(argv[2])).absolutePath();
    const QString work = QDir(QString::fromLocal8Bit(argv[3])).absolutePath();
    const int runs = argc > 4 ? std::atoi(argv[4]) : 60;
    // A catalog from an earlier run would make the first run not a first run.
    QDir(work + QStringLiteral("/cache")).removeRecursively();
    for (const char* name : {"home", "data", "cache", "config"}) QDir().mkpath(work + u'/' + QString::fromLatin1(name));
    qputenv("HOME", QFile::encodeName(work + QStringLiteral("/home")));
    qputenv("XDG_DATA_HOME", QFile::encodeName(work + QStringLiteral("/data")));
    qputenv("XDG_CACHE_HOME", QFile::encodeName(work + QStringLiteral("/cache")));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(work + QStringLiteral("/config")));
    runMilliseconds({agent, QStringLiteral("access"), QStringLiteral("on")});

    const QStringList queries = queriesFrom(folder, runs);
    const auto search = [&](const QString& query, const QString& mode) {
        return runMilliseconds({agent, QStringLiteral("search"), query, QStringLiteral("--mode"), mode,
                                QStringLiteral("--notes-dir"), folder});
    };
    QTextStream out(stdout);
    // The first run indexes the library; every later one finds it indexed.
    out << QStringLiteral("| first run (indexes the library by words and meaning) | %1 ms |\n")
               .arg(search(queries.value(0), QStringLiteral("hybrid")), 0, 'f', 0);
    for (const QString& mode : {QStringLiteral("keyword"), QStringLiteral("meaning"), QStringLiteral("hybrid")}) {
        search(queries.value(0), mode);  // leaves what this mode keeps beside the catalog
        std::vector<double> samples;
        for (const QString& query : queries) samples.push_back(search(query, mode));
        const Percentiles p = percentiles(samples);
        out << QStringLiteral("| `--mode %1` | p50 %2 ms, p95 %3 ms |\n").arg(mode).arg(p.p50, 0, 'f', 1).arg(p.p95, 0, 'f', 1);
    }
    // One note changed since the last run: its rows and vectors are made again.
    std::vector<double> afterChange;
    for (int i = 0; i < 10; ++i) {
        QFile note(folder + QStringLiteral("/one-shot-benchmark.md"));
        if (!note.open(QIODevice::WriteOnly)) return 1;
        note.write(QStringLiteral("# Changed %1\n\nThe plumber fixed the leaking pipe under the sink.\n").arg(i).toUtf8());
        note.close();
        afterChange.push_back(search(queries.value(i), QStringLiteral("hybrid")));
    }
    QFile::remove(folder + QStringLiteral("/one-shot-benchmark.md"));
    search(queries.value(0), QStringLiteral("hybrid"));
    const Percentiles changed = percentiles(afterChange);
    out << QStringLiteral("| `--mode hybrid` after a note changed | p50 %1 ms, p95 %2 ms |\n")
               .arg(changed.p50, 0, 'f', 1)
               .arg(changed.p95, 0, 'f', 1);
    // The yardstick of the keyword benchmarks: every word of the query as a pattern.
    std::vector<double> grep;
    for (const QString& query : queries) {
        QStringList command{QStringLiteral("rg"), QStringLiteral("-l"), QStringLiteral("-i")};
        for (const QString& word : query.split(u' ', Qt::SkipEmptyParts)) command << QStringLiteral("-e") << word;
        grep.push_back(runMilliseconds(command << folder));
    }
    const Percentiles rg = percentiles(grep);
    out << QStringLiteral("| `rg -l -i -e WORD…` on the same folder | p50 %1 ms, p95 %2 ms |\n")
               .arg(rg.p50, 0, 'f', 1)
               .arg(rg.p95, 0, 'f', 1);
    return 0;
}
