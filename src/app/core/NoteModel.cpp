#include "NoteModel.h"

#include <QRegularExpression>

#include "NoteTitle.h"
#include "SyncConflictCopies.h"

namespace mossly {

namespace {

constexpr qsizetype maximumExcerptLength = 160;

// A line of Markdown as a reader sees it: no heading, list or quote markers,
// no emphasis or code marks, links as their text, images and tags left out.
QString readableLine(QString line) {
    static const QRegularExpression image(QStringLiteral(R"(!\[[^\]]*\]\([^)]*\))"));
    static const QRegularExpression link(QStringLiteral(R"(\[([^\]]*)\]\([^)]*\))"));
    static const QRegularExpression prefix(QStringLiteral(R"(^(?:#{1,6}[ \t]+|>[ \t]?|[-*+][ \t]+(?:\[[ xX]\][ \t]+)?|\d+\.[ \t]+)+)"));
    static const QRegularExpression tag(QStringLiteral(R"(</?[A-Za-z][^>]*>)"));
    static const QRegularExpression marks(QStringLiteral(R"((\*\*|__|~~|`|(?<![\w*])\*(?!\s)|(?<=\S)\*(?![\w*])|(?<!\w)_(?=\S)|(?<=\S)_(?!\w)))"));
    line.remove(image);
    line.replace(link, QStringLiteral("\\1"));
    line.remove(prefix);
    line.remove(tag);
    line.remove(marks);
    return line.simplified();
}

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
        const QString readable = readableLine(line);
        if (readable.isEmpty()) continue;  // a line of markup only (an image, a rule)
        return readable.left(maximumExcerptLength);
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

std::optional<QString> conflictCopyStamp(const QString& fileName) {
    static const QRegularExpression pattern(QStringLiteral(R"( \(Conflict ([^()]+)\)(?:-\d+)?\.[^.]+$)"));
    const QRegularExpressionMatch match = pattern.match(fileName);
    if (!match.hasMatch()) return std::nullopt;
    return match.captured(1);
}

}  // namespace mossly
