// Writes a deterministic synthetic notes library: generate_notes DIR COUNT [SEED]
#include <QCoreApplication>
#include <cstdio>

#include "NotesFolderGenerator.h"

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() < 3) {
        std::fprintf(stderr, "usage: generate_notes DIR COUNT [SEED]\n");
        return 2;
    }
    const auto seed = arguments.size() > 3 ? arguments[3].toULongLong() : 20261122ULL;
    const auto folder = mossly::bench::generateNotesFolder(arguments[1], arguments[2].toInt(), seed);
    std::printf("%lld notes, %.1f MB\n", static_cast<long long>(folder.noteCount),
                static_cast<double>(folder.totalBytes) / 1e6);
    return 0;
}
