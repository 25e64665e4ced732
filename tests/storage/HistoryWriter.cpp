// A second writer of a notes folder for the history tests: it edits one note
// over and over as the given editor, retrying while the library is busy or the
// note changed, until it has written COUNT times or is killed. Prints how many
// of its writes were committed.
// Usage: history_writer NOTES_DIR IDENTIFIER EDITOR COUNT
#include <QCoreApplication>
#include <QThread>
#include <cstdio>

#include "NoteRepository.h"

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 5) return 2;
    const mossly::NoteRepository repository(arguments[1]);
    const QString identifier = arguments[2];
    const mossly::NoteEditor editor = mossly::NoteEditor::fromStoredValue(arguments[3]);
    const int count = arguments[4].toInt();
    int written = 0;
    for (int attempt = 0; written < count && attempt < count * 200; ++attempt) {
        auto note = repository.read(identifier);
        if (!note) continue;
        const QString body = note->document.body + QStringLiteral("\n%1 %2").arg(arguments[3]).arg(written);
        auto updated = repository.update(identifier, note->document.revision(), body, editor);
        if (updated) {
            ++written;
            std::printf("%d\n", written);
            std::fflush(stdout);
        } else {
            QThread::usleep(200);
        }
    }
    return written == count ? 0 : 1;
}
