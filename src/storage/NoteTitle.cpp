#include "NoteTitle.h"

#include <QTextBoundaryFinder>

#include "HtmlDocumentCodec.h"
#include "NoteDocument.h"

namespace mossly {

namespace {

QString withoutHeadingMarker(QString line) {
    qsizetype hashes = 0;
    while (hashes < line.size() && hashes < 7 && line[hashes] == u'#') ++hashes;
    if (hashes >= 1 && hashes <= 6) line = line.mid(hashes).trimmed();
    return line;
}

QString fileStem(const QString& identifier) {
    const QString name = identifier.mid(identifier.lastIndexOf(u'/') + 1);
    const qsizetype dot = name.lastIndexOf(u'.');
    return dot > 0 ? name.left(dot) : name;
}

}  // namespace

QString noteTitle(const QString& visibleText, const QString& identifier) {
    // Scan line by line without splitting the whole (possibly large) text.
    qsizetype start = 0;
    while (start <= visibleText.size()) {
        qsizetype end = visibleText.indexOf(u'\n', start);
        if (end < 0) end = visibleText.size();
        const QString line = visibleText.mid(start, end - start).trimmed();
        if (!line.isEmpty()) {
            const QString title = withoutHeadingMarker(line);
            if (!title.isEmpty()) return title;
        }
        start = end + 1;
    }
    return fileStem(identifier);
}

QString leadingGraphemes(const QString& text, qsizetype count) {
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype taken = 0;
    qsizetype end = 0;
    while (taken < count) {
        const qsizetype next = finder.toNextBoundary();
        if (next < 0) return text;
        end = next;
        ++taken;
    }
    return text.left(end);
}

QString suggestedNoteName(const QString& body, NoteContentType contentType) {
    const QString untitled = QStringLiteral("Untitled");
    if (contentType == NoteContentType::html) {
        if (QString title = HtmlDocumentCodec::documentTitle(body); !title.isEmpty()) return title;
    }
    return noteTitle(NoteDocument(body, NoteEditor::human(), contentType).visibleText(), untitled);
}

}  // namespace mossly
