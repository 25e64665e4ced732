// Measures catalog synchronisation and keyword search on generated libraries.
// Usage: search_benchmark WORKDIR NOTE_COUNT [NOTE_COUNT…]
// Prints a Markdown report on stdout.

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QThread>
#include <QTextStream>
#include <algorithm>
#include <cstdio>
#include <functional>
#include <unistd.h>

#include "NoteRepository.h"
#include "NoteSearchCatalog.h"
#include "NotesFolderGenerator.h"

using namespace mossly;

namespace {

QTextStream out(stdout);

double milliseconds(const std::function<void()>& work) {
    QElapsedTimer timer;
    timer.start();
    work();
    return static_cast<double>(timer.nsecsElapsed()) / 1e6;
}

struct Percentiles {
    double p50, p95, p99;
};

Percentiles percentiles(std::vector<double> samples) {
    std::sort(samples.begin(), samples.end());
    const auto at = [&](double q) {
        return samples[std::min(samples.size() - 1, static_cast<size_t>(q * static_cast<double>(samples.size())))];
    };
    return {at(0.50), at(0.95), at(0.99)};
}

QString row(const QString& label, const Percentiles& p) {
    return QStringLiteral("| %1 | %2 | %3 | %4 |")
        .arg(label)
        .arg(p.p50, 0, 'f', 2)
        .arg(p.p95, 0, 'f', 2)
        .arg(p.p99, 0, 'f', 2);
}

template <typename T>
T must(Result<T> result, const char* what) {
    if (!result) {
        std::fprintf(stderr, "%s: %s\n", what, qPrintable(result.error().description()));
        std::exit(1);
    }
    if constexpr (!std::is_void_v<T>) return std::move(*result);
}

std::vector<double> timeQueries(NoteSearchCatalog& catalog, const QStringList& queries, bool reference) {
    std::vector<double> samples;
    for (const QString& query : queries) {
        samples.push_back(milliseconds([&] {
            auto response = reference ? catalog.searchWithReferenceStatement(query, 20) : catalog.search(query, 20);
            must(std::move(response), "search");
        }));
    }
    return samples;
}

std::vector<double> timeRipgrep(const QString& folder, const QStringList& queries) {
    std::vector<double> samples;
    for (const QString& query : queries) {
        QStringList arguments{QStringLiteral("-l"), QStringLiteral("-i")};
        for (const QString& term : NoteSearch::normalizedTerms(query)) arguments << QStringLiteral("-e") << term;
        arguments << folder;
        samples.push_back(milliseconds([&] {
            QProcess rg;
            rg.setStandardOutputFile(QProcess::nullDevice());
            rg.start(QStringLiteral("rg"), arguments);
            rg.waitForFinished(-1);
        }));
    }
    return samples;
}

// The generated library's word lists, kept beside it so that a later run can reuse the library.
void writeWords(const QString& path, const bench::GeneratedFolder& generated) {
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) return;
    QTextStream(&file) << generated.totalBytes << '\n'
                       << generated.mostCommon.join(u' ') << '\n'
                       << generated.wordsPresent.join(u' ') << '\n';
}

bench::GeneratedFolder readWords(const QString& path) {
    QFile file(path);
    bench::GeneratedFolder generated;
    if (!file.open(QIODevice::ReadOnly)) return generated;
    const QStringList lines = QString::fromUtf8(file.readAll()).split(u'\n');
    if (lines.size() < 3) return generated;
    generated.totalBytes = lines[0].toLongLong();
    generated.mostCommon = lines[1].split(u' ');
    generated.wordsPresent = lines[2].split(u' ');
    return generated;
}

void benchmark(const QString& workdir, int noteCount) {
    const QString folder = QStringLiteral("%1/notes-%2").arg(workdir).arg(noteCount);
    const QString catalogPath = QStringLiteral("%1/catalog-%2.sqlite").arg(workdir).arg(noteCount);
    const QString wordsPath = QStringLiteral("%1/notes-%2.words").arg(workdir).arg(noteCount);
    // MOSSLY_BENCH_REUSE=1 keeps a library and catalog left by an earlier run
    // (search timings only: the cold index is not measured again).
    const bool reuse = qEnvironmentVariableIsSet("MOSSLY_BENCH_REUSE") && QFile::exists(wordsPath) &&
                       QFile::exists(catalogPath);
    bench::GeneratedFolder generated;
    if (reuse) {
        generated = readWords(wordsPath);
    } else {
        QDir(folder).removeRecursively();
        generated = bench::generateNotesFolder(folder, noteCount, 20261122);
        writeWords(wordsPath, generated);
        must(NoteSearchCatalog::deleteCache(catalogPath), "delete catalog");
    }
    const NoteRepository repository(folder);
    auto catalog = must(NoteSearchCatalog::open(catalogPath), "open");

    const double megabytes = static_cast<double>(generated.totalBytes) / 1e6;
    const double cold = reuse ? 0.0 : milliseconds([&] { must(catalog->synchronize(repository), "cold sync"); });
    // Let the kernel write the new library and catalog out first: a warm
    // synchronisation is measured on a quiet disk, not under gigabytes of writeback.
    ::sync();
    QThread::sleep(2);
    std::vector<double> warmSamples;
    for (int i = 0; i < 5; ++i) {
        warmSamples.push_back(milliseconds([&] { must(catalog->synchronize(repository), "warm sync"); }));
    }
    const int touched = bench::touchNotes(folder, 0.01, 7);
    const double changed = milliseconds([&] { must(catalog->synchronize(repository), "changed sync"); });

    const QStringList uniform = bench::uniformQueries(generated.wordsPresent, 300, 11);
    const QStringList common = generated.mostCommon.mid(0, 50);
    // Warm the page cache and the statement once before timing.
    timeQueries(*catalog, uniform.mid(0, 20), false);

    out << QStringLiteral("\n### %1 notes, %2 MB of note text\n\n").arg(noteCount).arg(megabytes, 0, 'f', 1);
    out << "| synchronisation | time |\n|---|---|\n";
    out << QStringLiteral("| cold (full index) | %1 s (%2 MB/s) |\n")
               .arg(cold / 1000, 0, 'f', 2)
               .arg(megabytes / (cold / 1000), 0, 'f', 1);
    out << QStringLiteral("| warm, unchanged folder (median of 5) | %1 ms |\n")
               .arg(percentiles(warmSamples).p50, 0, 'f', 1);
    out << QStringLiteral("| after 1 % changed (%1 notes) | %2 ms |\n\n").arg(touched).arg(changed, 0, 'f', 1);

    out << "| search, limit 20 | p50 ms | p95 ms | p99 ms |\n|---|---|---|---|\n";
    out << row(QStringLiteral("uniform 1-3 terms, Mossly (%1 queries)").arg(uniform.size()),
               percentiles(timeQueries(*catalog, uniform, false)))
        << '\n';
    out << row(QStringLiteral("uniform 1-3 terms, reference statement"),
               percentiles(timeQueries(*catalog, uniform, true)))
        << '\n';
    out << row(QStringLiteral("common single words, Mossly (%1 queries)").arg(common.size()),
               percentiles(timeQueries(*catalog, common, false)))
        << '\n';
    out << row(QStringLiteral("common single words, reference statement"),
               percentiles(timeQueries(*catalog, common, true)))
        << '\n';
    out << row(QStringLiteral("uniform 1-3 terms, `rg -l -i` (40 queries)"),
               percentiles(timeRipgrep(folder, uniform.mid(0, 40))))
        << '\n';
    out << row(QStringLiteral("common single words, `rg -l -i` (20 queries)"),
               percentiles(timeRipgrep(folder, common.mid(0, 20))))
        << '\n';
    out.flush();
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() < 3) {
        std::fprintf(stderr, "usage: search_benchmark WORKDIR NOTE_COUNT [NOTE_COUNT...]\n");
        return 2;
    }
    for (const QString& count : arguments.mid(2)) benchmark(arguments[1], count.toInt());
    return 0;
}
