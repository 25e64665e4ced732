#include "NoteDrops.h"

#include <QFileInfo>
#include <QMimeData>
#include <QUrl>

#include "NoteContentType.h"

namespace mossly {

QStringList noteFilesIn(const QMimeData& data) {
    QStringList files;
    for (const QUrl& url : data.urls()) {
        if (!url.isLocalFile()) continue;
        const QString path = url.toLocalFile();
        if (noteContentTypeForFileName(path) && QFileInfo(path).isFile()) files.append(path);
    }
    return files;
}

std::optional<QString> htmlNoteFrom(const QMimeData& data) {
    if (data.hasHtml() && !data.html().trimmed().isEmpty()) {
        const QString html = data.html().trimmed();
        if (html.startsWith(QLatin1String("<!doctype"), Qt::CaseInsensitive) ||
            html.startsWith(QLatin1String("<html"), Qt::CaseInsensitive)) {
            return html + u'\n';
        }
        return QStringLiteral("<!doctype html>\n<html><head><meta charset=\"utf-8\"></head>\n<body>\n") + html +
               QStringLiteral("\n</body></html>\n");
    }
    const QString text = data.text().trimmed();
    if (text.startsWith(QLatin1String("<!doctype html"), Qt::CaseInsensitive) ||
        text.startsWith(QLatin1String("<html"), Qt::CaseInsensitive)) {
        return text + u'\n';
    }
    return std::nullopt;
}

}  // namespace mossly
