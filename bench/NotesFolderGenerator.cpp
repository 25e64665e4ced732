#include "NotesFolderGenerator.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <set>
#include <stdexcept>

namespace mossly::bench {

namespace {

constexpr int vocabularySize = 30000;

QStringList makeVocabulary(std::mt19937_64& random) {
    // Real words (one a line, most frequent first) when meaning search is measured:
    // made-up words have no vectors.
    if (const QString list = qEnvironmentVariable("MOSSLY_GENERATOR_VOCABULARY"); !list.isEmpty()) {
        QFile file(list);
        if (!file.open(QIODevice::ReadOnly)) throw std::runtime_error("cannot read the vocabulary list");
        QStringList words = QString::fromUtf8(file.readAll()).split(u'\n', Qt::SkipEmptyParts);
        if (words.size() > vocabularySize) words.resize(vocabularySize);
        return words;
    }
    static const char* const onsets[] = {"b", "c", "d", "f", "g", "h", "k", "l", "m", "n", "p", "r", "s",
                                         "t", "v", "w", "br", "st", "tr", "pl", "ch", "sh", "gr", "cl"};
    static const char* const vowels[] = {"a", "e", "i", "o", "u", "ai", "ea", "ou", "io"};
    static const char* const accented[] = {"é", "è", "ü", "ö", "á", "ñ"};
    std::set<QString> seen;
    QStringList words;
    while (words.size() < vocabularySize) {
        QString word;
        const int syllables = 1 + static_cast<int>(random() % 3);
        for (int s = 0; s < syllables; ++s) {
            word += QString::fromUtf8(onsets[random() % std::size(onsets)]);
            // One word in forty carries an accent, to exercise diacritic folding.
            word += QString::fromUtf8(random() % 40 == 0 ? accented[random() % std::size(accented)]
                                                          : vowels[random() % std::size(vowels)]);
        }
        if (random() % 3 == 0) word += QString::fromUtf8(onsets[random() % 13]);
        if (seen.insert(word).second) words.append(word);
    }
    return words;
}

class ZipfSampler {
public:
    explicit ZipfSampler(int n, double s = 1.07) : cdf_(static_cast<size_t>(n)) {
        double sum = 0;
        for (int k = 0; k < n; ++k) cdf_[static_cast<size_t>(k)] = (sum += 1.0 / std::pow(k + 1, s));
        for (double& value : cdf_) value /= sum;
    }
    int operator()(std::mt19937_64& random) const {
        const double u = std::uniform_real_distribution<double>(0, 1)(random);
        return static_cast<int>(std::lower_bound(cdf_.begin(), cdf_.end(), u) - cdf_.begin());
    }

private:
    std::vector<double> cdf_;
};

struct Writer {
    const QStringList& vocabulary;
    const ZipfSampler& zipf;
    std::mt19937_64& random;
    std::vector<qint64>& frequency;

    QString word() {
        const int index = zipf(random);
        ++frequency[static_cast<size_t>(index)];
        return vocabulary[index];
    }
    QString words(int count) {
        QStringList out;
        for (int i = 0; i < count; ++i) out.append(word());
        return out.join(u' ');
    }
    QString note(int targetBytes) {
        QString text;
        if (random() % 5 == 0) {
            text += QStringLiteral("---\nnotes-created-by: agent:bench\nmeeting-count: %1\nstatus: \"draft\"\n---\n")
                        .arg(random() % 9);
        }
        QString title = words(2 + static_cast<int>(random() % 4));
        title[0] = title[0].toUpper();
        text += QStringLiteral("# ") + title + QStringLiteral("\n\n");
        while (text.size() < targetBytes) {
            switch (random() % 6) {
                case 0: text += QStringLiteral("## ") + words(3) + QStringLiteral("\n\n"); break;
                case 1:
                    for (int i = 0; i < 3; ++i) text += QStringLiteral("- ") + words(6) + u'\n';
                    text += u'\n';
                    break;
                default: {
                    QString paragraph = words(20 + static_cast<int>(random() % 60));
                    paragraph[0] = paragraph[0].toUpper();
                    text += paragraph + QStringLiteral(".\n\n");
                }
            }
        }
        return text;
    }
};

int noteSize(std::mt19937_64& random) {
    // Median about 3 KB, a long tail up to 200 KB.
    std::lognormal_distribution<double> size(std::log(3000.0), 1.1);
    return std::clamp(static_cast<int>(size(random)), 80, 200000);
}

QString notePath(int index, std::mt19937_64& random) {
    const int bucket = static_cast<int>(random() % 10);
    const QString name = QStringLiteral("Note %1.md").arg(index, 6, 10, QLatin1Char('0'));
    if (bucket == 0) return QStringLiteral("Projects/") + name;
    if (bucket == 1) return QStringLiteral("Archive/%1/").arg(2020 + index % 5) + name;
    return name;
}

void writeFile(const QString& path, const QString& text) {
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) throw std::runtime_error("cannot write note");
    file.write(text.toUtf8());
}

}  // namespace

GeneratedFolder generateNotesFolder(const QString& directory, int noteCount, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    const QStringList vocabulary = makeVocabulary(random);
    const ZipfSampler zipf(vocabularySize);
    std::vector<qint64> frequency(vocabularySize, 0);
    Writer writer{vocabulary, zipf, random, frequency};

    GeneratedFolder folder;
    for (int i = 0; i < noteCount; ++i) {
        const QString text = writer.note(noteSize(random));
        writeFile(directory + u'/' + notePath(i, random), text);
        folder.totalBytes += text.toUtf8().size();
    }
    folder.noteCount = noteCount;
    std::vector<int> order;
    for (int k = 0; k < vocabularySize; ++k) {
        if (frequency[static_cast<size_t>(k)] > 0) {
            folder.wordsPresent.append(vocabulary[k]);
            order.push_back(k);
        }
    }
    std::stable_sort(order.begin(), order.end(), [&](int a, int b) {
        return frequency[static_cast<size_t>(a)] > frequency[static_cast<size_t>(b)];
    });
    for (size_t i = 0; i < std::min<size_t>(50, order.size()); ++i) folder.mostCommon.append(vocabulary[order[i]]);
    return folder;
}

int touchNotes(const QString& directory, double fraction, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    QStringList files;
    QDirIterator it(directory, {QStringLiteral("*.md")}, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) files.append(it.next());
    files.sort();
    const QStringList vocabulary = makeVocabulary(random);
    const ZipfSampler zipf(vocabularySize);
    std::vector<qint64> frequency(vocabularySize, 0);
    Writer writer{vocabulary, zipf, random, frequency};
    int touched = 0;
    for (const QString& path : files) {
        if (std::uniform_real_distribution<double>(0, 1)(random) >= fraction) continue;
        writeFile(path, writer.note(noteSize(random)));
        ++touched;
    }
    return touched;
}

QStringList uniformQueries(const QStringList& words, int count, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    QStringList queries;
    for (int i = 0; i < count; ++i) {
        QStringList query;
        const int length = 1 + static_cast<int>(random() % 3);
        for (int w = 0; w < length; ++w) query.append(words[static_cast<qsizetype>(random() % words.size())]);
        queries.append(query.join(u' '));
    }
    return queries;
}

}  // namespace mossly::bench
