#include "NoteModel.h"

#include "NoteTitle.h"

namespace mossly {

namespace {

constexpr qsizetype maximumExcerptLength = 160;

// The first line with text after the line the title came from.
QString excerptAfterTitle(const QString& visibleText) {
    bool passedTitle = false;
    qsizetype start = 0;
    while (start <= visibleText.size()) {
        qsizetype end = visibleText.indexOf(u'\n', start);
        if (end < 0) end = visibleText.size();
        const QString line = visibleText.mid(start, end - start).trimmed();
        start = end + 1;
        if (line.isEmpty()) continue;
        if (!passedTitle) {
            passedTitle = true;
            continue;
        }
        return line.left(maximumExcerptLength);
    }
    return {};
}

}  // namespace

Note noteFromStored(const StoredNote& stored) {
    const QString visibleText = stored.document.visibleText();
    return Note{stored.url,
                stored.identifier,
                stored.document.body,
                stored.contentType,
                stored.modifiedAt,
                stored.document.revision(),
                noteTitle(visibleText, stored.identifier),
                excerptAfterTitle(visibleText),
                std::make_shared<const NoteDocument>(stored.document)};
}

Note noteListEntryFromStored(const StoredNote& stored) {
    const QString visibleText = stored.document.visibleText();
    Note note{stored.url,
              stored.identifier,
              QString(),
              stored.contentType,
              stored.modifiedAt,
              stored.document.revision(),
              noteTitle(visibleText, stored.identifier),
              excerptAfterTitle(visibleText),
              nullptr};
    note.bodyLoaded = false;
    note.title.squeeze();
    note.excerpt.squeeze();
    return note;
}

}  // namespace mossly
