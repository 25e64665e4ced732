// Judges meaning search on tests/storage/data/meaning-evaluation.json: every
// query is a paraphrase that shares no word with its note. Prints recall@5 and
// the mean reciprocal rank for each mode, and for variants of the sentence
// vectors (scored directly, best chunk per note).
// With a LIBRARY, also indexes it from scratch and reports the indexing speed
// and the memory the vectors take.
//   meaning_evaluation EVALUATION.json [LIBRARY]
#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <cstdio>

#include "NoteRepository.h"
#include "NoteSearchService.h"

using namespace mossly;

namespace {

struct Case {
    QString note;
    QString query;
};

struct Quality {
    double recallAt5 = 0;
    double meanReciprocalRank = 0;
};

template <typename RankOf>
Quality judge(const std::vector<Case>& cases, RankOf rankOf) {
    Quality quality;
    for (size_t i = 0; i < cases.size(); ++i) {
        const int rank = rankOf(i);  // 1-based, 0: not found
        if (rank > 0 && rank <= 5) quality.recallAt5 += 1;
        if (rank > 0) quality.meanReciprocalRank += 1.0 / rank;
    }
    quality.recallAt5 /= double(cases.size());
    quality.meanReciprocalRank /= double(cases.size());
    return quality;
}

QString caseName(size_t i) { return QStringLiteral("case-%1.md").arg(i, 2, 10, QLatin1Char('0')); }

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    if (argc < 2) {
        std::fprintf(stderr, "usage: meaning_evaluation EVALUATION.json\n");
        return 2;
    }
    QFile file(QString::fromLocal8Bit(argv[1]));
    if (!file.open(QIODevice::ReadOnly)) return 1;
    const QJsonObject root = QJsonDocument::fromJson(file.readAll()).object();
    std::vector<Case> cases;
    for (const QJsonValue& value : root.value("cases").toArray()) {
        cases.push_back({value["note"].toString(), value["query"].toString()});
    }
    QTemporaryDir folder;
    QTemporaryDir caches;
    for (size_t i = 0; i < cases.size(); ++i) {
        QFile note(folder.filePath(caseName(i)));
        if (!note.open(QIODevice::WriteOnly)) return 1;
        note.write(cases[i].note.toUtf8());
    }
    int distractor = 0;
    for (const QJsonValue& value : root.value("distractors").toArray()) {
        QFile note(folder.filePath(QStringLiteral("other-%1.md").arg(distractor++)));
        if (!note.open(QIODevice::WriteOnly)) return 1;
        note.write(value.toString().toUtf8());
    }
    NoteRepository repository(folder.path());
    auto service = NoteSearchService::open(caches.filePath("catalog.sqlite"));
    if (!service) {
        std::fprintf(stderr, "%s\n", qPrintable(service.error().description()));
        return 1;
    }
    if (auto synced = (*service)->synchronize(repository); !synced) {
        std::fprintf(stderr, "%s\n", qPrintable(synced.error().description()));
        return 1;
    }
    std::printf("%zu notes with paraphrased queries, %d distractors\n\n", cases.size(), distractor);
    std::printf("| mode | recall@5 | MRR |\n|---|---|---|\n");
    for (NoteSearchMode mode : {NoteSearchMode::keyword, NoteSearchMode::meaning, NoteSearchMode::hybrid}) {
        const Quality quality = judge(cases, [&](size_t i) {
            auto response = (*service)->search(cases[i].query, mode, 20);
            if (!response) return 0;
            for (size_t r = 0; r < response->results.size(); ++r) {
                if (response->results[r].identifier == caseName(i)) return int(r) + 1;
            }
            return 0;
        });
        std::printf("| %s | %.2f | %.3f |\n", qPrintable(NoteSearchModes::toString(mode)), quality.recallAt5,
                    quality.meanReciprocalRank);
    }

    // Variants of the sentence vectors, each note scored by its best chunk.
    auto table = WordVectorTable::open(WordVectorTable::defaultPath());
    if (!table) return 1;
    std::printf("\n| sentence vectors | recall@5 | MRR |\n|---|---|---|\n");
    const std::pair<const char*, WordVectorWeighting> variants[] = {
        {"plain average", {false, false}},
        {"inverse-frequency weights", {true, false}},
        {"common direction removed", {false, true}},
        {"both (used)", {true, true}},
    };
    for (const auto& [name, weighting] : variants) {
        const WordVectorEmbedder embedder(*table, {}, weighting);
        std::vector<std::vector<float>> notes;
        for (const Case& c : cases) notes.push_back(embedder.embed(c.note));
        const Quality quality = judge(cases, [&](size_t i) {
            const std::vector<float> query = embedder.embed(cases[i].query);
            const auto similarity = [&](size_t n) {
                double sum = 0;
                for (size_t d = 0; d < query.size(); ++d) sum += double(query[d]) * notes[n][d];
                return sum;
            };
            const double own = similarity(i);
            int rank = 1;
            for (size_t n = 0; n < notes.size(); ++n) rank += n != i && similarity(n) > own;
            return rank;
        });
        std::printf("| %s | %.2f | %.3f |\n", name, quality.recallAt5, quality.meanReciprocalRank);
    }
    if (argc > 2) {
        NoteRepository library(QString::fromLocal8Bit(argv[2]));
        QTemporaryDir libraryCaches;
        auto indexing = NoteSearchService::open(libraryCaches.filePath("catalog.sqlite"));
        if (!indexing) return 1;
        QElapsedTimer timer;
        timer.start();
        auto keywords = (*indexing)->catalog().synchronize(library);
        if (!keywords) return 1;
        const double keywordSeconds = timer.elapsed() / 1000.0;
        timer.restart();
        auto all = (*indexing)->synchronize(library);
        if (!all) return 1;
        const double meaningSeconds = timer.elapsed() / 1000.0;
        const int notes = (*indexing)->catalog().lastSemanticCount();
        std::printf("\n| indexing %d notes | result |\n|---|---|\n", notes);
        std::printf("| keyword index | %.1f s |\n", keywordSeconds);
        std::printf("| meaning index (chunking, vectors, one transaction a note, vectors into memory) | %.1f s, "
                    "%.0f notes/s |\n", meaningSeconds, notes / meaningSeconds);
        std::printf("| vectors in memory | %.1f MB |\n", (*indexing)->vectorBytes() / 1e6);
        timer.restart();
        auto reopened = NoteSearchService::open(libraryCaches.filePath("catalog.sqlite"));
        if (!reopened || !(*reopened)->refreshVectors()) return 1;
        std::printf("| loading the vectors of an indexed catalog | %.2f s |\n", timer.elapsed() / 1000.0);
    }
    return 0;
}
